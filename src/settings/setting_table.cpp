#include "api/verifiers.h"
#include "net/ethtool.h"
#include "net/ipv4_settings.h"
#include "net/ipv6_addresses.h"
#include "net/link.h"
#include "net/routes.h"
#include "services/hostname.h"
#include "services/ntp.h"
#include "services/packet_filter.h"
#include "services/resolver.h"
#include "services/tcp_ports.h"
#include "services/traffic_shaping.h"
#include "settings/apply_flag_names.h"
#include "settings/bootenv.h"
#include "settings/setting_store.h"

#include <array>
#include <string_view>

using namespace apply_flag_names;

// One row a line: key, reader, verifier, saver, apply flags, default. A row without a saver is read-only; one
// without a reader reads as null.
// clang-format off
constexpr SettingDef SETTING_TABLE[] = {
    {"[Settings]Apply", read_setting, verify_is_bool, hold_setting, NOTHING, "true"},
    {"[IPv4]Enabled", read_setting, nullptr, nullptr, NOTHING, "true"},
    {"[IPv4/DHCP]Enabled", read_bootenv_setting<IPV4_DHCP_ENABLED>, verify_is_bool, save_bootenv_setting<IPV4_DHCP_ENABLED>, IPV4_ADDR | RESOLV | NTP | IPV4_ROUTES | DHCPV4, "true"},
    {"[IPv4/DHCP]Address", read_setting, verify_dhcp_ipv4_address, hold_setting, IPV4_ADDR, "null"},
    {"[IPv4/DHCP]Netmask", read_setting, verify_ipv4_netmask, hold_setting, IPV4_ADDR, "null"},
    {"[IPv4/DHCP]Gateways", read_setting, verify_server_list_host_or_ipv4, hold_setting, NTP | IPV4_ROUTES, "[]"},
    {"[IPv4/VeskoConf]Address", read_setting, nullptr, nullptr, NOTHING, "null"},
    {"[IPv4/LocalLink]Address", read_ipv4_linklocal, nullptr, nullptr, NOTHING, "null"},
    {"[IPv4/LocalLink]Enabled", read_bootenv_setting<IPV4_LINK_LOCAL_ENABLED>, verify_is_bool, save_bootenv_setting<IPV4_LINK_LOCAL_ENABLED>, NOTHING, "true"},
    {"[IPv4/Manual]Address", read_bootenv_setting<IPV4_MANUAL_ADDRESS>, verify_ipv4_address, save_bootenv_setting<IPV4_MANUAL_ADDRESS>, IPV4_ADDR, "null"},
    {"[IPv4/Manual]Netmask", read_bootenv_setting<IPV4_MANUAL_NETMASK>, verify_ipv4_netmask, save_bootenv_setting<IPV4_MANUAL_NETMASK>, IPV4_ADDR, "24"},
    {"[IPv4/Manual]Gateways", read_manual_v4_gws, verify_server_list_host_or_ipv4, save_manual_v4_gws, NTP | IPV4_ROUTES, "[]"},
    {"[IPv4/Actual]Address", read_actual_ipv4_addr, nullptr, nullptr, NOTHING, "null"},
    {"[IPv4/Actual]Netmask", read_actual_ipv4_netmask, nullptr, nullptr, NOTHING, "null"},
    {"[IPv6]Enabled", read_bootenv_setting<IPV6_ENABLED>, verify_is_bool, save_bootenv_setting<IPV6_ENABLED>, IPV6_ADDR | RESOLV | NTP | WEBSERVER | IP6TABLES | IPV6_KERNEL | ACCEPT_RA | IPV6_ROUTES | DHCPV6, "true"},
    {"[IPv6/LocalLink]Address", read_ipv6_linklocal, nullptr, nullptr, NOTHING, "null"},
    {"[IPv6/Manual]Addresses", read_bootenv_setting<IPV6_MANUAL_ADDRESSES>, verify_unicast6_arr, save_bootenv_setting<IPV6_MANUAL_ADDRESSES>, IPV6_ADDR, "[]"},
    {"[IPv6/Manual]Gateways", read_setting, verify_server_list_host_or_ipv6, save_setting, NTP | IPV6_ROUTES, "[]"},
    {"[IPv6/Stateless]AcceptRA", read_setting, verify_is_bool, save_setting, ACCEPT_RA, "true"},
    {"[IPv6/Stateless]Addresses", read_stateless_ipv6_addrs, nullptr, nullptr, NOTHING, "[]"},
    {"[IPv6/Stateless]Gateways", read_ipv6_kernel_gateways, nullptr, nullptr, NOTHING, "[]"},
    {"[IPv6/Stateful]Enabled", read_setting, verify_is_bool, save_setting, IPV6_ADDR | RESOLV | NTP | DHCPV6, "true"},
    {"[IPv6/Stateful]UseAddress", read_setting, verify_is_bool, save_setting, IPV6_ADDR, "true"},
    {"[IPv6/Stateful]Addresses", read_setting, verify_unicast6_arr, hold_setting, IPV6_ADDR, "[]"},
    {"[IPv6/Actual]Addresses", read_actual_ipv6_addrs, nullptr, nullptr, NOTHING, "null"},
    {"[IPv6/Actual]Gateways", read_actual_ipv6_gateways, nullptr, nullptr, NOTHING, "null"},
    {"[IPTables/Allow]IPv4List", read_setting, verify_ipv4_cidr_list, save_setting, IPTABLES, "[]"},
    {"[IPTables/Allow]IPv6List", read_setting, verify_ipv6_prefix_list, save_setting, IP6TABLES, "[]"},
    {"[IPTables/Deny]IPv4List", read_setting, verify_ipv4_cidr_list, save_setting, IPTABLES, "[]"},
    {"[IPTables/Deny]IPv6List", read_setting, verify_ipv6_prefix_list, save_setting, IP6TABLES, "[]"},
    {"[IPTables/Allow]TcpDestPorts", read_setting, verify_port_list, save_setting, IPTABLES | IP6TABLES, "[22, 161, 8888]"},
    {"[IPTables/Allow]TcpSourcePorts", read_setting, verify_port_list, save_setting, IPTABLES | IP6TABLES, "[]"},
    {"[IPTables/Allow]UdpDestPorts", read_setting, verify_port_list, save_setting, IPTABLES | IP6TABLES, "[123, 161, 546, 800, 1900, 2901, 3702, [7000, 8000], 30001]"},
    {"[IPTables/Allow]UdpSourcePorts", read_setting, verify_port_list, save_setting, IPTABLES | IP6TABLES, "[[6700, 8000]]"},
    {"[IPTables/Allow]UdpSourceNfsPorts", read_setting, verify_port_list, save_setting, IPTABLES | IP6TABLES, "[2049, [6700, 8000]]"},
    {"[NTP]Enabled", read_setting, verify_is_bool, save_setting, NTP, "true"},
    {"[NTP/IPv4/DHCP]Enabled", read_setting, verify_is_bool, save_setting, NTP, "true"},
    {"[NTP/IPv4/DHCP]Servers", read_setting, verify_ntp_servers_dhcpv4, hold_setting, NTP, "[]"},
    {"[NTP/IPv6/DHCP]Enabled", read_setting, verify_is_bool, save_setting, NTP, "true"},
    {"[NTP/IPv6/DHCP]Servers", read_setting, verify_ntp_servers_dhcpv6, hold_setting, NTP, "[]"},
    {"[NTP/IPv6/Discovery]Enabled", read_setting, verify_is_bool, save_setting, NTP, "true"},
    {"[NTP/IPv6/Discovery]Servers", read_setting, verify_ntp_servers, hold_setting, NTP, "[]"},
    {"[NTP/Manual]Enabled", read_setting, verify_is_bool, save_setting, NTP, "false"},
    {"[NTP/Manual]Servers", read_setting, verify_ntp_servers, save_setting, NTP, "[]"},
    {"[NIC/eth0]MAC", read_mac_addr, nullptr, nullptr, NOTHING, "null"},
    {"[NIC/eth0]MTU", read_setting, verify_mtu, save_setting, MTU, "1500"},
    {"[NIC/eth0]EUI64", read_eui64, nullptr, nullptr, NOTHING, "null"},
    {"[NIC/eth0/AutoNegotiated]Enabled", read_setting, verify_is_bool, save_setting, NIC, "true"},
    {"[NIC/eth0/AutoNegotiated]FullDuplex", read_setting, verify_is_bool, save_setting, NIC, "true"},
    {"[NIC/eth0/AutoNegotiated]LinkSpeed", read_setting, verify_is_number, save_link_speed, NIC, nullptr},
    {"[NIC/eth0/Actual]Autonegotiated", read_autoneg, nullptr, nullptr, NOTHING, "null"},
    {"[NIC/eth0/Actual]FullDuplex", read_duplex_mode, nullptr, nullptr, NOTHING, "null"},
    {"[NIC/eth0/Actual]LinkSpeed", read_link_speed, nullptr, nullptr, NOTHING, "null"},
    {"[NIC/eth0/Manual]FullDuplex", read_setting, verify_is_bool, save_setting, NIC, "true"},
    {"[NIC/eth0/Manual]LinkSpeed", read_setting, verify_is_number, save_link_speed, NIC, "100"},
    {"[NIC/eth0/Supported]LinkSpeed", read_supported_speed, nullptr, nullptr, NOTHING, "100"},
    {"[TrafficShaping]Enabled", read_setting, verify_is_bool, save_setting, TRAFFIC_SHAPING, "true"},
    {"[TrafficShaping]AvgRateLimit", read_setting, verify_is_number, save_setting, TRAFFIC_SHAPING, "80000"},
    {"[TrafficShaping]BurstSize", read_setting, verify_is_number, save_setting, TRAFFIC_SHAPING, "10240"},
    {"[TrafficShaping]Rtp/BurstPercent", read_setting, verify_is_percentage, save_setting, TRAFFIC_SHAPING, "100"},
    {"[TrafficShaping]Rtp/CeilPercent", read_setting, verify_is_percentage, save_setting, TRAFFIC_SHAPING, "100"},
    {"[TrafficShaping]LowLatency/Rate", read_setting, verify_is_number, save_setting, TRAFFIC_SHAPING, "90"},
    {"[TrafficShaping]LowLatency/BurstPercent", read_setting, verify_is_percentage, save_setting, TRAFFIC_SHAPING, "100"},
    {"[TrafficShaping]LowLatency/CeilPercent", read_setting, verify_is_percentage, save_setting, TRAFFIC_SHAPING, "85"},
    {"[TrafficShaping]Bulk/Rate", read_setting, verify_is_number, save_setting, TRAFFIC_SHAPING, "400"},
    {"[TrafficShaping]Bulk/BurstPercent", read_setting, verify_is_percentage, save_setting, TRAFFIC_SHAPING, "100"},
    {"[TrafficShaping]Bulk/CeilPercent", read_setting, verify_is_percentage, save_setting, TRAFFIC_SHAPING, "100"},
    {"[TrafficShaping]Misc/Rate", read_setting, verify_is_number, save_setting, TRAFFIC_SHAPING, "10"},
    {"[TrafficShaping]Misc/BurstPercent", read_setting, verify_is_percentage, save_setting, TRAFFIC_SHAPING, "100"},
    {"[TrafficShaping]Misc/CeilPercent", read_setting, verify_is_percentage, save_setting, TRAFFIC_SHAPING, "80"},
    {"[TrafficShaping]MinAvgRateLimit", read_min_avg_rate_limit, nullptr, nullptr, NOTHING, "null"},
    {"[TrafficShaping]BurstTime", read_burst_time, nullptr, nullptr, NOTHING, "null"},
    {"[DNS]Enabled", read_setting, verify_is_bool, save_setting, RESOLV | NTP, "true"},
    {"[DNS/IPv4/DHCP]Enabled", read_setting, verify_is_bool, save_setting, RESOLV | NTP, "true"},
    {"[DNS/IPv4/DHCP]Servers", read_setting, verify_dns_servers_dhcpv4, hold_setting, RESOLV | NTP, "[]"},
    {"[DNS/IPv4/DHCP]Search", read_setting, verify_dns_search, hold_setting, RESOLV | NTP, "[]"},
    {"[DNS/IPv6/DHCP]Enabled", read_setting, verify_is_bool, save_setting, RESOLV | NTP, "true"},
    {"[DNS/IPv6/DHCP]Servers", read_setting, verify_dns_servers_ipv6, hold_setting, RESOLV | NTP, "[]"},
    {"[DNS/IPv6/DHCP]Search", read_setting, verify_dns_search, hold_setting, RESOLV | NTP, "[]"},
    {"[DNS/IPv6/Discovery]Enabled", read_setting, verify_is_bool, save_setting, RESOLV, "true"},
    {"[DNS/IPv6/Discovery]Servers", read_setting, verify_dns_servers, hold_setting, RESOLV, "[]"},
    {"[DNS/IPv6/Discovery]Search", read_setting, verify_dns_search, hold_setting, RESOLV, "[]"},
    {"[DNS/Manual]Enabled", read_setting, verify_is_bool, save_setting, RESOLV | NTP, "true"},
    {"[DNS/Manual]Servers", read_setting, verify_dns_servers, save_setting, RESOLV | NTP, "[]"},
    {"[DNS/Manual]Search", read_setting, verify_dns_search, save_setting, RESOLV | NTP, "[]"},
    {"[Hostname]Name", read_bootenv_setting<HOSTNAME_NAME>, verify_hostname, save_bootenv_setting<HOSTNAME_NAME>, HOSTNAME, "null"},
    {"[Hostname]Domain", read_setting, verify_domain, save_setting, RESOLV, "null"},
    {"[Webserver/HTTP]Enabled", read_setting, verify_is_bool, save_setting, WEBSERVER | IPTABLES | IP6TABLES, "true"},
    {"[Webserver/HTTP]Port", read_setting, verify_port, save_setting, WEBSERVER | IPTABLES | IP6TABLES | TRAFFIC_PORTS, "80"},
    {"[Webserver/HTTPS]Enabled", read_setting, verify_is_bool, save_setting, WEBSERVER | IPTABLES | IP6TABLES, "false"},
    {"[Webserver/HTTPS]Port", read_setting, verify_port, save_setting, WEBSERVER | IPTABLES | IP6TABLES | TRAFFIC_PORTS, "443"},
    {"[Webserver/HTTPS]Certificate", read_setting, verify_is_file, save_setting, WEBSERVER, "null"},
    {"[Webserver/HTTPS]Authority", read_setting, verify_is_file, save_setting, WEBSERVER, "null"},
    {"[TCP/Port]InUse", nullptr, verify_port_in_use, save_port_in_use, NOTHING, "null"},
    {"[RTSP]Enabled", read_setting, verify_is_bool, save_setting, IPTABLES | IP6TABLES, "true"},
    {"[RTSP]Port", read_setting, verify_port, save_setting, IPTABLES | IP6TABLES | TRAFFIC_PORTS, "554"},
    {"[NIC/eth0]SupportedModes", read_setting, nullptr, hold_setting, NOTHING, " { \"half_duplex\":[10,100,1000],\"full_duplex\":[10,100,1000] } "},
    {"[IPv4/Manual]DefaultGateway", read_bootenv_setting<IPV4_MANUAL_DEFAULT_GATEWAY>, verify_ipv4_address, save_bootenv_setting<IPV4_MANUAL_DEFAULT_GATEWAY>, NOTHING, "null"},
    {},
};
// clang-format on

namespace {

constexpr std::size_t ROWS = std::size(SETTING_TABLE) - 1;
static_assert(ROWS == 98);

constexpr bool keys_are_unique()
{
    for (std::size_t row = 0; row < ROWS; ++row) {
        for (std::size_t other = row + 1; other < ROWS; ++other) {
            if (std::string_view(SETTING_TABLE[row].key) == SETTING_TABLE[other].key)
                return false;
        }
    }
    return true;
}
static_assert(keys_are_unique());

constexpr bool closed_by_zero_row()
{
    const SettingDef& last = SETTING_TABLE[ROWS];
    return last.key == nullptr && last.read == nullptr && last.verify == nullptr && last.save == nullptr &&
           last.apply_flags == 0 && last.default_json == nullptr;
}
static_assert(closed_by_zero_row());

constexpr bool every_flag_is_known()
{
    for (const SettingDef& row : SETTING_TABLE) {
        if ((row.apply_flags & ~std::uintptr_t{0x7FFFF}) != 0)
            return false;
    }
    return true;
}
static_assert(every_flag_is_known());

} // namespace
