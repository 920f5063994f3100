#include "services/resolver.h"

#include "api/json_response.h"
#include "api/verifiers.h"
#include "core/console.h"
#include "core/log.h"
#include "services/generated_files.h"
#include "settings/setting_store.h"

#include <cstring>

namespace {

constexpr char RESOLV_CONF[] = "/etc/resolv.conf";

constexpr int MAXIMUM_SERVERS = 3;
constexpr std::size_t LONGEST_SERVER = 244;
constexpr int MAXIMUM_DOMAINS = 6;
// The search line, the word itself counted in one place and not in the other.
constexpr std::size_t LONGEST_SEARCH_LINE = 256;
constexpr std::size_t SEARCH_WORD_LENGTH = 8;

bool is_within_count(const cJSON* item, int maximum, JsonResponse& response)
{
    if (cJSON_GetArraySize(item) <= maximum)
        return true;
    // Search domains get this text too: clients know it.
    json_response_add_error(response, ERROR_TOO_MANY, item->string, "Too many DNS servers provided in array");
    return false;
}

bool are_names_short(const cJSON* item, JsonResponse& response)
{
    for (const cJSON* element = item->child; element != nullptr; element = element->next) {
        if (std::strlen(element->valuestring) > LONGEST_SERVER) {
            json_response_add_error(response, ERROR_TOO_MANY, item->string, "DNS server name too long");
            return false;
        }
    }
    return true;
}

bool verify_servers(cJSON* item, JsonResponse* response, unsigned kinds)
{
    if (!verify_server_list(item, response, kinds))
        return false;
    const bool within_count = is_within_count(item, MAXIMUM_SERVERS, *response);
    return are_names_short(item, *response) && within_count;
}

struct ServerSources {
    OwnedStringArray manual;
    OwnedStringArray ipv4_dhcp;
    OwnedStringArray ipv6_dhcp;
    OwnedStringArray ipv6_discovery;

    bool are_empty() const { return !manual && !ipv4_dhcp && !ipv6_dhcp && !ipv6_discovery; }
};

ServerSources gather_servers()
{
    const bool has_ipv4 = get_bool("[IPv4]Enabled");
    const bool has_ipv6 = get_bool("[IPv6]Enabled");
    ServerSources sources;
    if (has_ipv4 && get_bool("[IPv4/DHCP]Enabled"))
        sources.ipv4_dhcp = get_enabled_string_array("[DNS/IPv4/DHCP]Enabled", "[DNS/IPv4/DHCP]Servers");
    if (has_ipv4 || has_ipv6)
        sources.manual = get_enabled_string_array("[DNS/Manual]Enabled", "[DNS/Manual]Servers");
    if (has_ipv6 && get_bool("[IPv6/Stateful]Enabled"))
        sources.ipv6_dhcp = get_enabled_string_array("[DNS/IPv6/DHCP]Enabled", "[DNS/IPv6/DHCP]Servers");
    if (has_ipv6)
        sources.ipv6_discovery =
            get_enabled_string_array("[DNS/IPv6/Discovery]Enabled", "[DNS/IPv6/Discovery]Servers");
    return sources;
}

void write_search_elements(FILE* stream, char* const* search)
{
    OwnedText domain = get_string("[Hostname]Domain");
    // An empty domain is one; one with blanks or line ends would be more than one.
    if (domain && *domain != '\0' && !is_one_word(domain.get())) {
        log_message(LEVEL_ERROR, "%s: Left out '%s', which is no domain", __func__, domain.get());
        domain.reset();
    }
    std::size_t length = domain ? std::strlen(domain.get()) : 0;
    int count = domain ? 1 : 0;
    if (domain)
        std::fprintf(stream, "search %s", domain.get());
    for (; search != nullptr && *search != nullptr; ++search) {
        if (!is_one_word(*search)) {
            log_message(LEVEL_ERROR, "%s: Left out '%s', which is no domain", __func__, *search);
            continue;
        }
        if (count == MAXIMUM_DOMAINS) {
            log_message(LEVEL_DEBUG, "%s:%d: Skipping search element '%s' (already have six)", HERE, *search);
            continue;
        }
        const std::size_t new_length = length + (count == 0 ? 0 : 1) + std::strlen(*search);
        if (new_length > LONGEST_SEARCH_LINE) {
            log_message(LEVEL_DEBUG, "%s:%d: Skipping search element '%s' (> 256 chars)", HERE, *search);
            continue;
        }
        log_message(LEVEL_DEBUG, "%s:%d: Writing search element '%s' to %s", HERE, *search, RESOLV_CONF);
        std::fprintf(stream, count == 0 ? "search %s" : " %s", *search);
        length = new_length;
        ++count;
    }
    // Kept as it is: an empty domain alone leaves its line open, and the next block's empty line ends it.
    if (length > 0)
        std::fputc('\n', stream);
}

void write_servers(FILE* stream, const ServerSources& sources)
{
    constexpr char KEYWORD[] = "nameserver";
    write_address_list(stream, "manually configured DNS servers", KEYWORD, sources.manual.get());
    write_address_list(stream, "DHCP DNS servers", KEYWORD, sources.ipv4_dhcp.get());
    write_address_list(stream, sources.ipv4_dhcp ? nullptr : "DHCP DNS servers", KEYWORD,
                       sources.ipv6_dhcp.get());
    write_address_list(stream, "IPv6 discovery DNS servers", KEYWORD, sources.ipv6_discovery.get());
}

} // namespace

