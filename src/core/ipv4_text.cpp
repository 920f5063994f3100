#include "core/ipv4_text.h"

#include <arpa/inet.h>

#include <bit>

std::uint32_t ipv4_str_to_uint(const char* text)
{
    in_addr address{};
    if (text == nullptr || inet_pton(AF_INET, text, &address) != 1)
        return 0;
    return ntohl(address.s_addr);
}

OwnedText prefix_to_netmask(unsigned length)
{
    const std::uint32_t mask = length == 0                   ? 0
                               : length >= IPV4_ADDRESS_BITS ? UINT32_MAX
                                                             : UINT32_MAX << (IPV4_ADDRESS_BITS - length);
    const in_addr address{htonl(mask)};
    OwnedText text(static_cast<char*>(g_malloc0(INET_ADDRSTRLEN)));
    inet_ntop(AF_INET, &address, text.get(), INET_ADDRSTRLEN);
    return text;
}

unsigned netmask_to_prefix(const char* netmask)
{
    const std::uint32_t mask = ipv4_str_to_uint(netmask);
    const unsigned ones = static_cast<unsigned>(std::countl_one(mask));
    const bool has_hole = std::popcount(mask) != static_cast<int>(ones);
    return has_hole ? 0 : ones;
}
