// api/text_tests.h: what a text is. Nothing is logged and nothing is added to a response; a null text is
// nothing.
#pragma once

#include <cstdint>

// Dotted decimal of four octets, none with a leading zero, matched to the last byte.
bool is_ipv4_dotted_quad(const char* text);
// A dotted quad from 1.0.0.0 to 239.255.255.255 that is not in 127.0.0.0/8.
bool is_unicast_ipv4_address(const char* text);
bool is_ipv6_address(const char* text);
// Labels of letters, digits, '-' and '_' parted by dots, below 64 characters, with at least one letter.
bool is_valid_hostname(const char* text);

// 0 when the text is no IPv4 address.
std::uint32_t ipv4_to_host_order(const char* text);

// Reads plain decimal digits without a leading zero, the form that ip and iptables-restore take. False, and
// `length` untouched, for any other text or a number outside minimum..maximum.
bool parse_prefix_length(const char* text, std::uint32_t minimum, std::uint32_t maximum,
                         std::uint32_t& length);