bool verify_dns_servers(cJSON* item, JsonResponse* response)
{
    return verify_servers(item, response, SERVER_IPV4 | SERVER_IPV6);
}

bool verify_dns_servers_ipv6(cJSON* item, JsonResponse* response)
{
    return verify_servers(item, response, SERVER_IPV6);
}

bool verify_dns_servers_dhcpv4(cJSON* item, JsonResponse* response)
{
    return verify_server_list(item, response, SERVER_IPV4) && are_names_short(item, *response);
}

bool verify_dns_search(cJSON* item, JsonResponse* response)
{
    if (!verify_server_list(item, response, SERVER_HOST))
        return false;
    const bool within_count = is_within_count(item, MAXIMUM_DOMAINS, *response);
    std::size_t total = SEARCH_WORD_LENGTH;
    for (const cJSON* element = item->child; element != nullptr; element = element->next) {
        total += std::strlen(element->valuestring);
        if (total > LONGEST_SEARCH_LINE) {
            json_response_add_error(*response, ERROR_TOO_MANY, item->string, "Search domains are too long");
            return false;
        }
    }
    return within_count;
}

void quarn_write_resolvconf()
{
    const bool is_enabled = get_bool("[DNS]Enabled");
    OwnedStringArray search;
    ServerSources sources;
    if (is_enabled) {
        search = get_enabled_string_array("[DNS/Manual]Enabled", "[DNS/Manual]Search");
        sources = gather_servers();
    }
    OwnedFile stream = open_file(RESOLV_CONF);
    if (!stream) {
        log_message(LEVEL_CRITICAL, "%s:%d: Cannot create resolv.conf", HERE);
        return;
    }
    std::fputs("# written by quarn\n", stream.get());
    if (!is_enabled) {
        std::fputs("\n# DNS is disabled.\n", stream.get());
    } else if (sources.are_empty()) {
        std::fputs("\n# DNS is enabled, but no servers were found.\n", stream.get());
    } else {
        write_search_elements(stream.get(), search.get());
        log_message(LEVEL_DEBUG, "%s:%d: Writing nameservers to %s", HERE, RESOLV_CONF);
        write_servers(stream.get(), sources);
    }
    if (!close_file(std::move(stream))) {
        log_message(LEVEL_CRITICAL, "%s:%d: Cannot write %s", HERE, RESOLV_CONF);
        return;
    }
    print_console(__func__, "Wrote %s", RESOLV_CONF);
}
