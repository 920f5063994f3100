#include "status.h"

#include "catalogue.h"
#include "change_record.h"
#include "report.h"
#include "values.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <span>
#include <string_view>

namespace quarnctl {

namespace {

// Every address of the link-local network begins so.
constexpr char LINK_LOCAL_PREFIX[] = "169.254.";

bool is_on(const cJSON* values, std::string_view key)
{
    return cJSON_IsTrue(member(values, key));
}

std::string number_of(const cJSON* values, std::string_view key)
{
    const cJSON* value = member(values, key);
    return is_nothing(value) ? "?" : plain_text(value);
}

std::string joined(const cJSON* list)
{
    std::string text;
    for (const cJSON* item = cJSON_IsArray(list) ? list->child : nullptr; item != nullptr; item = item->next)
        text += (text.empty() ? "" : ", ") + plain_text(item);
    return text;
}

bool has_items(const cJSON* values, std::string_view key)
{
    const cJSON* list = member(values, key);
    return cJSON_IsArray(list) && list->child != nullptr;
}

// Addresses have many spellings; prefix lengths are left out.
bool is_same_ipv6(std::string_view first, std::string_view second)
{
    in6_addr one{};
    in6_addr other{};
    const std::string first_text(first.substr(0, first.find('/')));
    const std::string second_text(second.substr(0, second.find('/')));
    return inet_pton(AF_INET6, first_text.c_str(), &one) == 1 &&
           inet_pton(AF_INET6, second_text.c_str(), &other) == 1 && IN6_ARE_ADDR_EQUAL(&one, &other);
}

bool lists_ipv6(const cJSON* list, std::string_view address)
{
    for (const cJSON* item = cJSON_IsArray(list) ? list->child : nullptr; item != nullptr;
         item = item->next) {
        if (cJSON_IsString(item) && is_same_ipv6(item->valuestring, address))
            return true;
    }
    return false;
}

const char* origin_of_ipv4(const cJSON* values, const std::string& address)
{
    if (is_on(values, "[IPv4/DHCP]Enabled") && text_member(values, "[IPv4/DHCP]Address") == address)
        return "DHCP";
    if (text_member(values, "[IPv4/Manual]Address") == address)
        return "manual";
    return address.starts_with(LINK_LOCAL_PREFIX) ? "link-local" : "fallback";
}

const char* origin_of_ipv6(const cJSON* values, const std::string& address)
{
    if (lists_ipv6(member(values, "[IPv6/Manual]Addresses"), address))
        return "manual";
    if (lists_ipv6(member(values, "[IPv6/Stateful]Addresses"), address))
        return "DHCPv6";
    if (is_same_ipv6(text_member(values, "[IPv6/LocalLink]Address"), address))
        return "link-local";
    return "router advertisement";
}

// A source of servers that is in use.
struct Source {
    const char* name;
    // All of these must be on; empty ones are.
    const char* first_switch;
    const char* second_switch;
    const char* list;
};
constexpr Source DNS_SOURCES[] = {
    {"manual", "[DNS/Manual]Enabled", "", "[DNS/Manual]Servers"},
    {"DHCP", "[DNS/IPv4/DHCP]Enabled", "[IPv4/DHCP]Enabled", "[DNS/IPv4/DHCP]Servers"},
    {"DHCPv6", "[DNS/IPv6/DHCP]Enabled", "[IPv6/Stateful]Enabled", "[DNS/IPv6/DHCP]Servers"},
    {"discovery", "[DNS/IPv6/Discovery]Enabled", "[IPv6]Enabled", "[DNS/IPv6/Discovery]Servers"},
};
constexpr Source NTP_SOURCES[] = {
    {"manual", "[NTP/Manual]Enabled", "", "[NTP/Manual]Servers"},
    {"DHCP", "[NTP/IPv4/DHCP]Enabled", "[IPv4/DHCP]Enabled", "[NTP/IPv4/DHCP]Servers"},
    {"DHCPv6", "[NTP/IPv6/DHCP]Enabled", "[IPv6/Stateful]Enabled", "[NTP/IPv6/DHCP]Servers"},
    {"discovery", "[NTP/IPv6/Discovery]Enabled", "[IPv6]Enabled", "[NTP/IPv6/Discovery]Servers"},
};

bool is_in_use(const cJSON* values, const Source& source)
{
    const std::string_view second = source.second_switch;
    return is_on(values, source.first_switch) && (second.empty() || is_on(values, second)) &&
           has_items(values, source.list);
}

std::string servers_of(const cJSON* values, std::span<const Source> sources)
{
    std::string text;
    for (const Source& source : sources) {
        if (is_in_use(values, source))
            text +=
                (text.empty() ? "" : ", ") + joined(member(values, source.list)) + " (" + source.name + ")";
    }
    return text;
}

std::string link_line(const cJSON* values)
{
    const bool is_full = is_on(values, "[NIC/eth0/Actual]FullDuplex");
    return "eth0 " + text_member(values, "[NIC/eth0]MAC") + ", " +
           number_of(values, "[NIC/eth0/Actual]LinkSpeed") + " Mbit/s, " + (is_full ? "full" : "half") +
           " duplex, " +
           (is_on(values, "[NIC/eth0/Actual]Autonegotiated") ? "negotiated" : "not negotiated") + ", MTU " +
           number_of(values, "[NIC/eth0]MTU");
}

std::string gateway_line(const cJSON* values)
{
    const bool has_dhcp = is_on(values, "[IPv4/DHCP]Enabled");
    const char* ipv4 = has_dhcp ? "[IPv4/DHCP]Gateways" : "[IPv4/Manual]Gateways";
    std::string text = joined(member(values, ipv4));
    if (!text.empty())
        text += has_dhcp ? " (DHCP)" : " (manual)";
    const std::string ipv6 = joined(member(values, "[IPv6/Actual]Gateways"));
    if (!ipv6.empty())
        text += (text.empty() ? "" : ", ") + ipv6;
    return text;
}

std::string name_line(const cJSON* values)
{
    const std::string domain = text_member(values, "[Hostname]Domain");
    return text_member(values, "[Hostname]Name") + (domain.empty() ? "" : ", domain " + domain);
}

std::string port_line(const cJSON* values)
{
    struct Service {
        const char* name;
        const char* enabled;
        const char* port;
    };
    constexpr Service SERVICES[] = {
        {"HTTP", "[Webserver/HTTP]Enabled", "[Webserver/HTTP]Port"},
        {"HTTPS", "[Webserver/HTTPS]Enabled", "[Webserver/HTTPS]Port"},
        {"RTSP", "[RTSP]Enabled", "[RTSP]Port"},
    };
    std::string text;
    for (const Service& service : SERVICES) {
        text += (text.empty() ? "" : ", ") + std::string(service.name) + " ";
        text += is_on(values, service.enabled) ? number_of(values, service.port) : "off";
    }
    return text;
}

std::string filter_line(const cJSON* values)
{
    struct List {
        const char* name;
        const char* key;
    };
    constexpr List LISTS[] = {
        {"denied", "[IPTables/Deny]IPv4List"},          {"denied", "[IPTables/Deny]IPv6List"},
        {"allowed", "[IPTables/Allow]IPv4List"},        {"allowed", "[IPTables/Allow]IPv6List"},
        {"TCP", "[IPTables/Allow]TcpDestPorts"},        {"UDP", "[IPTables/Allow]UdpDestPorts"},
        {"from TCP", "[IPTables/Allow]TcpSourcePorts"}, {"from UDP", "[IPTables/Allow]UdpSourcePorts"},
    };
    std::string text;
    for (const List& list : LISTS) {
        if (has_items(values, list.key))
            text +=
                (text.empty() ? "" : "; ") + std::string(list.name) + " " + joined(member(values, list.key));
    }
    return text;
}

std::string shaping_line(const cJSON* values)
{
    if (!is_on(values, "[TrafficShaping]Enabled"))
        return "off";
    return number_of(values, "[TrafficShaping]AvgRateLimit") + " kbit/s, burst " +
           number_of(values, "[TrafficShaping]BurstSize") + " bytes";
}

struct Colours {
    const char* title = "";
    const char* good = "";
    const char* bad = "";
    const char* end = "";
};

Colours colours_of_terminal()
{
    const char* no_colour = std::getenv("NO_COLOR");
    const char* terminal = std::getenv("TERM");
    const bool is_plain = (no_colour != nullptr && *no_colour != '\0') || terminal == nullptr ||
                          std::string_view(terminal) == "dumb" || isatty(STDOUT_FILENO) == 0;
    return is_plain ? Colours{} : Colours{"\033[1m", "\033[32m", "\033[31m", "\033[0m"};
}

// Seconds until a change of this camera is taken back; below 0 when none waits for its confirm.
long long seconds_to_confirm(const Session& session)
{
    if (!session.host.empty())
        return -1;
    const ChangeFolder folder(STATE_FOLDER);
    const std::optional<ChangeRecord> record = folder.is_open() ? folder.read(PENDING) : std::nullopt;
    if (!record)
        return -1;
    const std::uint64_t now = milliseconds_since_boot();
    const std::uint64_t deadline = folder.deadline_of(*record);
    return deadline > now ? static_cast<long long>((deadline - now + 999) / 1000) : 0;
}

struct Line {
    std::string title;
    std::string text;
};

std::vector<Line> screen_of(const cJSON* values)
{
    std::vector<Line> lines = {{"link", link_line(values)}};
    for (const ActualAddress& address : actual_addresses(values))
        lines.push_back({"address", address.text + " (" + address.origin + ")"});
    lines.push_back({"gateways", gateway_line(values)});
    lines.push_back({"DNS", is_on(values, "[DNS]Enabled") ? servers_of(values, DNS_SOURCES) : "off"});
    lines.push_back({"NTP", is_on(values, "[NTP]Enabled") ? servers_of(values, NTP_SOURCES) : "off"});
    lines.push_back({"name", name_line(values)});
    lines.push_back({"ports", port_line(values)});
    lines.push_back({"filter", filter_line(values)});
    lines.push_back({"shaping", shaping_line(values)});
    return lines;
}

void print_screen(const cJSON* values, long long seconds)
{
    constexpr std::size_t TITLE_WIDTH = 10;
    const Colours colours = colours_of_terminal();
    std::string last_title;
    const auto print = [&](const std::string& title, const std::string& text, const char* colour) {
        const std::string shown = title == last_title ? "" : title;
        print_line(colours.title + shown + colours.end + std::string(TITLE_WIDTH - shown.size(), ' ') +
                   colour + (text.empty() ? "none" : text) + (*colour != '\0' ? colours.end : ""));
        last_title = title;
    };
    for (const Line& line : screen_of(values))
        print(line.title, line.text, "");
    if (seconds >= 0)
        print("on trial",
              "a change is taken back in " + std::to_string(seconds) + " s unless 'quarnctl confirm' comes",
              colours.bad);
    const std::vector<std::string> faults = what_is_wrong(values);
    for (const std::string& fault : faults)
        print("wrong", fault, colours.bad);
    if (faults.empty())
        print("wrong", "nothing", colours.good);
}

OwnedJson status_as_json(const cJSON* values, long long seconds)
{
    OwnedJson object = new_object();
    OwnedJson addresses(cJSON_CreateArray());
    for (const ActualAddress& address : actual_addresses(values)) {
        OwnedJson entry = new_object();
        put_text(entry.get(), "address", address.text);
        put_text(entry.get(), "origin", address.origin);
        cJSON_AddItemToArray(addresses.get(), entry.release());
    }
    put(object.get(), "addresses", std::move(addresses));
    OwnedJson faults(cJSON_CreateArray());
    for (const std::string& fault : what_is_wrong(values))
        cJSON_AddItemToArray(faults.get(), cJSON_CreateString(fault.c_str()));
    put(object.get(), "wrong", std::move(faults));
    put(object.get(), "confirm_within",
        OwnedJson(seconds >= 0 ? cJSON_CreateNumber(static_cast<double>(seconds)) : cJSON_CreateNull()));
    OwnedJson settings = new_object();
    for (const std::string& key : status_keys())
        put(settings.get(), key, copy_of(member(values, key)));
    put(object.get(), "settings", std::move(settings));
    return object;
}

} // namespace

// All but what may take its time, and what says nothing here.
std::vector<std::string> status_keys()
{
    constexpr std::string_view LEFT_OUT[] = {"[IPv4/LocalLink]Address", "[TCP/Port]InUse"};
    std::vector<std::string> keys;
    for (const Setting& setting : all_settings()) {
        if (std::ranges::find(LEFT_OUT, setting.key) == std::end(LEFT_OUT))
            keys.emplace_back(setting.key);
    }
    return keys;
}

std::vector<ActualAddress> actual_addresses(const cJSON* values)
{
    std::vector<ActualAddress> addresses;
    const std::string ipv4 = text_member(values, "[IPv4/Actual]Address");
    if (!ipv4.empty())
        addresses.push_back({printable(ipv4) + "/" + number_of(values, "[IPv4/Actual]Netmask"),
                             origin_of_ipv4(values, ipv4)});
    const cJSON* list = member(values, "[IPv6/Actual]Addresses");
    const std::string link_local = text_member(values, "[IPv6/LocalLink]Address");
    for (const cJSON* item = cJSON_IsArray(list) ? list->child : nullptr; item != nullptr;
         item = item->next) {
        if (cJSON_IsString(item))
            addresses.push_back({plain_text(item), origin_of_ipv6(values, item->valuestring)});
    }
    if (!link_local.empty() && !lists_ipv6(list, link_local))
        addresses.push_back({printable(link_local), "link-local"});
    return addresses;
}

std::vector<std::string> what_is_wrong(const cJSON* values)
{
    std::vector<std::string> faults;
    const bool has_dhcp = is_on(values, "[IPv4/DHCP]Enabled");
    if (!is_on(values, "[Settings]Apply"))
        faults.emplace_back("[Settings]Apply is false: changes are saved and not carried out");
    if (text_member(values, "[IPv4/Actual]Address").empty())
        faults.emplace_back("eth0 has no IPv4 address");
    if (has_dhcp && text_member(values, "[IPv4/DHCP]Address").empty())
        faults.emplace_back("DHCP is on and no server has given an address");
    if (!has_dhcp && text_member(values, "[IPv4/Manual]Address").empty())
        faults.emplace_back("DHCP is off and there is no manual address");
    if (gateway_line(values).empty())
        faults.emplace_back("there is no gateway: only the local network can be reached");
    if (is_on(values, "[DNS]Enabled") && servers_of(values, DNS_SOURCES).empty())
        faults.emplace_back("there is no name server");
    if (is_on(values, "[NTP]Enabled") && servers_of(values, NTP_SOURCES).empty())
        faults.emplace_back("there is no time server");
    if (is_on(values, "[Webserver/HTTPS]Enabled") &&
        is_nothing(member(values, "[Webserver/HTTPS]Certificate")))
        faults.emplace_back("HTTPS is on and has no certificate");
    return faults;
}

int run_status(Session& session)
{
    Answer answer;
    Failure failure;
    // What cannot be read, such as the address of a link without one, is missing in the answer.
    if (!get_settings(session, status_keys(), answer, failure))
        return report_failure(session, failure);
    if (session.json)
        print_json(status_as_json(answer.root.get(), seconds_to_confirm(session)).get());
    else
        print_screen(answer.root.get(), seconds_to_confirm(session));
    return DONE;
}

} // namespace quarnctl
