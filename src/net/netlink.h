// net/netlink.h: the live state of eth0, read from the kernel over rtnetlink. Every call is a one-shot dump
// on a socket of its own; nothing is cached.
#pragma once

#include "core/owned.h"

#include <linux/netlink.h>

#include <cstdint>

struct quarn_netlink_info {
    quarn_netlink_info* next;
    quarn_netlink_info* prev;
    // An address, a gateway, a MAC or an EUI-64; owned by the record.
    char* text;
    // Prefix length of an address, origin class of a gateway, else 0.
    std::int32_t value;
};

// Releases every record from this one on; null is allowed.
void free_netlink_info(quarn_netlink_info* list);
// Puts one list behind the other; either may be null.
quarn_netlink_info* join_netlink_info(quarn_netlink_info* first, quarn_netlink_info* second);
using NetlinkInfoList = std::unique_ptr<quarn_netlink_info, Releaser<free_netlink_info>>;

// Origin classes of gateways.
inline constexpr std::int32_t GATEWAY_LEARNED = 1;
inline constexpr std::int32_t GATEWAY_FROM_USER = 2;

// One message and the index of eth0 in, a new record (or a chain of them, in the order in which they shall
// stand) or null out.
using NetlinkCallback = quarn_netlink_info* (*)(const nlmsghdr* message, unsigned eth0_index);
quarn_netlink_info* ip_addr_callback(const nlmsghdr* message, unsigned eth0_index);
quarn_netlink_info* stateless_addr_callback(const nlmsghdr* message, unsigned eth0_index);
quarn_netlink_info* gateways_callback(const nlmsghdr* message, unsigned eth0_index);
quarn_netlink_info* hw_addr_callback(const nlmsghdr* message, unsigned eth0_index);
quarn_netlink_info* mac_addr_callback(const nlmsghdr* message, unsigned eth0_index);

enum class NetlinkFamily { IPV4, IPV6 };
// Runs one dump of the request type; records stand in the reverse of the kernel's order. Null when there are
// none.
NetlinkInfoList get_netlink_info(std::uint16_t request_type, NetlinkFamily family, NetlinkCallback callback);

enum class LinkLocal { LEFT_OUT, INCLUDED };
// At most one record: the address that the kernel reported last.
NetlinkInfoList quarn_get_ipv4_addr();
NetlinkInfoList quarn_get_ipv6_addrs(LinkLocal link_local);
NetlinkInfoList quarn_get_stateless_ipv6_addrs();
NetlinkInfoList quarn_get_ipv6_gateways();
// Null when the kernel has none.
OwnedText quarn_get_eui64();
OwnedText quarn_get_mac_addr();
OwnedText quarn_get_ipv6_linklocal();

// Releases the queue and every text in it.
void free_text_queue(GQueue* queue);
using OwnedTextQueue = std::unique_ptr<GQueue, Releaser<free_text_queue>>;
// The texts of B's addresses that A has not, in B's order.
OwnedTextQueue ipv6_list_difference(const quarn_netlink_info* list_a, const quarn_netlink_info* list_b);

// Whether the kernel command line (its first 255 bytes) names an NFS root.
bool is_nfs_mounted();
