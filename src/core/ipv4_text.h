// core/ipv4_text.h: IPv4 netmasks as texts and as prefix lengths.
#pragma once

#include "core/owned.h"

#include <cstdint>

inline constexpr unsigned IPV4_ADDRESS_BITS = 32;

// The address as a number in host byte order (first octet in the top bits), 0 when the text is no IPv4
// address.
std::uint32_t ipv4_str_to_uint(const char* text);

// The dotted netmask of a prefix length, in a 16-byte text: 0 gives 0.0.0.0, 32 or more 255.255.255.255.
OwnedText prefix_to_netmask(unsigned length);

// The prefix length of a dotted netmask; 0 for 0.0.0.0, for a mask with a hole and for what is no dotted
// quad.
unsigned netmask_to_prefix(const char* netmask);
