#include "core/log.h"
#include "net/netlink.h"

#include <arpa/inet.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <span>
#include <string_view>

namespace {

constexpr std::size_t HARDWARE_ADDRESS_SIZE = 6;
// What inet_ntop puts for the zero half before an interface identifier.
constexpr std::size_t LEADING_COLONS = 2;

using Payload = std::span<const unsigned char>;
using HardwareAddress = std::array<unsigned char, HARDWARE_ADDRESS_SIZE>;

quarn_netlink_info* new_netlink_info(const char* text, std::int32_t value)
{
    const std::size_t size = std::strlen(text) + 1;
    NetlinkInfoList record(g_try_new0(quarn_netlink_info, 1));
    if (record != nullptr)
        record->text = static_cast<char*>(g_try_malloc(size));
    if (record == nullptr || record->text == nullptr) {
        log_message(LEVEL_CRITICAL, "%s:%d: can't allocate quarn_netlink_info", HERE);
        return nullptr;
    }
    std::memcpy(record->text, text, size);
    record->value = value;
    return record.release();
}

// The header behind the message's own, or null when the message is of another type or too short to hold one.
template <typename Header> const Header* header_of(const nlmsghdr* message, std::uint16_t type)
{
    if (message->nlmsg_type != type || message->nlmsg_len < NLMSG_LENGTH(sizeof(Header)))
        return nullptr;
    return static_cast<const Header*>(NLMSG_DATA(message));
}

// Calls visit(type, payload) for each attribute that lies whole within the first `size` bytes.
template <typename Visit> void visit_attributes(const void* first, std::size_t size, Visit visit)
{
    auto* attribute = static_cast<const rtattr*>(first);
    auto remaining = static_cast<int>(size);
    for (; RTA_OK(attribute, remaining); attribute = RTA_NEXT(attribute, remaining))
        visit(attribute->rta_type,
              Payload(static_cast<const unsigned char*>(RTA_DATA(attribute)), RTA_PAYLOAD(attribute)));
}

template <typename Header, typename Visit> void visit_attributes_of(const nlmsghdr* message, Visit visit)
{
    const std::size_t before = NLMSG_SPACE(sizeof(Header));
    if (message->nlmsg_len > before)
        visit_attributes(reinterpret_cast<const char*>(message) + before, message->nlmsg_len - before, visit);
}

// Empty when the payload is too short for an address of the family, or the family is none of the two.
std::array<char, INET6_ADDRSTRLEN> address_text(int family, Payload payload)
{
    std::array<char, INET6_ADDRSTRLEN> text{};
    const std::size_t size = family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr);
    if (payload.size() >= size)
        inet_ntop(family, payload.data(), text.data(), text.size());
    return text;
}

// The header of a message about an address of eth0, else null.
const ifaddrmsg* eth0_address_header(const nlmsghdr* message, unsigned eth0_index)
{
    const auto* header = header_of<ifaddrmsg>(message, RTM_NEWADDR);
    return header != nullptr && header->ifa_index == eth0_index ? header : nullptr;
}

bool is_eth0_label(Payload payload)
{
    const auto* text = reinterpret_cast<const char*>(payload.data());
    return std::string_view(text, strnlen(text, payload.size())) == "eth0";
}

// IFA_LOCAL speaks before IFA_ADDRESS, which on a point-to-point link is the other end.
quarn_netlink_info* address_record(const nlmsghdr* message, const ifaddrmsg& header)
{
    std::array<char, INET6_ADDRSTRLEN> local{};
    std::array<char, INET6_ADDRSTRLEN> address{};
    visit_attributes_of<ifaddrmsg>(message, [&](int type, Payload payload) {
        if (type == IFA_LOCAL && local[0] == '\0')
            local = address_text(header.ifa_family, payload);
        else if (type == IFA_ADDRESS && address[0] == '\0')
            address = address_text(header.ifa_family, payload);
    });
    const char* text = local[0] != '\0' ? local.data() : address.data();
    return *text != '\0' ? new_netlink_info(text, header.ifa_prefixlen) : nullptr;
}

// False when the message does not tell of eth0, or of no hardware address of six bytes.
bool read_hardware_address(const nlmsghdr* message, unsigned eth0_index, HardwareAddress& address)
{
    const auto* header = header_of<ifinfomsg>(message, RTM_NEWLINK);
    if (header == nullptr || static_cast<unsigned>(header->ifi_index) != eth0_index)
        return false;
    bool found = false;
    visit_attributes_of<ifinfomsg>(message, [&](int type, Payload payload) {
        if (found || type != IFLA_ADDRESS || payload.size() != HARDWARE_ADDRESS_SIZE)
            return;
        std::memcpy(address.data(), payload.data(), payload.size());
        found = true;
    });
    return found;
}

