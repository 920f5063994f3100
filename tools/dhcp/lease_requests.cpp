#include "lease_requests.h"

#include "api/text_tests.h"
#include "core/ipv4_text.h"
#include "core/log.h"
#include "lease_items.h"

#include <algorithm>
#include <optional>
#include <vector>

namespace {

using Items = std::vector<std::string>;

constexpr char INTERFACE[] = "eth0";
constexpr char IPV4_ADDRESS[] = "[IPv4/DHCP]Address";
constexpr char IPV4_NETMASK[] = "[IPv4/DHCP]Netmask";
constexpr char IPV4_GATEWAYS[] = "[IPv4/DHCP]Gateways";
constexpr char IPV6_ADDRESSES[] = "[IPv6/Stateful]Addresses";

// As the daemon's verifiers have them; IPv4 DNS servers and gateways are not counted.
constexpr std::size_t MAX_IPV6_DNS_SERVERS = 3;
constexpr std::size_t MAX_NTP_SERVERS = 7;
constexpr std::size_t MAX_IPV6_ADDRESSES = 16;
constexpr unsigned MAX_IPV4_PREFIX_LENGTH = 31;
constexpr std::uint32_t MAX_IPV6_PREFIX_LENGTH = 128;

std::string value_of(const Variables& variables, std::string_view name)
{
    const auto found = variables.find(name);
    return found != variables.end() ? found->second : std::string();
}

OwnedJson new_request()
{
    return OwnedJson(cJSON_CreateObject());
}

void add_list(cJSON* request, const char* key, const Items& items)
{
    cJSON* list = cJSON_AddArrayToObject(request, key);
    for (const std::string& item : items)
        cJSON_AddItemToArray(list, cJSON_CreateString(item.c_str()));
}

struct LearnedServers {
    Items dns;
    Items search;
    Items ntp;
};

// IPv4

struct Ipv4Lease {
    std::string address;
    unsigned prefix_length;
};

unsigned prefix_length_of_class(std::uint32_t address)
{
    constexpr std::uint32_t FIRST_CLASS_B = 0x80000000;
    constexpr std::uint32_t FIRST_CLASS_C = 0xC0000000;
    if (address < FIRST_CLASS_B)
        return 8;
    return address < FIRST_CLASS_C ? 16 : 24;
}

unsigned prefix_length_of(const Variables& variables, std::uint32_t address)
{
    const std::string netmask = value_of(variables, "subnet");
    const unsigned length = netmask_to_prefix(netmask.c_str());
    if (length >= 1 && length <= MAX_IPV4_PREFIX_LENGTH)
        return length;
    const unsigned usual = prefix_length_of_class(address);
    log_message(LEVEL_WARNING, "%s: The lease has no usable netmask ('%.64s'). Using /%u", __func__,
                netmask.c_str(), usual);
    return usual;
}

// The network's own address or its broadcast address. A network of two has neither.
bool names_whole_network(std::uint32_t address, unsigned prefix_length)
{
    const std::uint32_t host_bits = 0xFFFFFFFFU >> prefix_length;
    const std::uint32_t host = address & host_bits;
    return prefix_length < MAX_IPV4_PREFIX_LENGTH && (host == 0 || host == host_bits);
}

std::optional<Ipv4Lease> read_ipv4_lease(const Variables& variables)
{
    const std::string text = value_of(variables, "ip");
    const std::uint32_t address = is_host_ipv4(text) ? ipv4_to_host_order(text.c_str()) : 0;
    const unsigned prefix_length = address != 0 ? prefix_length_of(variables, address) : 0;
    if (address != 0 && !names_whole_network(address, prefix_length))
        return Ipv4Lease{text, prefix_length};
    log_message(LEVEL_ERROR, "%s: A lease of '%.64s' is of no use: no host may have that address", __func__,
                text.c_str());
    return std::nullopt;
}

// The search list (option 119, which udhcpc passes on as it came), else the domain (option 15).
Items read_ipv4_search(const Variables& variables)
{
    Items search = pick_domains("DHCP search list", value_of(variables, "search"));
    const std::string domain = value_of(variables, "domain");
    // udhcpc writes "bad" in the place of a domain that it takes for hostile.
    if (search.empty() && domain != "bad")
        search = pick_domains("DHCP domain", domain);
    return search;
}

void add_ipv4_lists(cJSON* request, const Items& gateways, const LearnedServers& servers)
{
    add_list(request, IPV4_GATEWAYS, gateways);
    add_list(request, "[DNS/IPv4/DHCP]Servers", servers.dns);
    add_list(request, "[DNS/IPv4/DHCP]Search", servers.search);
    add_list(request, "[NTP/IPv4/DHCP]Servers", servers.ntp);
}

bool reports_lease(const LastReport& last)
{
    return cJSON_IsString(cJSON_GetObjectItemCaseSensitive(last.request.get(), IPV4_ADDRESS));
}

bool reports_this_lease(const LastReport& last, const Ipv4Lease& lease)
{
    const cJSON* length = cJSON_GetObjectItemCaseSensitive(last.request.get(), IPV4_NETMASK);
    return reports_lease(last) && cJSON_IsNumber(length) &&
           length->valuedouble == static_cast<double>(lease.prefix_length) &&
           lease.address == cJSON_GetObjectItemCaseSensitive(last.request.get(), IPV4_ADDRESS)->valuestring;
}

OwnedJson ipv4_lease_request(const Ipv4Lease& lease, const Variables& variables, const LastReport& last)
{
    OwnedJson request = new_request();
    cJSON_AddStringToObject(request.get(), IPV4_ADDRESS, lease.address.c_str());
    cJSON_AddNumberToObject(request.get(), IPV4_NETMASK, lease.prefix_length);
    // Setting another address takes the default route away, and a gateway list that stays the same would not
    // bring it back: emptied and filled again, it counts as changed.
    if (!reports_this_lease(last, lease))
        add_list(request.get(), IPV4_GATEWAYS, {});
    const LearnedServers servers = {
        pick_items("DHCP DNS servers", value_of(variables, "dns"), is_host_ipv4, NO_LIMIT),
        read_ipv4_search(variables),
        pick_items("DHCP NTP servers", value_of(variables, "ntpsrv"), is_ipv4_or_name, MAX_NTP_SERVERS)};
    add_ipv4_lists(request.get(),
                   pick_items("DHCP gateways", value_of(variables, "router"), is_host_ipv4, NO_LIMIT),
                   servers);
    return request;
}

// The netmask stays out of it: without an address it means nothing, and null is none.
OwnedJson lost_ipv4_lease_request()
{
    OwnedJson request = new_request();
    cJSON_AddNullToObject(request.get(), IPV4_ADDRESS);
    add_ipv4_lists(request.get(), {}, {});
    return request;
}

// IPv6

OwnedJson ipv6_request(const Items& addresses, const LearnedServers& servers)
{
    OwnedJson request = new_request();
    add_list(request.get(), IPV6_ADDRESSES, addresses);
    add_list(request.get(), "[DNS/IPv6/DHCP]Servers", servers.dns);
    add_list(request.get(), "[DNS/IPv6/DHCP]Search", servers.search);
    add_list(request.get(), "[NTP/IPv6/DHCP]Servers", servers.ntp);
    return request;
}

Items reported_addresses(const LastReport& last)
{
    Items addresses;
    const cJSON* address = nullptr;
    cJSON_ArrayForEach(address, cJSON_GetObjectItemCaseSensitive(last.request.get(), IPV6_ADDRESSES))
    {
        if (cJSON_IsString(address))
            addresses.emplace_back(address->valuestring);
    }
    return addresses;
}

// With its prefix length; empty when there is none of use.
std::string read_ipv6_address(const Variables& variables)
{
    const std::string address = value_of(variables, "new_ip6_address");
    if (!address.empty() && !is_leasable_ipv6(address)) {
        log_message(LEVEL_ERROR, "%s: A lease of '%.64s' is of no use: no host may have that address",
                    __func__, address.c_str());
        return {};
    }
    const std::string text = value_of(variables, "new_ip6_prefixlen");
    std::uint32_t length = MAX_IPV6_PREFIX_LENGTH;
    if (!address.empty() && !parse_prefix_length(text.c_str(), 1, MAX_IPV6_PREFIX_LENGTH, length))
        log_message(LEVEL_WARNING, "%s: The lease has no usable prefix length ('%.64s'). Using /%u", __func__,
                    text.c_str(), length);
    return address.empty() ? address : address + "/" + std::to_string(length);
}

// dhclient calls once for each address that it has, at every renewal again. One that the server passes over
// is still its own until EXPIRE6; only what an earlier client had is forgotten.
Items joined_addresses(const std::string& address, bool is_new_client, const LastReport& last)
{
    Items addresses = is_new_client ? Items() : reported_addresses(last);
    if (address.empty() || std::ranges::find(addresses, address) != addresses.end())
        return addresses;
    if (addresses.size() < MAX_IPV6_ADDRESSES)
        addresses.push_back(address);
    else
        log_message(LEVEL_WARNING, "%s: Dropping %s: there are %zu addresses already", __func__,
                    address.c_str(), addresses.size());
    return addresses;
}

LastReport ipv6_lease_report(const Variables& variables, const std::string& client, const LastReport& last)
{
    const Items addresses = joined_addresses(read_ipv6_address(variables), client != last.mark, last);
    const LearnedServers servers = {
        pick_items("DHCPv6 DNS servers", value_of(variables, "new_dhcp6_name_servers"), is_host_ipv6,
                   MAX_IPV6_DNS_SERVERS),
        pick_domains("DHCPv6 search list", value_of(variables, "new_dhcp6_domain_search")),
        pick_items("DHCPv6 NTP servers", value_of(variables, "new_dhcp6_sntp_servers"), is_ipv6_or_name,
                   MAX_NTP_SERVERS)};
    return {client, ipv6_request(addresses, servers)};
}

// One address has come to its end; with the last one all is gone.
OwnedJson expired_ipv6_request(const Variables& variables, const LastReport& last)
{
    Items addresses = reported_addresses(last);
    const std::string expired = value_of(variables, "old_ip6_address") + "/";
    std::erase_if(addresses, [&](const std::string& address) { return address.starts_with(expired); });
    if (addresses.empty())
        return ipv6_request({}, {});
    OwnedJson request(cJSON_Duplicate(last.request.get(), true));
    OwnedJson list(cJSON_CreateArray());
    for (const std::string& address : addresses)
        cJSON_AddItemToArray(list.get(), cJSON_CreateString(address.c_str()));
    cJSON_ReplaceItemInObjectCaseSensitive(request.get(), IPV6_ADDRESSES, list.release());
    return request;
}

std::string_view take_word(std::string_view& line)
{
    constexpr std::string_view BLANKS = " \t";
    line.remove_prefix(std::min(line.find_first_not_of(BLANKS), line.size()));
    const std::string_view word = line.substr(0, line.find_first_of(BLANKS));
    line.remove_prefix(word.size());
    return word;
}

} // namespace

