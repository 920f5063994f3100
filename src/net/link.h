// net/link.h: lo and eth0 up, the MTU, the hardware address.
#pragma once

#include "settings/setting_def.h"

bool link_lo_up();
bool link_eth0_up();
// From "[NIC/eth0]MTU".
bool set_mtu();

bool read_mac_addr(const SettingDef* row, OwnedJson& value);
bool read_eui64(const SettingDef* row, OwnedJson& value);

// 1200 to 1500.
bool verify_mtu(cJSON* item, JsonResponse* response);
