// fuzz_netlink: any bytes as what the kernel sends: datagrams, each with its size before it, to every
// callback.
#include "core/log.h"
#include "net/netlink.h"
#include "surroundings.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <vector>

namespace {

struct FuzzedCallback {
    NetlinkCallback callback;
    const char* bytes;
};

// What the surroundings say.
constexpr unsigned ETH0_INDEX = 0;

constexpr char ADDRESS_BYTES[] = "0123456789abcdef.:";
constexpr FuzzedCallback CALLBACKS[] = {
    {ip_addr_callback, ADDRESS_BYTES},       {stateless_addr_callback, ADDRESS_BYTES},
    {gateways_callback, ADDRESS_BYTES},      {hw_addr_callback, "0123456789abcdef:"},
    {mac_addr_callback, "0123456789ABCDEF"},
};

std::vector<std::string> datagrams;
std::vector<std::string>::const_iterator next_datagram;

} // namespace

// The kernel's side: the only sockets of this process are those of netlink.h.
extern "C" int socket(int, int, int) noexcept
{
    return open("/dev/null", O_RDWR | O_CLOEXEC);
}

extern "C" int bind(int, const sockaddr*, socklen_t) noexcept
{
    return 0;
}

extern "C" ssize_t sendto(int, const void*, size_t size, int, const sockaddr*, socklen_t)
{
    next_datagram = datagrams.begin();
    return static_cast<ssize_t>(size);
}

extern "C" ssize_t recvmsg(int, msghdr* message, int)
{
    if (next_datagram == datagrams.end())
        return 0;
    const std::size_t size = std::min(next_datagram->size(), message->msg_iov->iov_len);
    std::memcpy(message->msg_iov->iov_base, next_datagram->data(), size);
    ++next_datagram;
    return static_cast<ssize_t>(size);
}

namespace {

bool is_ipv6(const char* text)
{
    in6_addr address{};
    return inet_pton(AF_INET6, text, &address) == 1;
}

void test_list(const quarn_netlink_info* list, const char* bytes)
{
    const quarn_netlink_info* previous = nullptr;
    for (; list != nullptr; previous = list, list = list->next) {
        require(list->prev == previous, "a record knows the one before");
        require(*list->text != '\0' && list->text[std::strspn(list->text, bytes)] == '\0',
                "a text is a plain address");
        require(list->value >= 0 && list->value <= UINT8_MAX, "a value is a length or an origin");
    }
}

// The callback alone, with a message that ends where its memory ends.
NetlinkInfoList made_by(NetlinkCallback callback, const std::string& datagram)
{
    if (datagram.size() < sizeof(nlmsghdr))
        return nullptr;
    std::vector<char> bytes(datagram.begin(), datagram.end());
    auto* const message = reinterpret_cast<nlmsghdr*>(bytes.data());
    message->nlmsg_len = static_cast<std::uint32_t>(bytes.size());
    return NetlinkInfoList(callback(message, ETH0_INDEX));
}

void test_difference(const quarn_netlink_info* list_a, const quarn_netlink_info* list_b)
{
    const OwnedTextQueue difference = ipv6_list_difference(list_a, list_b);
    std::size_t missing = 0;
    for (; list_b != nullptr; list_b = list_b->next) {
        const auto* same = list_a;
        while (same != nullptr && std::strcmp(same->text, list_b->text) != 0)
            same = same->next;
        missing += same == nullptr || !is_ipv6(list_b->text) ? 1 : 0;
    }
    require(g_queue_get_length(difference.get()) == missing, "the difference is what the one has not");
}

void test_callback(const FuzzedCallback& fuzzed)
{
    NetlinkInfoList joined;
    for (const std::string& datagram : datagrams) {
        NetlinkInfoList made = made_by(fuzzed.callback, datagram);
        test_list(made.get(), fuzzed.bytes);
        joined.reset(join_netlink_info(made.release(), joined.release()));
    }
    test_list(joined.get(), fuzzed.bytes);
    for (const auto type : {RTM_GETADDR, RTM_GETROUTE, RTM_GETLINK}) {
        const NetlinkInfoList dumped =
            get_netlink_info(static_cast<std::uint16_t>(type), NetlinkFamily::IPV6, fuzzed.callback);
        test_list(dumped.get(), fuzzed.bytes);
        test_difference(dumped.get(), joined.get());
        test_difference(joined.get(), dumped.get());
    }
}

// The datagrams hold what the callbacks of each of these ask for.
void test_getters()
{
    const NetlinkInfoList ipv4 = quarn_get_ipv4_addr();
    test_list(ipv4.get(), ADDRESS_BYTES);
    require(ipv4 == nullptr || ipv4->next == nullptr, "there is one IPv4 address");
    test_list(quarn_get_ipv6_addrs(LinkLocal::LEFT_OUT).get(), ADDRESS_BYTES);
    test_list(quarn_get_ipv6_addrs(LinkLocal::INCLUDED).get(), ADDRESS_BYTES);
    test_list(quarn_get_stateless_ipv6_addrs().get(), ADDRESS_BYTES);
    test_list(quarn_get_ipv6_gateways().get(), ADDRESS_BYTES);
    const OwnedText mac = quarn_get_mac_addr();
    require(mac == nullptr || std::strlen(mac.get()) == 12, "a MAC has twelve digits");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    open_surroundings();
    // That eth0 is missing would be logged for every input, at the highest level.
    stop_logging();
    Input input(data, size);
    datagrams.clear();
    while (!input.is_empty())
        datagrams.push_back(input.take(input.take_number()));
    for (const FuzzedCallback& fuzzed : CALLBACKS)
        test_callback(fuzzed);
    test_getters();
    return 0;
}
