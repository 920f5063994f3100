// settings/setting_def.h: one row of the setting table, and what a change of a row requires.
#pragma once

#include "core/owned.h"

#include <cstdint>

struct JsonResponse;

// Apply flags: the configuration actions that a changed row calls for, carried out by apply_settings.
inline constexpr std::uint32_t APPLY_INIT = 0x1;
inline constexpr std::uint32_t APPLY_IPV4_ADDR = 0x2;
inline constexpr std::uint32_t APPLY_IPV6_ADDR = 0x4;
inline constexpr std::uint32_t APPLY_RESOLV = 0x8;
inline constexpr std::uint32_t APPLY_NTP = 0x10;
inline constexpr std::uint32_t APPLY_WEBSERVER = 0x20;
inline constexpr std::uint32_t APPLY_IPTABLES = 0x40;
inline constexpr std::uint32_t APPLY_IP6TABLES = 0x80;
inline constexpr std::uint32_t APPLY_NIC = 0x100;
inline constexpr std::uint32_t APPLY_HOSTNAME = 0x200;
inline constexpr std::uint32_t APPLY_IPV6_KERNEL = 0x400;
inline constexpr std::uint32_t APPLY_ACCEPT_RA = 0x800;
inline constexpr std::uint32_t APPLY_IPV4_ROUTES = 0x1000;
inline constexpr std::uint32_t APPLY_IPV6_ROUTES = 0x2000;
inline constexpr std::uint32_t APPLY_DHCPV4 = 0x4000;
inline constexpr std::uint32_t APPLY_DHCPV6 = 0x8000;
inline constexpr std::uint32_t APPLY_MTU = 0x10000;
inline constexpr std::uint32_t APPLY_TRAFFIC_SHAPING = 0x20000;
inline constexpr std::uint32_t APPLY_TRAFFIC_PORTS = 0x40000;
// Start-up: every action once.
inline constexpr std::uint32_t APPLY_EVERYTHING = 0xFFFFFFFF;

struct SettingDef {
    // "[Group/Subgroup]Name"; compared byte by byte.
    const char* key;
    // Puts a new item with the current value into `value` and returns true, or returns false and leaves it
    // empty.
    bool (*read)(const SettingDef* row, OwnedJson& value);
    // True when the proposed item (its key attached) may stand; else it has added its own error. May rewrite
    // the value in place: what it leaves is what is saved.
    bool (*verify)(cJSON* item, JsonResponse* response);
    // True when the item was stored; false when that failed or when nothing changed.
    bool (*save)(const cJSON* item);
    // Pointer-sized like its neighbours; the flags take 32 bits.
    std::uintptr_t apply_flags;
    // JSON text of the default; null where the row has none.
    const char* default_json;
};
static_assert(sizeof(SettingDef) == 6 * sizeof(void*));

// The table, in order, closed by a row that is all zero.
extern const SettingDef SETTING_TABLE[];
