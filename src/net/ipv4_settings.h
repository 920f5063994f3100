// net/ipv4_settings.h: readers and verifiers of the IPv4 address settings.
#pragma once

#include "settings/setting_def.h"

bool read_ipv4_linklocal(const SettingDef* row, OwnedJson& value);
bool read_actual_ipv4_addr(const SettingDef* row, OwnedJson& value);
bool read_actual_ipv4_netmask(const SettingDef* row, OwnedJson& value);

// A unicast address, or null: none.
bool verify_ipv4_address(cJSON* item, JsonResponse* response);
// As above; "0.0.0.0" stands for a lost lease.
bool verify_dhcp_ipv4_address(cJSON* item, JsonResponse* response);
// A prefix length of 1 to 31, or a dotted netmask, which is rewritten as its length.
bool verify_ipv4_netmask(cJSON* item, JsonResponse* response);
