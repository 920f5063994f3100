// net/ipv6_addresses.h: the permanent global IPv6 addresses of eth0, their readers and their verifier.
#pragma once

#include "settings/setting_def.h"

// Replaces the permanent global addresses by the manual ones and, where they are to be used, the leased ones.
bool set_ipv6_addresses();
// Adds "address/length"; without a length /64 is taken.
bool add_ipv6_address(const char* text);

bool read_ipv6_linklocal(const SettingDef* row, OwnedJson& value);
bool read_actual_ipv6_addrs(const SettingDef* row, OwnedJson& value);
bool read_stateless_ipv6_addrs(const SettingDef* row, OwnedJson& value);

// At most 16 unicast addresses with prefix lengths of 1 to 128.
bool verify_unicast6_arr(cJSON* item, JsonResponse* response);
