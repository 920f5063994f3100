#include "catalogue.h"

#include "settings/apply_flag_names.h"

#include <algorithm>
#include <iterator>

namespace quarnctl {

namespace {

// What values a setting takes.
constexpr char TAKES_BOOLEAN[] = "true or false (also on, off, yes, no)";
constexpr char TAKES_NETMASK[] = "a prefix length from 1 to 31, or a dotted netmask";
constexpr char TAKES_ADDRESS[] = "an IPv4 address that a host may have, or null for none";
constexpr char TAKES_LEASED_ADDRESS[] =
    "an IPv4 address that a host may have, 0.0.0.0 for a lost lease, or null for none";
constexpr char TAKES_IPV4_GATEWAYS[] = "a list of IPv4 addresses and host names";
constexpr char TAKES_IPV6_GATEWAYS[] = "a list of IPv6 addresses and host names";
constexpr char TAKES_IPV6_ADDRESSES[] =
    "up to 16 IPv6 addresses with a prefix length from 1 to 128, none of them ::, ::1 or multicast";
constexpr char TAKES_IPV4_NETWORKS[] =
    "up to 16 IPv4 networks with a prefix length from 0 to 32, like 192.168.1.0/24";
constexpr char TAKES_IPV6_NETWORKS[] =
    "up to 16 IPv6 networks with a prefix length from 0 to 128, like 2001:db8::/32";
constexpr char TAKES_PORTS[] =
    "a list of ports from 1 to 65535 and of ranges, like 22,7000-8000 or [22,[7000,8000]]";
constexpr char TAKES_NTP_IPV4[] = "up to 7 IPv4 addresses and host names";
constexpr char TAKES_NTP_IPV6[] = "up to 7 IPv6 addresses and host names";
constexpr char TAKES_NTP_ANY[] = "up to 7 IPv4 addresses, IPv6 addresses and host names";
constexpr char TAKES_DNS_IPV4[] = "a list of IPv4 addresses";
constexpr char TAKES_DNS_IPV6[] = "up to 3 IPv6 addresses";
constexpr char TAKES_DNS_ANY[] = "up to 3 IPv4 and IPv6 addresses";
constexpr char TAKES_SEARCH[] = "up to 6 domain names of at most 248 characters together";
constexpr char TAKES_MTU[] = "a number from 1200 to 1500";
constexpr char TAKES_LINK_SPEED[] = "a speed in Mbit/s that [NIC/eth0]SupportedModes lists";
constexpr char TAKES_RATE_LIMIT[] = "a number of kbit/s, at least [TrafficShaping]MinAvgRateLimit";
constexpr char TAKES_RATE[] = "a number of kbit/s";
constexpr char TAKES_BURST[] = "a number of bytes, at least [TrafficShaping]AvgRateLimit * 1024 / 8000";
constexpr char TAKES_PERCENTAGE[] = "a number from 0 to 100";
constexpr char TAKES_NAME[] =
    "a name of at most 63 characters with a letter in it: letters, digits, - and _, in parts joined by dots";
constexpr char TAKES_SERVICE_PORT[] = "a port from 1 to 65535 that nothing else uses";
constexpr char TAKES_ASKED_PORT[] = "a port from 1 to 65535";
constexpr char TAKES_CERTIFICATE[] = "the path of a regular file on the camera, or null for none";
constexpr char TAKES_NOTHING[] = "nothing: it cannot be set";

using namespace apply_flag_names;

// In the order of the daemon's own table; a unit test compares the two row by row.
// clang-format off
constexpr Setting SETTINGS[] = {
    {"[Settings]Apply", Type::BOOLEAN, Storage::MEMORY, TAKES_BOOLEAN, NOTHING, "true",
     "Whether saved settings are carried out at once; false saves only, until the daemon starts again."},
    {"[IPv4]Enabled", Type::BOOLEAN, Storage::READ_ONLY, TAKES_NOTHING, NOTHING, "true",
     "Whether IPv4 is used at all."},
    {"[IPv4/DHCP]Enabled", Type::BOOLEAN, Storage::BOOT_ENVIRONMENT, TAKES_BOOLEAN, IPV4_ADDR | RESOLV | NTP | IPV4_ROUTES | DHCPV4, "true",
     "Whether the IPv4 address, gateways and servers come from a DHCP server."},
    {"[IPv4/DHCP]Address", Type::TEXT, Storage::MEMORY, TAKES_LEASED_ADDRESS, IPV4_ADDR, "null",
     "The leased IPv4 address, as the DHCP client reports it."},
    {"[IPv4/DHCP]Netmask", Type::NETMASK, Storage::MEMORY, TAKES_NETMASK, IPV4_ADDR, "null",
     "The prefix length of the leased address."},
    {"[IPv4/DHCP]Gateways", Type::TEXT_LIST, Storage::MEMORY, TAKES_IPV4_GATEWAYS, NTP | IPV4_ROUTES, "[]",
     "The gateways of the lease, the first one first."},
    {"[IPv4/VeskoConf]Address", Type::TEXT, Storage::READ_ONLY, TAKES_NOTHING, NOTHING, "null",
     "The address of 192.168.0.0/24 that eth0 fell back to last, remembered for the next time."},
    {"[IPv4/LocalLink]Address", Type::TEXT, Storage::LIVE, TAKES_NOTHING, NOTHING, "null",
     "The link-local IPv4 address; reading it may probe the network for seconds until a free one is found."},
    {"[IPv4/LocalLink]Enabled", Type::BOOLEAN, Storage::BOOT_ENVIRONMENT, TAKES_BOOLEAN, NOTHING, "true",
     "Whether eth0 takes a link-local address while DHCP is on and there is no lease."},
    {"[IPv4/Manual]Address", Type::TEXT, Storage::BOOT_ENVIRONMENT, TAKES_ADDRESS, IPV4_ADDR, "null",
     "The IPv4 address used while DHCP is off."},
    {"[IPv4/Manual]Netmask", Type::NETMASK, Storage::BOOT_ENVIRONMENT, TAKES_NETMASK, IPV4_ADDR, "24",
     "The prefix length of the manual address."},
    {"[IPv4/Manual]Gateways", Type::TEXT_LIST, Storage::STORE, TAKES_IPV4_GATEWAYS, NTP | IPV4_ROUTES, "[]",
     "The default gateways used while DHCP is off; the first one is [IPv4/Manual]DefaultGateway."},
    {"[IPv4/Actual]Address", Type::TEXT, Storage::LIVE, TAKES_NOTHING, NOTHING, "null",
     "The IPv4 address that eth0 has now."},
    {"[IPv4/Actual]Netmask", Type::NUMBER, Storage::LIVE, TAKES_NOTHING, NOTHING, "null",
     "The prefix length of the address that eth0 has now."},
    {"[IPv6]Enabled", Type::BOOLEAN, Storage::BOOT_ENVIRONMENT, TAKES_BOOLEAN, IPV6_ADDR | RESOLV | NTP | WEBSERVER | IP6TABLES | IPV6_KERNEL | ACCEPT_RA | IPV6_ROUTES | DHCPV6, "true",
     "Whether IPv6 is used at all."},
    {"[IPv6/LocalLink]Address", Type::TEXT, Storage::LIVE, TAKES_NOTHING, NOTHING, "null",
     "The link-local IPv6 address of eth0."},
    {"[IPv6/Manual]Addresses", Type::TEXT_LIST, Storage::BOOT_ENVIRONMENT, TAKES_IPV6_ADDRESSES, IPV6_ADDR, "[]",
     "IPv6 addresses that eth0 has beside the learned ones."},
    {"[IPv6/Manual]Gateways", Type::TEXT_LIST, Storage::STORE, TAKES_IPV6_GATEWAYS, NTP | IPV6_ROUTES, "[]",
     "IPv6 default gateways beside the learned ones."},
    {"[IPv6/Stateless]AcceptRA", Type::BOOLEAN, Storage::STORE, TAKES_BOOLEAN, ACCEPT_RA, "true",
     "Whether router advertisements give addresses and gateways; DHCPv6 needs them."},
    {"[IPv6/Stateless]Addresses", Type::TEXT_LIST, Storage::LIVE, TAKES_NOTHING, NOTHING, "[]",
     "The IPv6 addresses that router advertisements gave."},
    {"[IPv6/Stateless]Gateways", Type::TEXT_LIST, Storage::LIVE, TAKES_NOTHING, NOTHING, "[]",
     "The IPv6 gateways that router advertisements gave."},
    {"[IPv6/Stateful]Enabled", Type::BOOLEAN, Storage::STORE, TAKES_BOOLEAN, IPV6_ADDR | RESOLV | NTP | DHCPV6, "true",
     "Whether a DHCPv6 client runs."},
    {"[IPv6/Stateful]UseAddress", Type::BOOLEAN, Storage::STORE, TAKES_BOOLEAN, IPV6_ADDR, "true",
     "Whether eth0 takes the addresses that DHCPv6 gives, and not only the servers."},
    {"[IPv6/Stateful]Addresses", Type::TEXT_LIST, Storage::MEMORY, TAKES_IPV6_ADDRESSES, IPV6_ADDR, "[]",
     "The leased IPv6 addresses, as the DHCPv6 client reports them."},
    {"[IPv6/Actual]Addresses", Type::TEXT_LIST, Storage::LIVE, TAKES_NOTHING, NOTHING, "null",
     "The IPv6 addresses that eth0 has now."},
    {"[IPv6/Actual]Gateways", Type::TEXT_LIST, Storage::LIVE, TAKES_NOTHING, NOTHING, "null",
     "The IPv6 gateways in use now."},
    {"[IPTables/Allow]IPv4List", Type::TEXT_LIST, Storage::STORE, TAKES_IPV4_NETWORKS, IPTABLES, "[]",
     "IPv4 networks that are let in although the deny list names them."},
    {"[IPTables/Allow]IPv6List", Type::TEXT_LIST, Storage::STORE, TAKES_IPV6_NETWORKS, IP6TABLES, "[]",
     "IPv6 networks that are let in although the deny list names them."},
    {"[IPTables/Deny]IPv4List", Type::TEXT_LIST, Storage::STORE, TAKES_IPV4_NETWORKS, IPTABLES, "[]",
     "IPv4 networks that are kept out; 0.0.0.0/0 keeps out all that the allow list does not name."},
    {"[IPTables/Deny]IPv6List", Type::TEXT_LIST, Storage::STORE, TAKES_IPV6_NETWORKS, IP6TABLES, "[]",
     "IPv6 networks that are kept out; ::/0 keeps out all that the allow list does not name."},
    {"[IPTables/Allow]TcpDestPorts", Type::PORT_LIST, Storage::STORE, TAKES_PORTS, IPTABLES | IP6TABLES, "[22, 161, 8888]",
     "TCP ports of the camera that may be reached, beside those of its own services."},
    {"[IPTables/Allow]TcpSourcePorts", Type::PORT_LIST, Storage::STORE, TAKES_PORTS, IPTABLES | IP6TABLES, "[]",
     "TCP ports of others from which the camera may be reached."},
    {"[IPTables/Allow]UdpDestPorts", Type::PORT_LIST, Storage::STORE, TAKES_PORTS, IPTABLES | IP6TABLES, "[123, 161, 546, 800, 1900, 2901, 3702, [7000, 8000], 30001]",
     "UDP ports of the camera that may be reached."},
    {"[IPTables/Allow]UdpSourcePorts", Type::PORT_LIST, Storage::STORE, TAKES_PORTS, IPTABLES | IP6TABLES, "[[6700, 8000]]",
     "UDP ports of others from which the camera may be reached."},
    {"[IPTables/Allow]UdpSourceNfsPorts", Type::PORT_LIST, Storage::STORE, TAKES_PORTS, IPTABLES | IP6TABLES, "[2049, [6700, 8000]]",
     "The same while the root file system comes over NFS."},
    {"[NTP]Enabled", Type::BOOLEAN, Storage::STORE, TAKES_BOOLEAN, NTP, "true",
     "Whether the clock is set by time servers."},
    {"[NTP/IPv4/DHCP]Enabled", Type::BOOLEAN, Storage::STORE, TAKES_BOOLEAN, NTP, "true",
     "Whether the time servers of the DHCP lease are used."},
    {"[NTP/IPv4/DHCP]Servers", Type::TEXT_LIST, Storage::MEMORY, TAKES_NTP_IPV4, NTP, "[]",
     "The time servers of the DHCP lease."},
    {"[NTP/IPv6/DHCP]Enabled", Type::BOOLEAN, Storage::STORE, TAKES_BOOLEAN, NTP, "true",
     "Whether the time servers that DHCPv6 gives are used."},
    {"[NTP/IPv6/DHCP]Servers", Type::TEXT_LIST, Storage::MEMORY, TAKES_NTP_IPV6, NTP, "[]",
     "The time servers that DHCPv6 gave."},
    {"[NTP/IPv6/Discovery]Enabled", Type::BOOLEAN, Storage::STORE, TAKES_BOOLEAN, NTP, "true",
     "Whether the time servers found by discovery are used."},
    {"[NTP/IPv6/Discovery]Servers", Type::TEXT_LIST, Storage::MEMORY, TAKES_NTP_ANY, NTP, "[]",
     "The time servers found by discovery."},
    {"[NTP/Manual]Enabled", Type::BOOLEAN, Storage::STORE, TAKES_BOOLEAN, NTP, "false",
     "Whether the manual time servers are used."},
    {"[NTP/Manual]Servers", Type::TEXT_LIST, Storage::STORE, TAKES_NTP_ANY, NTP, "[]",
     "Manual time servers."},
    {"[NIC/eth0]MAC", Type::TEXT, Storage::LIVE, TAKES_NOTHING, NOTHING, "null",
     "The hardware address of eth0."},
    {"[NIC/eth0]MTU", Type::NUMBER, Storage::STORE, TAKES_MTU, MTU, "1500",
     "The largest packet of eth0 in bytes; below 1280 there is no IPv6."},
    {"[NIC/eth0]EUI64", Type::TEXT, Storage::LIVE, TAKES_NOTHING, NOTHING, "null",
     "The interface identifier that follows from the hardware address."},
    {"[NIC/eth0/AutoNegotiated]Enabled", Type::BOOLEAN, Storage::STORE, TAKES_BOOLEAN, NIC, "true",
     "Whether speed and duplex are negotiated with the other end of the cable."},
    {"[NIC/eth0/AutoNegotiated]FullDuplex", Type::BOOLEAN, Storage::STORE, TAKES_BOOLEAN, NIC, "true",
     "Whether full duplex is offered in the negotiation."},
    {"[NIC/eth0/AutoNegotiated]LinkSpeed", Type::NUMBER, Storage::STORE, TAKES_LINK_SPEED, NIC, nullptr,
     "The highest speed offered in the negotiation, in Mbit/s. A change to 100 or 1000 also sets [TrafficShaping]AvgRateLimit."},
    {"[NIC/eth0/Actual]Autonegotiated", Type::BOOLEAN, Storage::LIVE, TAKES_NOTHING, NOTHING, "null",
     "Whether the link was negotiated."},
    {"[NIC/eth0/Actual]FullDuplex", Type::BOOLEAN, Storage::LIVE, TAKES_NOTHING, NOTHING, "null",
     "Whether the link is full duplex now."},
    {"[NIC/eth0/Actual]LinkSpeed", Type::NUMBER, Storage::LIVE, TAKES_NOTHING, NOTHING, "null",
     "The speed of the link now, in Mbit/s."},
    {"[NIC/eth0/Manual]FullDuplex", Type::BOOLEAN, Storage::STORE, TAKES_BOOLEAN, NIC, "true",
     "The duplex mode while nothing is negotiated."},
    {"[NIC/eth0/Manual]LinkSpeed", Type::NUMBER, Storage::STORE, TAKES_LINK_SPEED, NIC, "100",
     "The speed while nothing is negotiated, in Mbit/s. A change to 100 or 1000 also sets [TrafficShaping]AvgRateLimit."},
    {"[NIC/eth0/Supported]LinkSpeed", Type::NUMBER, Storage::LIVE, TAKES_NOTHING, NOTHING, "100",
     "The highest speed that eth0 can do, in Mbit/s."},
    {"[TrafficShaping]Enabled", Type::BOOLEAN, Storage::STORE, TAKES_BOOLEAN, TRAFFIC_SHAPING, "true",
     "Whether what the camera sends is shaped."},
    {"[TrafficShaping]AvgRateLimit", Type::NUMBER, Storage::STORE, TAKES_RATE_LIMIT, TRAFFIC_SHAPING, "80000",
     "The rate of everything together in kbit/s; at least [TrafficShaping]MinAvgRateLimit."},
    {"[TrafficShaping]BurstSize", Type::NUMBER, Storage::STORE, TAKES_BURST, TRAFFIC_SHAPING, "10240",
     "The burst of everything together in bytes; at least what the rate limit sends in a millisecond."},
    {"[TrafficShaping]Rtp/BurstPercent", Type::NUMBER, Storage::STORE, TAKES_PERCENTAGE, TRAFFIC_SHAPING, "100",
     "The media streams' part of the burst."},
    {"[TrafficShaping]Rtp/CeilPercent", Type::NUMBER, Storage::STORE, TAKES_PERCENTAGE, TRAFFIC_SHAPING, "100",
     "The media streams' highest part of the rate limit."},
    {"[TrafficShaping]LowLatency/Rate", Type::NUMBER, Storage::STORE, TAKES_RATE, TRAFFIC_SHAPING, "90",
     "The rate in kbit/s kept for control traffic."},
    {"[TrafficShaping]LowLatency/BurstPercent", Type::NUMBER, Storage::STORE, TAKES_PERCENTAGE, TRAFFIC_SHAPING, "100",
     "Control traffic's part of the burst."},
    {"[TrafficShaping]LowLatency/CeilPercent", Type::NUMBER, Storage::STORE, TAKES_PERCENTAGE, TRAFFIC_SHAPING, "85",
     "Control traffic's highest part of the rate limit."},
    {"[TrafficShaping]Bulk/Rate", Type::NUMBER, Storage::STORE, TAKES_RATE, TRAFFIC_SHAPING, "400",
     "The rate in kbit/s kept for the web server."},
    {"[TrafficShaping]Bulk/BurstPercent", Type::NUMBER, Storage::STORE, TAKES_PERCENTAGE, TRAFFIC_SHAPING, "100",
     "The web server's part of the burst."},
    {"[TrafficShaping]Bulk/CeilPercent", Type::NUMBER, Storage::STORE, TAKES_PERCENTAGE, TRAFFIC_SHAPING, "100",
     "The web server's highest part of the rate limit."},
    {"[TrafficShaping]Misc/Rate", Type::NUMBER, Storage::STORE, TAKES_RATE, TRAFFIC_SHAPING, "10",
     "The rate in kbit/s kept for all other traffic."},
    {"[TrafficShaping]Misc/BurstPercent", Type::NUMBER, Storage::STORE, TAKES_PERCENTAGE, TRAFFIC_SHAPING, "100",
     "Other traffic's part of the burst."},
    {"[TrafficShaping]Misc/CeilPercent", Type::NUMBER, Storage::STORE, TAKES_PERCENTAGE, TRAFFIC_SHAPING, "80",
     "Other traffic's highest part of the rate limit."},
    {"[TrafficShaping]MinAvgRateLimit", Type::NUMBER, Storage::LIVE, TAKES_NOTHING, NOTHING, "null",
     "The least value of [TrafficShaping]AvgRateLimit: the three rates kept, and 12000 for media."},
    {"[TrafficShaping]BurstTime", Type::NUMBER, Storage::LIVE, TAKES_NOTHING, NOTHING, "null",
     "The time in milliseconds from which the least burst follows."},
    {"[DNS]Enabled", Type::BOOLEAN, Storage::STORE, TAKES_BOOLEAN, RESOLV | NTP, "true",
     "Whether names are looked up at all."},
    {"[DNS/IPv4/DHCP]Enabled", Type::BOOLEAN, Storage::STORE, TAKES_BOOLEAN, RESOLV | NTP, "true",
     "Whether the name servers of the DHCP lease are used."},
    {"[DNS/IPv4/DHCP]Servers", Type::TEXT_LIST, Storage::MEMORY, TAKES_DNS_IPV4, RESOLV | NTP, "[]",
     "The name servers of the DHCP lease."},
    {"[DNS/IPv4/DHCP]Search", Type::TEXT_LIST, Storage::MEMORY, TAKES_SEARCH, RESOLV | NTP, "[]",
     "The search domains of the DHCP lease; kept for others, the resolver uses the manual ones."},
    {"[DNS/IPv6/DHCP]Enabled", Type::BOOLEAN, Storage::STORE, TAKES_BOOLEAN, RESOLV | NTP, "true",
     "Whether the name servers that DHCPv6 gives are used."},
    {"[DNS/IPv6/DHCP]Servers", Type::TEXT_LIST, Storage::MEMORY, TAKES_DNS_IPV6, RESOLV | NTP, "[]",
     "The name servers that DHCPv6 gave."},
    {"[DNS/IPv6/DHCP]Search", Type::TEXT_LIST, Storage::MEMORY, TAKES_SEARCH, RESOLV | NTP, "[]",
     "The search domains that DHCPv6 gave; kept for others, the resolver uses the manual ones."},
    {"[DNS/IPv6/Discovery]Enabled", Type::BOOLEAN, Storage::STORE, TAKES_BOOLEAN, RESOLV, "true",
     "Whether the name servers of router advertisements are used."},
    {"[DNS/IPv6/Discovery]Servers", Type::TEXT_LIST, Storage::MEMORY, TAKES_DNS_ANY, RESOLV, "[]",
     "The name servers of router advertisements."},
    {"[DNS/IPv6/Discovery]Search", Type::TEXT_LIST, Storage::MEMORY, TAKES_SEARCH, RESOLV, "[]",
     "The search domains of router advertisements; kept for others, the resolver uses the manual ones."},
    {"[DNS/Manual]Enabled", Type::BOOLEAN, Storage::STORE, TAKES_BOOLEAN, RESOLV | NTP, "true",
     "Whether the manual name servers and search domains are used."},
    {"[DNS/Manual]Servers", Type::TEXT_LIST, Storage::STORE, TAKES_DNS_ANY, RESOLV | NTP, "[]",
     "Manual name servers."},
    {"[DNS/Manual]Search", Type::TEXT_LIST, Storage::STORE, TAKES_SEARCH, RESOLV | NTP, "[]",
     "Manual search domains."},
    {"[Hostname]Name", Type::TEXT, Storage::BOOT_ENVIRONMENT, TAKES_NAME, HOSTNAME, "null",
     "The camera's host name; made of model name and serial number when there is none. It cannot be taken away, only changed."},
    {"[Hostname]Domain", Type::TEXT, Storage::STORE, TAKES_NAME, RESOLV, "null",
     "The camera's domain. It cannot be taken away, only changed."},
    {"[Webserver/HTTP]Enabled", Type::BOOLEAN, Storage::STORE, TAKES_BOOLEAN, WEBSERVER | IPTABLES | IP6TABLES, "true",
     "Whether the web server answers HTTP; HTTP or HTTPS must."},
    {"[Webserver/HTTP]Port", Type::NUMBER, Storage::STORE, TAKES_SERVICE_PORT, WEBSERVER | IPTABLES | IP6TABLES | TRAFFIC_PORTS, "80",
     "The port of HTTP."},
    {"[Webserver/HTTPS]Enabled", Type::BOOLEAN, Storage::STORE, TAKES_BOOLEAN, WEBSERVER | IPTABLES | IP6TABLES, "false",
     "Whether the web server answers HTTPS; it needs a certificate."},
    {"[Webserver/HTTPS]Port", Type::NUMBER, Storage::STORE, TAKES_SERVICE_PORT, WEBSERVER | IPTABLES | IP6TABLES | TRAFFIC_PORTS, "443",
     "The port of HTTPS."},
    {"[Webserver/HTTPS]Certificate", Type::TEXT, Storage::STORE, TAKES_CERTIFICATE, WEBSERVER, "null",
     "The file with the web server's certificate and key."},
    {"[Webserver/HTTPS]Authority", Type::TEXT, Storage::STORE, TAKES_CERTIFICATE, WEBSERVER, "null",
     "The file with the certificates of the authorities above it."},
    {"[TCP/Port]InUse", Type::NUMBER, Storage::LIVE, TAKES_ASKED_PORT, NOTHING, "null",
     "A question: setting it to a port is refused when something listens there, and stores nothing."},
    {"[RTSP]Enabled", Type::BOOLEAN, Storage::STORE, TAKES_BOOLEAN, IPTABLES | IP6TABLES, "true",
     "Whether the media streams' port may be reached."},
    {"[RTSP]Port", Type::NUMBER, Storage::STORE, TAKES_SERVICE_PORT, IPTABLES | IP6TABLES | TRAFFIC_PORTS, "554",
     "The port of RTSP."},
    {"[NIC/eth0]SupportedModes", Type::OBJECT, Storage::MEMORY, TAKES_NOTHING, NOTHING, " { \"half_duplex\":[10,100,1000],\"full_duplex\":[10,100,1000] } ",
     "The speeds that eth0 supports in each duplex mode, in Mbit/s."},
    {"[IPv4/Manual]DefaultGateway", Type::TEXT, Storage::BOOT_ENVIRONMENT, TAKES_ADDRESS, NOTHING, "null",
     "The first of [IPv4/Manual]Gateways."},
};
// clang-format on

// What a change of a setting does, by apply flag, in the order in which it is done.
struct Effect {
    std::uint32_t flag;
    const char* text;
};
constexpr Effect EFFECTS[] = {
    {APPLY_IPV6_KERNEL, "switches IPv6 in the kernel"},
    {APPLY_ACCEPT_RA, "switches router advertisements"},
    {APPLY_NIC, "sets the link mode, which may interrupt the link"},
    {APPLY_MTU, "sets the MTU"},
    {APPLY_HOSTNAME, "sets the host name"},
    {APPLY_IPV4_ADDR, "sets the IPv4 address"},
    {APPLY_IPV6_ADDR, "sets the IPv6 addresses"},
    {APPLY_IPV4_ROUTES, "sets the IPv4 routes"},
    {APPLY_IPV6_ROUTES, "sets the IPv6 routes"},
    {APPLY_DHCPV4, "starts or stops the DHCP client"},
    {APPLY_DHCPV6, "starts or stops the DHCPv6 client"},
    {APPLY_RESOLV, "writes the resolver's configuration"},
    {APPLY_NTP, "writes the time service's configuration and reloads it"},
    {APPLY_WEBSERVER, "writes the web server's configuration and reloads it"},
    {APPLY_IPTABLES, "loads the IPv4 packet filter"},
    {APPLY_IP6TABLES, "loads the IPv6 packet filter"},
    {APPLY_TRAFFIC_SHAPING, "sets the traffic shaping"},
    {APPLY_TRAFFIC_PORTS, "sets the traffic shaping of ports"},
};

constexpr double DEFAULT_LINK_SPEED = 100;

} // namespace

std::span<const Setting> all_settings()
{
    return SETTINGS;
}

const Setting* find_setting(std::string_view key)
{
    const auto* found = std::ranges::find(SETTINGS, key, &Setting::key);
    return found != std::end(SETTINGS) ? found : nullptr;
}

bool can_be_set(const Setting& setting)
{
    return setting.accepts != TAKES_NOTHING;
}

bool can_be_null(const Setting& setting)
{
    return setting.accepts == TAKES_ADDRESS || setting.accepts == TAKES_LEASED_ADDRESS ||
           setting.accepts == TAKES_CERTIFICATE;
}

bool is_configuration(const Setting& setting)
{
    return setting.storage == Storage::STORE || setting.storage == Storage::BOOT_ENVIRONMENT;
}

bool is_list(const Setting& setting)
{
    return setting.type == Type::TEXT_LIST || setting.type == Type::PORT_LIST;
}

OwnedJson default_of(const Setting& setting)
{
    // The daemon's own default may be another one: eth0_max_speed in its configuration.
    if (setting.default_json == nullptr)
        return OwnedJson(cJSON_CreateNumber(DEFAULT_LINK_SPEED));
    return OwnedJson(cJSON_Parse(setting.default_json));
}

const char* name_of(Type type)
{
    switch (type) {
    case Type::BOOLEAN:
        return "boolean";
    case Type::NUMBER:
    case Type::NETMASK:
        return "number";
    case Type::TEXT:
        return "text";
    case Type::TEXT_LIST:
        return "list of texts";
    case Type::PORT_LIST:
        return "list of ports";
    case Type::OBJECT:
        return "object";
    }
    return "";
}

const char* name_of(Storage storage)
{
    switch (storage) {
    case Storage::STORE:
        return "store";
    case Storage::MEMORY:
        return "memory";
    case Storage::BOOT_ENVIRONMENT:
        return "boot environment";
    case Storage::LIVE:
        return "live";
    case Storage::READ_ONLY:
        return "read-only";
    }
    return "";
}

std::string effect_of(const Setting& setting)
{
    std::string text;
    for (const Effect& effect : EFFECTS) {
        if ((setting.apply_flags & effect.flag) == 0)
            continue;
        text += text.empty() ? "" : "; ";
        text += effect.text;
    }
    return text.empty() ? "nothing at once" : text;
}

} // namespace quarnctl