// Two default routes of one metric arrive as one route of several next hops, each with a gateway of its own.
template <typename Visit> void visit_next_hops(Payload next_hops, Visit visit)
{
    while (next_hops.size() >= sizeof(rtnexthop)) {
        const auto* next_hop = reinterpret_cast<const rtnexthop*>(next_hops.data());
        if (next_hop->rtnh_len < sizeof(rtnexthop) || next_hop->rtnh_len > next_hops.size())
            return;
        visit_attributes(RTNH_DATA(next_hop), next_hop->rtnh_len - sizeof(rtnexthop), visit);
        next_hops =
            next_hops.subspan(std::min<std::size_t>(RTNH_ALIGN(next_hop->rtnh_len), next_hops.size()));
    }
}

} // namespace

quarn_netlink_info* ip_addr_callback(const nlmsghdr* message, unsigned eth0_index)
{
    const ifaddrmsg* header = eth0_address_header(message, eth0_index);
    if (header == nullptr)
        return nullptr;
    bool has_other_label = false;
    visit_attributes_of<ifaddrmsg>(message, [&](int type, Payload payload) {
        has_other_label |= type == IFA_LABEL && !is_eth0_label(payload);
    });
    return has_other_label ? nullptr : address_record(message, *header);
}

quarn_netlink_info* stateless_addr_callback(const nlmsghdr* message, unsigned eth0_index)
{
    const ifaddrmsg* header = eth0_address_header(message, eth0_index);
    // Router advertisements and DHCPv6 give global addresses with a lifetime.
    const bool is_stateless = header != nullptr && header->ifa_scope == RT_SCOPE_UNIVERSE &&
                              (header->ifa_flags & IFA_F_PERMANENT) == 0;
    return is_stateless ? address_record(message, *header) : nullptr;
}

quarn_netlink_info* gateways_callback(const nlmsghdr* message, unsigned /*eth0_index*/)
{
    const auto* header = header_of<rtmsg>(message, RTM_NEWROUTE);
    if (header == nullptr || header->rtm_type == RTN_LOCAL)
        return nullptr;
    const bool is_from_user = header->rtm_protocol == RTPROT_BOOT || header->rtm_protocol == RTPROT_STATIC;
    const std::int32_t origin = is_from_user ? GATEWAY_FROM_USER : GATEWAY_LEARNED;
    NetlinkInfoList gateways;
    bool has_destination = false;
    const auto take_gateway = [&](int type, Payload payload) {
        const auto text = address_text(header->rtm_family, payload);
        if (type == RTA_GATEWAY && text[0] != '\0')
            gateways.reset(join_netlink_info(gateways.release(), new_netlink_info(text.data(), origin)));
    };
    visit_attributes_of<rtmsg>(message, [&](int type, Payload payload) {
        has_destination |= type == RTA_DST;
        take_gateway(type, payload);
        if (type == RTA_MULTIPATH)
            visit_next_hops(payload, take_gateway);
    });
    for (const auto* gateway = gateways.get(); gateway != nullptr; gateway = gateway->next) {
        log_message(LEVEL_DEBUG, "%s:%d: Route GW %s type=%d proto=%d scope=%d", HERE, gateway->text,
                    header->rtm_type, header->rtm_protocol, header->rtm_scope);
        if (has_destination)
            log_message(LEVEL_DEBUG, "%s:%d: %s has a dst, which means it isn't default gateway", HERE,
                        gateway->text);
    }
    return has_destination ? nullptr : gateways.release();
}

quarn_netlink_info* hw_addr_callback(const nlmsghdr* message, unsigned eth0_index)
{
    HardwareAddress mac{};
    if (!read_hardware_address(message, eth0_index, mac))
        return nullptr;
    // Modified EUI-64: the universal/local bit is inverted.
    constexpr unsigned char UNIVERSAL_LOCAL_BIT = 0x02;
    in6_addr identifier{};
    unsigned char* eui64 = identifier.s6_addr + sizeof identifier / 2;
    std::copy_n(mac.begin(), 3, eui64);
    eui64[0] ^= UNIVERSAL_LOCAL_BIT;
    eui64[3] = 0xFF;
    eui64[4] = 0xFE;
    std::copy_n(mac.begin() + 3, 3, eui64 + 5);
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(AF_INET6, &identifier, text, sizeof text);
    return new_netlink_info(text + LEADING_COLONS, 0);
}

quarn_netlink_info* mac_addr_callback(const nlmsghdr* message, unsigned eth0_index)
{
    HardwareAddress mac{};
    if (!read_hardware_address(message, eth0_index, mac))
        return nullptr;
    const OwnedText text(g_strdup_printf("%02hhX%02hhX%02hhX%02hhX%02hhX%02hhX", mac[0], mac[1], mac[2],
                                         mac[3], mac[4], mac[5]));
    return new_netlink_info(text.get(), 0);
}
