// net/ethtool.h: the link mode of eth0: speed, duplex, autonegotiation, over the kernel's ethtool ioctl.
#pragma once

#include "settings/setting_def.h"

#include <linux/ethtool.h>

#include <array>

struct SettingRequest;

// Zero-terminated unless full; in Mb/s.
using LinkSpeeds = std::array<std::uint32_t, 5>;

struct EthtoolData {
    // False when the kernel did not answer; then nothing else holds.
    bool valid = false;
    bool autoneg = false;
    bool full_duplex = false;
    // Mb/s.
    std::uint32_t speed = 0;
    LinkSpeeds half_duplex_speeds{};
    LinkSpeeds full_duplex_speeds{};
};

// The link's present mode, and what it supports: from the capabilities cache, or from the kernel, which fills
// it.
EthtoolData ethtool_get_data();

bool ethtool_ioctl_get_cmd(ethtool_cmd& command);
bool ethtool_ioctl_set_cmd(ethtool_cmd command);

bool read_duplex_mode(const SettingDef* row, OwnedJson& value);
bool read_link_speed(const SettingDef* row, OwnedJson& value);
bool read_autoneg(const SettingDef* row, OwnedJson& value);
// The largest full-duplex speed.
bool read_supported_speed(const SettingDef* row, OwnedJson& value);

// Saves a link speed; a new speed of 100 or 1000 also sets the average rate limit that suits it.
bool save_link_speed(const cJSON* item);

// Group check: a proposed manual speed and duplex must be one that the link supports.
bool verify_group_eth0_mode(SettingRequest* request, JsonResponse* response);

// Puts the configured mode on eth0, then on the external PHYs that the configuration names.
bool apply_ethtool();
