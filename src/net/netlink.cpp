#include "net/netlink.h"

#include "core/log.h"

#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <span>
#include <string_view>
#include <utility>

namespace {

constexpr std::size_t RECEIVE_BUFFER_SIZE = 8192;
constexpr std::size_t COMMAND_LINE_SIZE = 256;

struct DumpRequest {
    nlmsghdr header;
    rtgenmsg body;
};
constexpr std::uint32_t DUMP_REQUEST_SIZE = 20;
static_assert(sizeof(DumpRequest) == DUMP_REQUEST_SIZE);

DumpRequest dump_request(std::uint16_t type, NetlinkFamily family)
{
    DumpRequest request{};
    request.header.nlmsg_len = DUMP_REQUEST_SIZE;
    request.header.nlmsg_type = type;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.header.nlmsg_seq = static_cast<std::uint32_t>(std::time(nullptr));
    request.body.rtgen_family = family == NetlinkFamily::IPV6 ? AF_INET6 : AF_INET;
    return request;
}

// What comes next on the socket, once something comes; empty at its end.
std::span<const char> receive(int socket, std::span<char> buffer)
{
    ssize_t received = -1;
    while (received < 0) {
        sockaddr_nl sender{};
        iovec part{buffer.data(), buffer.size()};
        msghdr message{};
        message.msg_name = &sender;
        message.msg_namelen = sizeof sender;
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        received = recvmsg(socket, &message, 0);
    }
    return buffer.first(std::min(static_cast<std::size_t>(received), buffer.size()));
}

// Hands each message to the callback and puts its records in front of the list. True when the dump is over.
bool take_messages(std::span<const char> received, NetlinkCallback callback, unsigned eth0_index,
                   NetlinkInfoList& list)
{
    while (received.size() >= sizeof(nlmsghdr)) {
        const auto* message = reinterpret_cast<const nlmsghdr*>(received.data());
        if (message->nlmsg_len < sizeof(nlmsghdr) || message->nlmsg_len > received.size())
            return false;
        list.reset(join_netlink_info(callback(message, eth0_index), list.release()));
        if (message->nlmsg_type == NLMSG_DONE)
            return true;
        received = received.subspan(std::min<std::size_t>(NLMSG_ALIGN(message->nlmsg_len), received.size()));
    }
    return false;
}

OwnedText take_first_text(NetlinkInfoList list)
{
    return OwnedText(list != nullptr ? std::exchange(list->text, nullptr) : nullptr);
}

bool is_same_address(const char* text_a, const char* text_b)
{
    in6_addr address_a{};
    in6_addr address_b{};
    return inet_pton(AF_INET6, text_a, &address_a) == 1 && inet_pton(AF_INET6, text_b, &address_b) == 1 &&
           std::memcmp(&address_a, &address_b, sizeof address_a) == 0;
}

bool has_address(const quarn_netlink_info* list, const char* text)
{
    while (list != nullptr && !is_same_address(list->text, text))
        list = list->next;
    return list != nullptr;
}

// Takes out the first record with this very text.
void remove_first(NetlinkInfoList& list, const char* text)
{
    quarn_netlink_info* first = list.release();
    quarn_netlink_info** link = &first;
    while (*link != nullptr && std::strcmp((*link)->text, text) != 0)
        link = &(*link)->next;
    if (*link != nullptr) {
        const NetlinkInfoList removed(*link);
        *link = std::exchange(removed->next, nullptr);
        if (*link != nullptr)
            (*link)->prev = removed->prev;
    }
    list.reset(first);
}

} // namespace

void free_netlink_info(quarn_netlink_info* list)
{
    while (list != nullptr) {
        quarn_netlink_info* next = list->next;
        g_free(list->text);
        g_free(list);
        list = next;
    }
}

quarn_netlink_info* join_netlink_info(quarn_netlink_info* first, quarn_netlink_info* second)
{
    if (first == nullptr || second == nullptr)
        return first != nullptr ? first : second;
    quarn_netlink_info* last = first;
    while (last->next != nullptr)
        last = last->next;
    last->next = second;
    second->prev = last;
    return first;
}

