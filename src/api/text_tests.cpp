#include "api/text_tests.h"

#include "core/ipv4_text.h"

#include <arpa/inet.h>
#include <glib.h>

#include <charconv>
#include <cstring>

namespace {

constexpr std::size_t MAX_DOTTED_QUAD_LENGTH = 15;
constexpr std::size_t MAX_HOSTNAME_LENGTH = 63;

// A text is looked at only up to the longest that could match, as bytes: neither a huge text nor one that is
// not UTF-8 can trouble the matcher. GLib's '$' by itself would let a line end follow.
bool matches_whole(const GRegex* pattern, const char* text, std::size_t max_length)
{
    return text != nullptr && strnlen(text, max_length + 1) <= max_length &&
           g_regex_match(pattern, text, G_REGEX_MATCH_DEFAULT, nullptr);
}

GRegex* compile(const char* pattern)
{
    return g_regex_new(pattern, GRegexCompileFlags(G_REGEX_RAW | G_REGEX_DOLLAR_ENDONLY),
                       G_REGEX_MATCH_DEFAULT, nullptr);
}

bool has_letter(const char* text)
{
    for (; *text != '\0'; text++) {
        if (g_ascii_isalpha(*text))
            return true;
    }
    return false;
}

} // namespace

bool is_ipv4_dotted_quad(const char* text)
{
    static const GRegex* const pattern = compile("^(25[0-5]|2[0-4][0-9]|(10|1?[1-9]?)[0-9])\\."
                                                 "(25[0-5]|2[0-4][0-9]|(10|1?[1-9]?)[0-9])\\."
                                                 "(25[0-5]|2[0-4][0-9]|(10|1?[1-9]?)[0-9])\\."
                                                 "(25[0-5]|2[0-4][0-9]|(10|1?[1-9]?)[0-9])$");
    return matches_whole(pattern, text, MAX_DOTTED_QUAD_LENGTH);
}

bool is_unicast_ipv4_address(const char* text)
{
    constexpr std::uint32_t FIRST_USABLE = 0x01000000;
    constexpr std::uint32_t LAST_USABLE = 0xEFFFFFFF;
    constexpr std::uint32_t LOOPBACK_NETWORK = 127;
    if (!is_ipv4_dotted_quad(text))
        return false;
    const std::uint32_t address = ipv4_to_host_order(text);
    return address >= FIRST_USABLE && address <= LAST_USABLE && address >> 24 != LOOPBACK_NETWORK;
}

bool is_ipv6_address(const char* text)
{
    in6_addr address{};
    return text != nullptr && inet_pton(AF_INET6, text, &address) == 1;
}

bool is_valid_hostname(const char* text)
{
    static const GRegex* const pattern =
        compile("^(([a-zA-Z0-9]|[a-zA-Z0-9][a-zA-Z0-9\\-_]{0,61}[a-zA-Z0-9])\\.)*"
                "([a-zA-Z0-9]|[a-zA-Z0-9][a-zA-Z0-9\\-_]{0,61}[a-zA-Z0-9])$");
    // Without the letter rule a bare dotted quad would pass as a name.
    return matches_whole(pattern, text, MAX_HOSTNAME_LENGTH) && has_letter(text);
}

std::uint32_t ipv4_to_host_order(const char* text)
{
    return ipv4_str_to_uint(text);
}

bool parse_prefix_length(const char* text, std::uint32_t minimum, std::uint32_t maximum,
                         std::uint32_t& length)
{
    if (text == nullptr || (text[0] == '0' && text[1] != '\0'))
        return false;
    const char* end = text + std::strlen(text);
    std::uint32_t number = 0;
    const auto [stop, error] = std::from_chars(text, end, number);
    if (error != std::errc() || stop != end || number < minimum || number > maximum)
        return false;
    length = number;
    return true;
}
