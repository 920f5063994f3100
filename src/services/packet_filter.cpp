#include "services/packet_filter.h"

#include "api/json_response.h"
#include "api/text_tests.h"
#include "api/verifiers.h"
#include "core/console.h"
#include "core/log.h"
#include "core/shell.h"
#include "services/generated_files.h"
#include "settings/setting_store.h"

#include <cstring>

namespace {

constexpr int MINIMUM_PORT = 1;
constexpr int MAXIMUM_PORT = 65535;
constexpr int MAXIMUM_PREFIXES = 16;
constexpr std::uint32_t IPV4_BITS = 32;
constexpr std::uint32_t IPV6_BITS = 128;
// Passes although 0.0.0.0 is no unicast address: the prefix of all addresses.
constexpr char EVERY_IPV4_ADDRESS[] = "0.0.0.0/0";

// What differs between the two rules files.
struct Family {
    int version;
    const char* tool;
    const char* restore;
    const char* file;
    const char* ping_protocol;
    const char* enable_key;
    const char* allow_key;
    const char* deny_key;
};
constexpr Family IPV4 = {4,      "iptables",      "/usr/sbin/iptables-restore", "iptables.rules",
                         "icmp", "[IPv4]Enabled", "[IPTables/Allow]IPv4List",   "[IPTables/Deny]IPv4List"};
constexpr Family IPV6 = {6,        "ip6tables",     "/usr/sbin/ip6tables-restore", "ip6tables.rules",
                         "icmpv6", "[IPv6]Enabled", "[IPTables/Allow]IPv6List",    "[IPTables/Deny]IPv6List"};

enum class Protocol { TCP, UDP };
enum class Side { DESTINATION, SOURCE };

struct PortList {
    const char* key;
    Protocol protocol;
    Side side;
};
constexpr PortList TCP_DESTINATIONS = {"[IPTables/Allow]TcpDestPorts", Protocol::TCP, Side::DESTINATION};
constexpr PortList TCP_SOURCES = {"[IPTables/Allow]TcpSourcePorts", Protocol::TCP, Side::SOURCE};
constexpr PortList UDP_DESTINATIONS = {"[IPTables/Allow]UdpDestPorts", Protocol::UDP, Side::DESTINATION};
constexpr PortList UDP_SOURCES = {"[IPTables/Allow]UdpSourcePorts", Protocol::UDP, Side::SOURCE};
constexpr PortList UDP_SOURCES_NFS = {"[IPTables/Allow]UdpSourceNfsPorts", Protocol::UDP, Side::SOURCE};

struct ServicePort {
    const char* title;
    const char* enable_key;
    const char* port_key;
};
constexpr ServicePort SERVICE_PORTS[] = {
    {"# HTTP Port\n", "[Webserver/HTTP]Enabled", "[Webserver/HTTP]Port"},
    {"# HTTPS Port\n", "[Webserver/HTTPS]Enabled", "[Webserver/HTTPS]Port"},
    {"# RTSP Port\n", "[RTSP]Enabled", "[RTSP]Port"},
};

constexpr char SEPARATOR[] = "#--------------------------------------------------------------------\n";
static_assert(sizeof SEPARATOR - 1 == 70);

bool is_port(const cJSON* item)
{
    return cJSON_IsNumber(item) && item->valueint >= MINIMUM_PORT && item->valueint <= MAXIMUM_PORT;
}

bool is_port_range(const cJSON* item)
{
    return cJSON_GetArraySize(item) == 2 && is_port(item->child) && is_port(item->child->next) &&
           item->child->valueint < item->child->next->valueint;
}

// What is wrong with one prefix is added to the response.
bool verify_ipv4_prefix(const char* key, const char* text, JsonResponse& response)
{
    const char* slash = std::strchr(text, '/');
    if (slash == nullptr) {
        json_response_add_error_text(response, ERROR_INVALID_IPV4, key,
                                     "'%s' doesn't include a prefix length", text);
        return false;
    }
    const OwnedText address(g_strndup(text, static_cast<gsize>(slash - text)));
    const bool has_address =
        is_unicast_ipv4_address(address.get()) || std::strcmp(text, EVERY_IPV4_ADDRESS) == 0;
    if (!has_address)
        json_response_add_error_text(response, ERROR_INVALID_IPV4, key,
                                     "'%s' doesn't contain a valid ipv4 address", text);
    std::uint32_t length = 0;
    const bool has_length = parse_prefix_length(slash + 1, 0, IPV4_BITS, length);
    if (!has_length)
        json_response_add_error_text(response, ERROR_INVALID_IPV4, key,
                                     "'%s' doesn't contain a valid prefix length", text);
    return has_address && has_length;
}

void write_port_rule(FILE* stream, const PortList& list, const char* ports)
{
    std::fprintf(stream, "-A PORT_FILTER -p %s --%cport %s -j ADDR_FILTER\n",
                 list.protocol == Protocol::TCP ? "tcp" : "udp", list.side == Side::DESTINATION ? 'd' : 's',
                 ports);
}

bool add_port_list(FILE* stream, const PortList& list)
{
    if (stream == nullptr) {
        log_message(LEVEL_ERROR, "%s: NULL file handler passed.", __func__);
        return false;
    }
    const OwnedJson ports = get_json_value(list.key);
    if (!cJSON_IsArray(ports.get())) {
        log_message(LEVEL_ERROR, "%s: Could not get port list %s", __func__, list.key);
        return false;
    }
    std::fprintf(stream, "# %s %s ports\n", list.protocol == Protocol::TCP ? "tcp" : "udp",
                 list.side == Side::DESTINATION ? "dest" : "source");
    for (const cJSON* item = ports->child; item != nullptr; item = item->next) {
        OwnedText text;
        if (cJSON_IsNumber(item)) {
            text.reset(g_strdup_printf("%d", item->valueint));
        } else if (cJSON_IsArray(item)) {
            const cJSON* first = item->child;
            const cJSON* last = first != nullptr ? first->next : nullptr;
            if (!cJSON_IsNumber(first) || !cJSON_IsNumber(last)) {
                log_message(LEVEL_ERROR, "%s: Unexpected format of port range array in %s", __func__,
                            list.key);
                std::fputc('\n', stream);
                return false;
            }
            text.reset(g_strdup_printf("%d:%d", first->valueint, last->valueint));
        } else {
            log_message(LEVEL_ERROR, "%s: Unexpected element (type=%d) in %s list", __func__, item->type,
                        list.key);
            std::fputc('\n', stream);
            return false;
        }
        write_port_rule(stream, list, text.get());
    }
    std::fputc('\n', stream);
    return true;
}

// False only for a prefix that would be more than one word of its rule: a stored value that went bad must not
// become a second rule, and a list without it would let in what it keeps out.
bool write_addr_rules(FILE* stream, const char* const* list, const char* target)
{
    for (; *list != nullptr; ++list) {
        if (!is_one_word(*list)) {
            log_message(LEVEL_ERROR, "%s: '%s' is no address prefix", __func__, *list);
            return false;
        }
        std::fprintf(stream, "-A ADDR_FILTER -s %s -j %s\n", *list, target);
    }
    std::fputc('\n', stream);
    return true;
}

bool add_addr_filters(FILE* stream, const Family& family)
{
    if (!get_bool(family.enable_key)) {
        log_message(LEVEL_DEBUG, "%s:%d: Not writing IPv%d address filters because IPv%d is not enabled",
                    HERE, family.version, family.version);
        return true;
    }
    bool succeeded = true;
    if (const OwnedStringArray allowed = get_string_array(family.allow_key)) {
        std::fprintf(stream, "# IPv%d address allow list\n", family.version);
        succeeded &= write_addr_rules(stream, allowed.get(), "ACCEPT");
    } else {
        log_message(LEVEL_DEBUG, "%s:%d: Empty IPv%d allow list", HERE, family.version);
    }
    if (const OwnedStringArray denied = get_string_array(family.deny_key)) {
        std::fprintf(stream, "# IPv%d address deny list\n", family.version);
        succeeded &= write_addr_rules(stream, denied.get(), "DROP");
    } else {
        log_message(LEVEL_DEBUG, "%s:%d: Empty IPv%d deny list", HERE, family.version);
    }
    return succeeded;
}

bool check_nfs_boot()
{
    const ShellCommand command("cat /proc/cmdline | grep -q 'root=/dev/nfs'");
    const int status = exit_status(run_shell(command));
    if (status == 0)
        return true;
    log_message(LEVEL_DEBUG, "%s:%d: Bad shell return code %d from '%s'", HERE, status, command.text());
    return false;
}

void write_input_chain(FILE* stream, const Family& family)
{
    std::fprintf(stream,
                 "# INPUT chain\n"
                 "#\n"
                 "\n"
                 "# Accept established connections (only need to filter new connections,\n"
                 "# not every single packet)\n"
                 "-A INPUT -m state --state RELATED,ESTABLISHED -j ACCEPT\n"
                 "\n"
                 "# Accept everything on lo\n"
                 "-A INPUT -i lo -j ACCEPT\n"
                 "\n"
                 "# Accept ping\n"
                 "-A INPUT -p %s -j ADDR_FILTER\n"
                 "\n"
                 "# Accept IGMP\n"
                 "-A INPUT -p 2 -j ADDR_FILTER\n"
                 "\n"
                 "# Run through the PORT_FILTER chain\n"
                 "-A INPUT -j PORT_FILTER\n"
                 "\n",
                 family.ping_protocol);
}

bool write_port_chain(FILE* stream)
{
    std::fputs("# PORT_FILTER (custom) chain\n#\n\n", stream);
    for (const ServicePort& service : SERVICE_PORTS) {
        if (!get_bool(service.enable_key))
            continue;
        const OwnedText port(g_strdup_printf("%d", get_int(service.port_key)));
        std::fputs(service.title, stream);
        write_port_rule(stream, TCP_DESTINATIONS, port.get());
        std::fputc('\n', stream);
    }
    // The first list that fails ends the lists; the kind of boot is asked for in any case.
    const bool succeeded = add_port_list(stream, TCP_DESTINATIONS) && add_port_list(stream, TCP_SOURCES) &&
                           add_port_list(stream, UDP_DESTINATIONS);
    const PortList& udp_sources = check_nfs_boot() ? UDP_SOURCES_NFS : UDP_SOURCES;
    const bool all_succeeded = succeeded && add_port_list(stream, udp_sources);
    std::fputs("# DROP any connections to other ports\n-A PORT_FILTER -j DROP\n\n", stream);
    return all_succeeded;
}

bool write_iptables_rules_file(const Family& family)
{
    OwnedFile stream = open_generated(family.file);
    if (!stream)
        return false;
    std::fputs("# Generated by quarn\n"
               "\n"
               "*filter\n"
               ":INPUT DROP [0:0]\n"
               ":PORT_FILTER - [0:0]\n"
               ":ADDR_FILTER - [0:0]\n",
               stream.get());
    std::fputs(SEPARATOR, stream.get());
    write_input_chain(stream.get(), family);
    std::fputs(SEPARATOR, stream.get());
    bool succeeded = write_port_chain(stream.get());
    std::fputs(SEPARATOR, stream.get());
    std::fputs("# ADDR_FILTER (custom) chain\n#\n\n", stream.get());
    succeeded &= add_addr_filters(stream.get(), family);
    std::fputs("\n-A ADDR_FILTER -j ACCEPT\n\n", stream.get());
    std::fputs(SEPARATOR, stream.get());
    std::fputs("\nCOMMIT\n", stream.get());
    if (!close_file(std::move(stream))) {
        log_message(LEVEL_ERROR, "%s: Cannot write /tmp/.quarn/%s", __func__, family.file);
        return false;
    }
    print_console(__func__, "Wrote IPv%d iptables.  Use '%s -L' to view", family.version, family.tool);
    return succeeded;
}

// Failures are logged in the action's name.
bool write_and_load(const Family& family, const char* action)
{
    if (!write_iptables_rules_file(family))
        return false;
    if (!get_bool(family.enable_key))
        return true;
    const ShellCommand command("%s < /tmp/.quarn/%s", family.restore, family.file);
    const int raw_status = run_shell(command);
    if (exit_status(raw_status) == 0)
        return true;
    log_message(LEVEL_ERROR, "%s: Bad shell return code %d from '%s'", action, raw_status, command.text());
    return false;
}

} // namespace

