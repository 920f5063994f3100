// net/routes.h: the default gateways of eth0 and its multicast route.
#pragma once

#include "settings/setting_def.h"

struct SettingRequest;

// Replaces the IPv4 default gateways by those of the lease or of the manual settings, in list order. Without
// an address nothing is run; a gateway that cannot be added is logged and left out. Always true.
bool set_ipv4_routes();

// Makes sure that a route for 224.0.0.0/4 on eth0 exists.
void add_multicast_route();

// Removes the IPv6 default gateways that a user or a tool has put in, and adds the manual ones. False when
// one could not be added.
bool remove_ipv6_user_gateways();

enum class GatewayChange { REMOVE, ADD };
bool single_ipv6_default_gateway(GatewayChange change, const char* gateway);

bool read_actual_ipv6_gateways(const SettingDef* row, OwnedJson& value);
// Those learned from router advertisements and the like.
bool read_ipv6_kernel_gateways(const SettingDef* row, OwnedJson& value);

// The manual IPv4 list is stored split: its first gateway as "[IPv4/Manual]DefaultGateway", which early boot
// reads, the rest under the list's own key.
bool read_manual_v4_gws(const SettingDef* row, OwnedJson& value);
bool save_manual_v4_gws(const cJSON* value);