NetlinkInfoList get_netlink_info(std::uint16_t request_type, NetlinkFamily family, NetlinkCallback callback)
{
    const int descriptor = socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
    const OwnedDescriptor netlink(descriptor);
    if (!netlink.is_open()) {
        log_message(LEVEL_CRITICAL, "%s:%d: can't create AF_NETLINK socket %d", HERE, descriptor);
        return nullptr;
    }
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    const auto* address = reinterpret_cast<const sockaddr*>(&kernel);
    if (bind(netlink.get(), address, sizeof kernel) != 0) {
        log_message(LEVEL_CRITICAL, "%s:%d: can't bind AF_NETLINK socket", HERE);
        return nullptr;
    }
    const DumpRequest request = dump_request(request_type, family);
    if (sendto(netlink.get(), &request, sizeof request, 0, address, sizeof kernel) < 0) {
        log_message(LEVEL_CRITICAL, "%s:%d: can't sendto AF_NETLINK socket", HERE);
        return nullptr;
    }
    const OwnedText buffer(static_cast<char*>(g_try_malloc0(RECEIVE_BUFFER_SIZE)));
    if (buffer == nullptr) {
        log_message(LEVEL_CRITICAL, "%s:%d: can't allocate buffer", HERE);
        return nullptr;
    }
    // Once for the dump: each look-up is a socket of its own.
    const unsigned eth0_index = if_nametoindex("eth0");
    NetlinkInfoList list;
    std::span<const char> received;
    do {
        received = receive(netlink.get(), {buffer.get(), RECEIVE_BUFFER_SIZE});
    } while (!received.empty() && !take_messages(received, callback, eth0_index, list));
    if (list == nullptr)
        log_message(LEVEL_WARNING, "%s: no data returned", __func__);
    return list;
}

NetlinkInfoList quarn_get_ipv4_addr()
{
    NetlinkInfoList list = get_netlink_info(RTM_GETADDR, NetlinkFamily::IPV4, ip_addr_callback);
    if (list != nullptr)
        free_netlink_info(std::exchange(list->next, nullptr));
    return list;
}

NetlinkInfoList quarn_get_ipv6_addrs(LinkLocal link_local)
{
    NetlinkInfoList list = get_netlink_info(RTM_GETADDR, NetlinkFamily::IPV6, ip_addr_callback);
    if (link_local == LinkLocal::INCLUDED)
        return list;
    // Kept as it is: the text ends in "/64" and equals no record's, so clients also see the fe80 address.
    if (const OwnedText text = quarn_get_ipv6_linklocal())
        remove_first(list, text.get());
    return list;
}

NetlinkInfoList quarn_get_stateless_ipv6_addrs()
{
    return get_netlink_info(RTM_GETADDR, NetlinkFamily::IPV6, stateless_addr_callback);
}

NetlinkInfoList quarn_get_ipv6_gateways()
{
    return get_netlink_info(RTM_GETROUTE, NetlinkFamily::IPV6, gateways_callback);
}

OwnedText quarn_get_eui64()
{
    OwnedText text = take_first_text(get_netlink_info(RTM_GETLINK, NetlinkFamily::IPV6, hw_addr_callback));
    if (text == nullptr)
        log_message(LEVEL_CRITICAL, "%s:%d: unable to retrieve EUI-64", HERE);
    return text;
}

OwnedText quarn_get_mac_addr()
{
    OwnedText text = take_first_text(get_netlink_info(RTM_GETLINK, NetlinkFamily::IPV6, mac_addr_callback));
    if (text == nullptr)
        log_message(LEVEL_CRITICAL, "%s:%d: unable to retrieve mac address", HERE);
    return text;
}

OwnedText quarn_get_ipv6_linklocal()
{
    const OwnedText eui64 = quarn_get_eui64();
    if (eui64 == nullptr) {
        log_message(LEVEL_CRITICAL, "%s:%d: unable to retrieve link local address", HERE);
        return nullptr;
    }
    return OwnedText(g_strdup_printf("fe80::%s/64", eui64.get()));
}

void free_text_queue(GQueue* queue)
{
    g_queue_free_full(queue, g_free);
}

OwnedTextQueue ipv6_list_difference(const quarn_netlink_info* list_a, const quarn_netlink_info* list_b)
{
    OwnedTextQueue difference(g_queue_new());
    for (; list_b != nullptr; list_b = list_b->next) {
        if (!has_address(list_a, list_b->text))
            g_queue_push_tail(difference.get(), g_strdup(list_b->text));
    }
    return difference;
}

bool is_nfs_mounted()
{
    const OwnedFile file(std::fopen("/proc/cmdline", "re"));
    if (file == nullptr) {
        log_message(LEVEL_ERROR, "%s: Couldn't read /proc/cmdline, assuming not NFS mounted", __func__);
        return false;
    }
    char text[COMMAND_LINE_SIZE] = "";
    const std::size_t length = std::fread(text, 1, sizeof text - 1, file.get());
    return std::string_view(text, length).find("root=/dev/nfs") != std::string_view::npos;
}
