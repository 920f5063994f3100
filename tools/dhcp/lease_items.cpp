#include "lease_items.h"

#include "api/text_tests.h"
#include "core/log.h"

#include <arpa/inet.h>

#include <algorithm>

namespace {

// As the daemon's verifiers have them.
constexpr std::size_t MAX_DOMAINS = 6;
constexpr std::size_t MAX_SEARCH_LENGTH = 248;

constexpr std::uint32_t FIRST_MULTICAST = 0xE0000000;

// Only blanks part items: a line end or any other control byte makes its item unusable as a whole.
std::string take_item(std::string_view& text)
{
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    std::string item(text.substr(0, text.find(' ')));
    text.remove_prefix(item.size());
    return item;
}

// The item is a stranger's text: only its beginning is quoted.
void log_dropped(const std::string& item, const char* what, const char* reason)
{
    log_message(LEVEL_WARNING, "%s: Dropping '%.64s' from the %s: %s", __func__, item.c_str(), what, reason);
}

} // namespace

bool is_host_ipv4(const std::string& item)
{
    return is_unicast_ipv4_address(item.c_str()) && ipv4_to_host_order(item.c_str()) < FIRST_MULTICAST;
}

bool is_host_ipv6(const std::string& item)
{
    in6_addr address{};
    return inet_pton(AF_INET6, item.c_str(), &address) == 1 && !IN6_IS_ADDR_UNSPECIFIED(&address) &&
           !IN6_IS_ADDR_LOOPBACK(&address) && !IN6_IS_ADDR_MULTICAST(&address) &&
           !IN6_IS_ADDR_V4MAPPED(&address);
}

bool is_leasable_ipv6(const std::string& item)
{
    in6_addr address{};
    return is_host_ipv6(item) && inet_pton(AF_INET6, item.c_str(), &address) == 1 &&
           !IN6_IS_ADDR_LINKLOCAL(&address);
}

bool is_ipv4_or_name(const std::string& item)
{
    return is_host_ipv4(item) || is_valid_hostname(item.c_str());
}

bool is_ipv6_or_name(const std::string& item)
{
    return is_host_ipv6(item) || is_valid_hostname(item.c_str());
}

std::vector<std::string> pick_items(const char* what, std::string_view text, ItemTest is_usable,
                                    std::size_t limit)
{
    std::vector<std::string> items;
    for (std::string item = take_item(text); !item.empty(); item = take_item(text)) {
        if (!is_usable(item))
            log_dropped(item, what, "not usable");
        else if (items.size() == limit)
            log_dropped(item, what, "the list is full");
        else
            items.push_back(item);
    }
    return items;
}

std::vector<std::string> pick_domains(const char* what, std::string_view text)
{
    std::vector<std::string> domains;
    std::size_t length = 0;
    for (std::string item = take_item(text); !item.empty(); item = take_item(text)) {
        const std::string domain = item.substr(0, item.size() - (item.ends_with('.') ? 1 : 0));
        if (!is_valid_hostname(domain.c_str())) {
            log_dropped(item, what, "not usable");
        } else if (domains.size() == MAX_DOMAINS || length + domain.size() > MAX_SEARCH_LENGTH) {
            log_dropped(item, what, "the list is full");
        } else {
            length += domain.size();
            domains.push_back(domain);
        }
    }
    return domains;
}
