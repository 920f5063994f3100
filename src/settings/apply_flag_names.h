// settings/apply_flag_names.h: the apply flags without their prefix, so that a row of a table stays one line.
#pragma once

#include "settings/setting_def.h"

namespace apply_flag_names {

inline constexpr std::uint32_t NOTHING = 0;
inline constexpr std::uint32_t IPV4_ADDR = APPLY_IPV4_ADDR;
inline constexpr std::uint32_t IPV6_ADDR = APPLY_IPV6_ADDR;
inline constexpr std::uint32_t RESOLV = APPLY_RESOLV;
inline constexpr std::uint32_t NTP = APPLY_NTP;
inline constexpr std::uint32_t WEBSERVER = APPLY_WEBSERVER;
inline constexpr std::uint32_t IPTABLES = APPLY_IPTABLES;
inline constexpr std::uint32_t IP6TABLES = APPLY_IP6TABLES;
inline constexpr std::uint32_t NIC = APPLY_NIC;
inline constexpr std::uint32_t HOSTNAME = APPLY_HOSTNAME;
inline constexpr std::uint32_t IPV6_KERNEL = APPLY_IPV6_KERNEL;
inline constexpr std::uint32_t ACCEPT_RA = APPLY_ACCEPT_RA;
inline constexpr std::uint32_t IPV4_ROUTES = APPLY_IPV4_ROUTES;
inline constexpr std::uint32_t IPV6_ROUTES = APPLY_IPV6_ROUTES;
inline constexpr std::uint32_t DHCPV4 = APPLY_DHCPV4;
inline constexpr std::uint32_t DHCPV6 = APPLY_DHCPV6;
inline constexpr std::uint32_t MTU = APPLY_MTU;
inline constexpr std::uint32_t TRAFFIC_SHAPING = APPLY_TRAFFIC_SHAPING;
inline constexpr std::uint32_t TRAFFIC_PORTS = APPLY_TRAFFIC_PORTS;

} // namespace apply_flag_names