bool verify_ipv4_cidr_list(cJSON* item, JsonResponse* response)
{
    if (!verify_arr_strs(item, response))
        return false;
    bool valid = true;
    int count = 0;
    for (const cJSON* element = item->child; element != nullptr; element = element->next) {
        if (count++ == MAXIMUM_PREFIXES) {
            json_response_add_error(*response, ERROR_TOO_MANY, item->string,
                                    "There are too many elements in the provided array.");
            return false;
        }
        valid &= verify_ipv4_prefix(item->string, element->valuestring, *response);
    }
    return valid;
}

bool verify_ipv6_prefix_list(cJSON* item, JsonResponse* response)
{
    return verify_ipv6_cidr_list(item, response, 0, IPV6_BITS, MAXIMUM_PREFIXES);
}

bool verify_port_list(cJSON* item, JsonResponse* response)
{
    if (response == nullptr) {
        log_message(LEVEL_ERROR, "%s: Null value during string array verification", __func__);
        return false;
    }
    if (item == nullptr) {
        json_response_add_error(*response, ERROR_INTERNAL, nullptr,
                                "Null value during string array verification");
        return false;
    }
    if (!cJSON_IsArray(item)) {
        json_response_add_error(*response, ERROR_WRONG_TYPE, item->string, "Value wasn't a JSON array");
        return false;
    }
    for (const cJSON* element = item->child; element != nullptr; element = element->next) {
        if (is_port(element) || (cJSON_IsArray(element) && is_port_range(element)))
            continue;
        if (cJSON_IsNumber(element))
            json_response_add_error(*response, ERROR_OUT_OF_RANGE, item->string,
                                    "JSON array had number which is invalid as a port");
        else if (cJSON_IsArray(element))
            json_response_add_error(*response, ERROR_OUT_OF_RANGE, item->string,
                                    "JSON array had a value which wasn't a port range");
        else
            json_response_add_error(*response, ERROR_WRONG_TYPE, item->string,
                                    "JSON array had a non-numeric (or range) value");
        return false;
    }
    return true;
}

bool apply_iptables()
{
    return write_and_load(IPV4, __func__);
}

bool apply_ip6tables()
{
    return write_and_load(IPV6, __func__);
}