LastReport udhcpc_report(std::string_view event, const Variables& variables, const std::string& client,
                         const LastReport& last)
{
    if (value_of(variables, "interface") != INTERFACE)
        return {};
    if (event == "bound" || event == "renew") {
        const std::optional<Ipv4Lease> lease = read_ipv4_lease(variables);
        if (lease)
            return {client, ipv4_lease_request(*lease, variables, last)};
        return {client, reports_lease(last) ? lost_ipv4_lease_request() : nullptr};
    }
    // Each client begins with "deconfig": only the one that had the lease can lose it so. One that finds no
    // server has none, and an earlier client's lease is nobody's any more.
    const bool is_lost = event == "leasefail" || (event == "deconfig" && client == last.mark);
    return {client, is_lost && reports_lease(last) ? lost_ipv4_lease_request() : nullptr};
}

LastReport dhclient_report(const Variables& variables, const std::string& client, const LastReport& last)
{
    if (value_of(variables, "interface") != INTERFACE)
        return {};
    const std::string reason = value_of(variables, "reason");
    if (reason == "BOUND6" || reason == "RENEW6" || reason == "REBIND6")
        return ipv6_lease_report(variables, client, last);
    if (reason == "EXPIRE6")
        return {last.mark, expired_ipv6_request(variables, last)};
    if (reason == "RELEASE6" || reason == "STOP6")
        return {"", ipv6_request({}, {})};
    return {};
}

OwnedJson router_advertisement_request(std::string_view resolv_conf)
{
    // Link-local servers come with the interface, which the daemon writes behind them by itself.
    constexpr std::string_view ZONE = "%eth0";
    std::string servers;
    std::string search;
    while (!resolv_conf.empty()) {
        std::string_view line = resolv_conf.substr(0, resolv_conf.find('\n'));
        resolv_conf.remove_prefix(std::min(line.size() + 1, resolv_conf.size()));
        const std::string_view keyword = take_word(line);
        std::string& list = keyword == "nameserver" ? servers : search;
        if (keyword != "nameserver" && keyword != "search")
            continue;
        for (std::string_view word = take_word(line); !word.empty(); word = take_word(line)) {
            if (keyword == "nameserver" && word.ends_with(ZONE))
                word.remove_suffix(ZONE.size());
            list.append(word).append(" ");
        }
    }
    OwnedJson request = new_request();
    add_list(request.get(), "[DNS/IPv6/Discovery]Servers",
             pick_items("router's DNS servers", servers, is_host_ipv6, MAX_IPV6_DNS_SERVERS));
    add_list(request.get(), "[DNS/IPv6/Discovery]Search", pick_domains("router's search list", search));
    return request;
}
