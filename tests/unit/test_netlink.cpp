#include "net/netlink.h"
#include "scripted_kernel.h"
#include "support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>

#include <array>
#include <ctime>

namespace {

class netlink : public QuarnTest {
protected:
    ScriptedKernel kernel;
};

using Log = std::vector<std::string>;
using Texts = std::vector<std::string>;

const std::string MAC("\x00\x11\x22\x33\x44\x55", 6);

// "text value" of each record, with the list's backward links checked.
Texts records(const quarn_netlink_info* list)
{
    Texts texts;
    const quarn_netlink_info* previous = nullptr;
    for (; list != nullptr; previous = list, list = list->next) {
        EXPECT_EQ(list->prev, previous);
        texts.push_back(std::string(list->text) + " " + std::to_string(list->value));
    }
    return texts;
}

// What a callback makes of one message, which ends where its memory ends.
Texts made_by(NetlinkCallback callback, const std::string& message)
{
    const std::vector<char> bytes(message.begin(), message.end());
    const NetlinkInfoList list(callback(reinterpret_cast<const nlmsghdr*>(bytes.data()), ETH0_INDEX));
    return records(list.get());
}

std::string message_with_length(std::string message, unsigned length)
{
    reinterpret_cast<nlmsghdr*>(message.data())->nlmsg_len = length;
    return message;
}

// An address message of eth0 with these attributes.
std::string address_attributes(unsigned char family, const std::string& attributes,
                               unsigned index = ETH0_INDEX)
{
    ifaddrmsg header{};
    header.ifa_family = family;
    header.ifa_prefixlen = 24;
    header.ifa_index = index;
    return netlink_message(RTM_NEWADDR, header, attributes);
}

std::string route_message(const std::string& attributes, unsigned char protocol = RTPROT_RA,
                          unsigned char type = RTN_UNICAST)
{
    rtmsg header{};
    header.rtm_family = AF_INET6;
    header.rtm_protocol = protocol;
    header.rtm_type = type;
    return netlink_message(RTM_NEWROUTE, header, attributes);
}

std::string gateway(const char* address)
{
    return attribute(RTA_GATEWAY, address_bytes(address));
}

std::string next_hop(const std::string& attributes)
{
    rtnexthop hop{};
    hop.rtnh_len = static_cast<unsigned short>(sizeof hop + attributes.size());
    return std::string(reinterpret_cast<const char*>(&hop), sizeof hop) + attributes;
}

Texts queued(const OwnedTextQueue& queue)
{
    Texts texts;
    for (const GList* entry = queue->head; entry != nullptr; entry = entry->next)
        texts.emplace_back(static_cast<const char*>(entry->data));
    return texts;
}

// A list of these addresses, in this order.
NetlinkInfoList list_of(const std::vector<const char*>& texts)
{
    NetlinkInfoList list;
    for (const char* text : texts) {
        auto* record = g_new0(quarn_netlink_info, 1);
        record->text = g_strdup(text);
        list.reset(join_netlink_info(list.release(), record));
    }
    return list;
}

} // namespace

TEST_F(netlink, each_query_is_one_dump_request_of_twenty_bytes)
{
    struct {
        void (*query)();
        std::uint16_t type;
        std::uint8_t family;
    } const cases[] = {
        {[] { quarn_get_ipv4_addr(); }, RTM_GETADDR, AF_INET},
        {[] { quarn_get_ipv6_addrs(LinkLocal::INCLUDED); }, RTM_GETADDR, AF_INET6},
        {[] { quarn_get_stateless_ipv6_addrs(); }, RTM_GETADDR, AF_INET6},
        {[] { quarn_get_ipv6_gateways(); }, RTM_GETROUTE, AF_INET6},
        {[] { quarn_get_eui64(); }, RTM_GETLINK, AF_INET6},
        {[] { quarn_get_mac_addr(); }, RTM_GETLINK, AF_INET6},
    };
    for (const auto& [query, type, family] : cases) {
        kernel.requests.clear();
        const auto before = static_cast<std::uint32_t>(std::time(nullptr));
        query();
        ASSERT_EQ(kernel.requests.size(), 1U);
        ASSERT_EQ(kernel.requests[0].size(), 20U);
        nlmsghdr header{};
        kernel.requests[0].copy(reinterpret_cast<char*>(&header), sizeof header);
        EXPECT_EQ(header.nlmsg_len, 20U);
        EXPECT_EQ(header.nlmsg_type, type);
        EXPECT_EQ(header.nlmsg_flags, 0x301);
        EXPECT_GE(header.nlmsg_seq, before);
        EXPECT_LE(header.nlmsg_seq, static_cast<std::uint32_t>(std::time(nullptr)));
        EXPECT_EQ(header.nlmsg_pid, 0U);
        EXPECT_EQ(kernel.requests[0].substr(16), std::string({static_cast<char>(family), 0, 0, 0}));
    }
}

TEST_F(netlink, records_stand_in_the_reverse_of_the_kernels_order)
{
    kernel.datagrams[{RTM_GETADDR, AF_INET6}] = {address_message("2001:db8::1", 64) +
                                                     address_message("2001:db8::2", 65),
                                                 address_message("2001:db8::3", 66) + done_message()};
    EXPECT_EQ(records(quarn_get_ipv6_addrs(LinkLocal::INCLUDED).get()),
              (Texts{"2001:db8::3 66", "2001:db8::2 65", "2001:db8::1 64"}));
}

TEST_F(netlink, the_dump_is_over_with_its_done_message)
{
    kernel.datagrams[{RTM_GETADDR, AF_INET6}] = {address_message("2001:db8::1", 64) + done_message() +
                                                     address_message("2001:db8::2", 64),
                                                 address_message("2001:db8::3", 64)};
    EXPECT_EQ(records(quarn_get_ipv6_addrs(LinkLocal::INCLUDED).get()), Texts{"2001:db8::1 64"});
}

TEST_F(netlink, an_empty_read_ends_the_dump)
{
    kernel.datagrams[{RTM_GETADDR, AF_INET6}] = {address_message("2001:db8::1", 64)};
    EXPECT_EQ(records(quarn_get_ipv6_addrs(LinkLocal::INCLUDED).get()), Texts{"2001:db8::1 64"});
}

TEST_F(netlink, a_failed_read_is_tried_again)
{
    kernel.set_addresses(AF_INET6, {address_message("2001:db8::1", 64)});
    kernel.failing_receives = 3;
    EXPECT_EQ(records(quarn_get_ipv6_addrs(LinkLocal::INCLUDED).get()), Texts{"2001:db8::1 64"});
    EXPECT_EQ(kernel.failing_receives, 0);
}

TEST_F(netlink, a_message_that_is_cut_off_ends_the_walk_of_its_datagram)
{
    const std::string whole = address_message("2001:db8::1", 64);
    for (const unsigned length : {0U, 15U, static_cast<unsigned>(whole.size()) + 1, 0xFFFFFFFFU}) {
        kernel.datagrams[{RTM_GETADDR, AF_INET6}] = {message_with_length(whole, length),
                                                     address_message("2001:db8::2", 64) + done_message()};
        EXPECT_EQ(records(quarn_get_ipv6_addrs(LinkLocal::INCLUDED).get()), Texts{"2001:db8::2 64"})
            << length;
    }
}

TEST_F(netlink, an_error_message_is_passed_over)
{
    kernel.datagrams[{RTM_GETADDR, AF_INET6}] = {netlink_message(NLMSG_ERROR, nlmsgerr{}, "") +
                                                 address_message("2001:db8::1", 64) + done_message()};
    EXPECT_EQ(records(quarn_get_ipv6_addrs(LinkLocal::INCLUDED).get()), Texts{"2001:db8::1 64"});
}

TEST_F(netlink, a_query_that_cannot_be_made_is_logged_and_leaves_no_socket_open)
{
    const std::pair<const char*, const char*> cases[] = {
        {"socket", "<2>get_netlink_info:LINE: can't create AF_NETLINK socket -1"},
        {"bind", "<2>get_netlink_info:LINE: can't bind AF_NETLINK socket"},
        {"sendto", "<2>get_netlink_info:LINE: can't sendto AF_NETLINK socket"},
    };
    for (const auto& [call, line] : cases) {
        kernel.failing_call = call;
        EXPECT_EQ(get_netlink_info(RTM_GETADDR, NetlinkFamily::IPV4, ip_addr_callback), nullptr);
        EXPECT_EQ(take_log(), Log{line});
        EXPECT_EQ(fcntl(kernel.descriptor, F_GETFD), -1);
    }
}

TEST_F(netlink, a_dump_without_records_is_logged_and_closes_its_socket)
{
    EXPECT_EQ(quarn_get_ipv4_addr(), nullptr);
    EXPECT_EQ(take_log(), Log{"<4>get_netlink_info: no data returned"});
    EXPECT_EQ(fcntl(kernel.descriptor, F_GETFD), -1);
}

TEST_F(netlink, of_several_ipv4_addresses_the_one_reported_last_is_taken)
{
    kernel.set_addresses(AF_INET, {address_message("10.0.0.5", 8), address_message("192.168.0.20", 24)});
    EXPECT_EQ(records(quarn_get_ipv4_addr().get()), Texts{"192.168.0.20 24"});
}

TEST_F(netlink, an_address_on_the_alias_is_never_reported)
{
    const std::string local = attribute(IFA_LOCAL, address_bytes("10.0.0.5"));
    const auto labelled = [&](const std::string& label) {
        return address_attributes(AF_INET, local + attribute(IFA_LABEL, label));
    };
    EXPECT_EQ(made_by(ip_addr_callback, labelled(std::string("eth0:1\0", 7))), Texts());
    EXPECT_EQ(made_by(ip_addr_callback, labelled(std::string("eth\0", 4))), Texts());
    EXPECT_EQ(made_by(ip_addr_callback, labelled("")), Texts());
    EXPECT_EQ(made_by(ip_addr_callback, labelled("eth0")), Texts{"10.0.0.5 24"});
    EXPECT_EQ(made_by(ip_addr_callback, labelled(std::string("eth0\0", 5))), Texts{"10.0.0.5 24"});
    EXPECT_EQ(made_by(stateless_addr_callback, labelled("eth0:1")), Texts{"10.0.0.5 24"});
}

TEST_F(netlink, the_local_address_speaks_before_the_other_one)
{
    const std::string local = attribute(IFA_LOCAL, address_bytes("10.0.0.5"));
    const std::string other = attribute(IFA_ADDRESS, address_bytes("10.0.0.9"));
    for (const NetlinkCallback callback : {ip_addr_callback, stateless_addr_callback}) {
        EXPECT_EQ(made_by(callback, address_attributes(AF_INET, other + local)), Texts{"10.0.0.5 24"});
        EXPECT_EQ(made_by(callback, address_attributes(AF_INET, local + other)), Texts{"10.0.0.5 24"});
        EXPECT_EQ(made_by(callback, address_attributes(AF_INET, other)), Texts{"10.0.0.9 24"});
    }
}

TEST_F(netlink, other_interfaces_and_other_messages_yield_nothing)
{
    const std::string local = attribute(IFA_LOCAL, address_bytes("10.0.0.5"));
    std::string removal = address_attributes(AF_INET, local);
    reinterpret_cast<nlmsghdr*>(removal.data())->nlmsg_type = RTM_DELADDR;
    for (const NetlinkCallback callback : {ip_addr_callback, stateless_addr_callback}) {
        EXPECT_EQ(made_by(callback, address_attributes(AF_INET, local, ETH0_INDEX + 1)), Texts());
        EXPECT_EQ(made_by(callback, removal), Texts());
    }
    ifinfomsg other{};
    other.ifi_index = ETH0_INDEX + 1;
    for (const NetlinkCallback callback : {hw_addr_callback, mac_addr_callback}) {
        EXPECT_EQ(made_by(callback, netlink_message(RTM_NEWLINK, other, attribute(IFLA_ADDRESS, MAC))),
                  Texts());
        EXPECT_EQ(made_by(callback, address_message("10.0.0.5", 24)), Texts());
    }
    EXPECT_EQ(made_by(gateways_callback, address_message("2001:db8::1", 64)), Texts());
}

TEST_F(netlink, an_address_too_short_for_its_family_is_not_read)
{
    const std::string address = attribute(IFA_ADDRESS, address_bytes("10.0.0.9"));
    EXPECT_EQ(made_by(ip_addr_callback, address_attributes(AF_INET, attribute(IFA_LOCAL, "ab"))), Texts());
    EXPECT_EQ(made_by(ip_addr_callback, address_attributes(AF_INET, attribute(IFA_LOCAL, "ab") + address)),
              Texts{"10.0.0.9 24"});
    EXPECT_EQ(made_by(ip_addr_callback, address_attributes(AF_INET6, address)), Texts());
    EXPECT_EQ(
        made_by(ip_addr_callback, address_attributes(AF_PACKET, attribute(IFA_LOCAL, std::string(16, 'a')))),
        Texts());
    EXPECT_EQ(made_by(gateways_callback, route_message(attribute(RTA_GATEWAY, "abcd"))), Texts());
    EXPECT_EQ(take_log(), Log());
}

TEST_F(netlink, a_message_cut_off_before_the_end_of_its_first_attribute_yields_nothing)
{
    struct {
        std::string message;
        std::size_t needed;
        NetlinkCallback callback;
    } const cases[] = {
        {address_message("10.0.0.5", 24), 32, ip_addr_callback},
        {stateless_address_message("2001:db8::1"), 44, stateless_addr_callback},
        {route_message(gateway("fe80::1")), 48, gateways_callback},
        {link_message(MAC), 42, hw_addr_callback},
        {link_message(MAC), 42, mac_addr_callback},
    };
    for (const auto& [message, needed, callback] : cases) {
        for (std::size_t length = sizeof(nlmsghdr); length < needed; ++length)
            EXPECT_EQ(made_by(callback,
                              message_with_length(message.substr(0, length), static_cast<unsigned>(length))),
                      Texts())
                << length;
        EXPECT_EQ(
            made_by(callback, message_with_length(message.substr(0, needed), static_cast<unsigned>(needed)))
                .size(),
            1U);
    }
}

TEST_F(netlink, an_attribute_of_an_impossible_length_ends_the_walk)
{
    const std::string good = attribute(IFA_LOCAL, address_bytes("10.0.0.5"));
    for (const std::uint16_t length : std::to_array<std::uint16_t>({0, 3, 100, 0xFFFF})) {
        std::string bad = attribute(IFA_LOCAL, address_bytes("10.9.9.9"));
        reinterpret_cast<rtattr*>(bad.data())->rta_len = length;
        EXPECT_EQ(made_by(ip_addr_callback, address_attributes(AF_INET, bad + good)), Texts()) << length;
        EXPECT_EQ(made_by(ip_addr_callback, address_attributes(AF_INET, good + bad)), Texts{"10.0.0.5 24"})
            << length;
    }
}

TEST_F(netlink, stateless_addresses_are_global_ones_with_a_lifetime)
{
    struct {
        unsigned char scope;
        unsigned char flags;
        Texts expected;
    } const cases[] = {
        {RT_SCOPE_UNIVERSE, 0, {"2001:db8::1 64"}},
        {RT_SCOPE_UNIVERSE, IFA_F_TEMPORARY, {"2001:db8::1 64"}},
        {RT_SCOPE_UNIVERSE, IFA_F_PERMANENT, {}},
        {RT_SCOPE_LINK, 0, {}},
        {RT_SCOPE_SITE, 0, {}},
    };
    for (const auto& [scope, flags, expected] : cases) {
        ifaddrmsg header{};
        header.ifa_family = AF_INET6;
        header.ifa_prefixlen = 64;
        header.ifa_scope = scope;
        header.ifa_flags = flags;
        header.ifa_index = ETH0_INDEX;
        EXPECT_EQ(made_by(stateless_addr_callback,
                          netlink_message(RTM_NEWADDR, header,
                                          attribute(IFA_ADDRESS, address_bytes("2001:db8::1")))),
                  expected)
            << int{scope} << " " << int{flags};
    }
}

TEST_F(netlink, a_gateway_put_in_by_a_user_or_a_tool_is_of_class_2)
{
    const std::pair<unsigned char, const char*> cases[] = {
        {RTPROT_BOOT, "fe80::1 2"},     {RTPROT_STATIC, "fe80::1 2"}, {RTPROT_KERNEL, "fe80::1 1"},
        {RTPROT_REDIRECT, "fe80::1 1"}, {RTPROT_RA, "fe80::1 1"},     {RTPROT_DHCP, "fe80::1 1"},
    };
    for (const auto& [protocol, expected] : cases)
        EXPECT_EQ(made_by(gateways_callback, route_message(gateway("fe80::1"), protocol)), Texts{expected});
}

TEST_F(netlink, a_default_route_is_told_in_a_debug_line)
{
    made_by(gateways_callback, route_message(gateway("fe80::1"), RTPROT_STATIC));
    EXPECT_EQ(take_log(), Log{"<7>gateways_callback:LINE: Route GW fe80::1 type=1 proto=4 scope=0"});
}

TEST_F(netlink, a_route_with_a_destination_is_no_default_route)
{
    const std::string destination = attribute(RTA_DST, address_bytes("2001:db8::"));
    for (const std::string& attributes :
         {gateway("fe80::1") + destination, destination + gateway("fe80::1")}) {
        EXPECT_EQ(made_by(gateways_callback, route_message(attributes)), Texts());
        EXPECT_EQ(
            take_log(),
            (Log{"<7>gateways_callback:LINE: Route GW fe80::1 type=1 proto=9 scope=0",
                 "<7>gateways_callback:LINE: fe80::1 has a dst, which means it isn't default gateway"}));
    }
}

TEST_F(netlink, a_local_route_yields_nothing)
{
    EXPECT_EQ(made_by(gateways_callback, route_message(gateway("fe80::1"), RTPROT_KERNEL, RTN_LOCAL)),
              Texts());
    EXPECT_EQ(take_log(), Log());
}

TEST_F(netlink, each_next_hop_of_a_multipath_route_is_a_gateway)
{
    const std::string hops =
        next_hop(gateway("2001:db8::1")) + next_hop("") + next_hop(gateway("2001:db8::2"));
    kernel.datagrams[{RTM_GETROUTE, AF_INET6}] = {route_message(gateway("fe80::1")) +
                                                  route_message(attribute(RTA_MULTIPATH, hops), RTPROT_BOOT) +
                                                  done_message()};
    EXPECT_EQ(records(quarn_get_ipv6_gateways().get()),
              (Texts{"2001:db8::1 2", "2001:db8::2 2", "fe80::1 1"}));
    EXPECT_EQ(take_log(), (Log{"<7>gateways_callback:LINE: Route GW fe80::1 type=1 proto=9 scope=0",
                               "<7>gateways_callback:LINE: Route GW 2001:db8::1 type=1 proto=3 scope=0",
                               "<7>gateways_callback:LINE: Route GW 2001:db8::2 type=1 proto=3 scope=0"}));
}

TEST_F(netlink, a_next_hop_of_an_impossible_length_ends_the_walk)
{
    for (const std::uint16_t length : std::to_array<std::uint16_t>({0, 7, 200, 0xFFFF})) {
        std::string bad = next_hop(gateway("2001:db8::9"));
        reinterpret_cast<rtnexthop*>(bad.data())->rtnh_len = length;
        const std::string hops = next_hop(gateway("2001:db8::1")) + bad + next_hop(gateway("2001:db8::2"));
        EXPECT_EQ(made_by(gateways_callback, route_message(attribute(RTA_MULTIPATH, hops))),
                  Texts{"2001:db8::1 1"})
            << length;
    }
}

TEST_F(netlink, the_hardware_address_gives_the_mac_and_the_eui64)
{
    struct {
        std::string mac;
        const char* mac_text;
        const char* eui64;
        const char* link_local;
    } const cases[] = {
        {MAC, "001122334455", "211:22ff:fe33:4455", "fe80::211:22ff:fe33:4455"},
        {std::string("\xAC\xCC\x8E\x0A\x0B\x0C", 6), "ACCC8E0A0B0C", "aecc:8eff:fe0a:b0c",
         "fe80::aecc:8eff:fe0a:b0c"},
        // The first group is zero after the bit is inverted and folds into the colons.
        {std::string("\x02\x00\x22\x33\x44\x55", 6), "020022334455", "22ff:fe33:4455",
         "fe80::22ff:fe33:4455"},
        {std::string("\x02\x00\x00\x33\x44\x55", 6), "020000334455", "ff:fe33:4455", "fe80::ff:fe33:4455"},
        {std::string("\x02\x00\xFF\x33\x44\x55", 6), "0200FF334455", "ffff:254.51.68.85",
         "fe80::ffff:fe33:4455"},
    };
    for (const auto& [mac, mac_text, eui64, link_local] : cases) {
        kernel.datagrams[{RTM_GETLINK, AF_INET6}] = {link_message(mac) + done_message()};
        EXPECT_STREQ(quarn_get_mac_addr().get(), mac_text);
        EXPECT_STREQ(quarn_get_eui64().get(), eui64);
        const std::string text = quarn_get_ipv6_linklocal().get();
        EXPECT_EQ(text, "fe80::" + std::string(eui64) + "/64");
        EXPECT_EQ(address_bytes(text.substr(0, text.find('/')).c_str()), address_bytes(link_local));
    }
}

TEST_F(netlink, only_a_hardware_address_of_six_bytes_counts)
{
    ifinfomsg header{};
    header.ifi_index = ETH0_INDEX;
    const std::string others = attribute(IFLA_ADDRESS, "12345678") + attribute(IFLA_BROADCAST, "123456");
    EXPECT_EQ(made_by(mac_addr_callback, netlink_message(RTM_NEWLINK, header, others)), Texts());
    EXPECT_EQ(made_by(mac_addr_callback, netlink_message(RTM_NEWLINK, header,
                                                         others + attribute(IFLA_ADDRESS, MAC) +
                                                             attribute(IFLA_ADDRESS, "123456"))),
              Texts{"001122334455 0"});
}

TEST_F(netlink, without_a_hardware_address_there_is_no_mac_and_no_eui64)
{
    EXPECT_EQ(quarn_get_mac_addr(), nullptr);
    EXPECT_EQ(take_log(), (Log{"<4>get_netlink_info: no data returned",
                               "<2>quarn_get_mac_addr:LINE: unable to retrieve mac address"}));
    EXPECT_EQ(quarn_get_ipv6_linklocal(), nullptr);
    EXPECT_EQ(take_log(), (Log{"<4>get_netlink_info: no data returned",
                               "<2>quarn_get_eui64:LINE: unable to retrieve EUI-64",
                               "<2>quarn_get_ipv6_linklocal:LINE: unable to retrieve link local address"}));
}

TEST_F(netlink, the_link_local_address_stays_among_the_ipv6_addresses)
{
    kernel.datagrams[{RTM_GETLINK, AF_INET6}] = {link_message(MAC) + done_message()};
    kernel.set_addresses(
        AF_INET6, {address_message("2001:db8::1", 64), address_message("fe80::211:22ff:fe33:4455", 64)});
    const Texts both{"fe80::211:22ff:fe33:4455 64", "2001:db8::1 64"};
    EXPECT_EQ(records(quarn_get_ipv6_addrs(LinkLocal::LEFT_OUT).get()), both);
    EXPECT_EQ(records(quarn_get_ipv6_addrs(LinkLocal::INCLUDED).get()), both);
}

TEST_F(netlink, the_difference_holds_what_the_first_list_has_not)
{
    const auto difference = [](const std::vector<const char*>& a, const std::vector<const char*>& b) {
        return queued(ipv6_list_difference(list_of(a).get(), list_of(b).get()));
    };
    EXPECT_EQ(difference({}, {"2001:db8::2", "2001:db8::1"}), (Texts{"2001:db8::2", "2001:db8::1"}));
    EXPECT_EQ(difference({"2001:db8::1"}, {}), Texts());
    EXPECT_EQ(difference({"2001:db8::1", "fe80::1"}, {"fe80::2", "2001:db8:0::1", "fe80::3"}),
              (Texts{"fe80::2", "fe80::3"}));
    EXPECT_EQ(difference({"not an address"}, {"not an address"}), Texts{"not an address"});
}

TEST_F(netlink, an_nfs_root_is_seen_in_the_first_255_bytes_of_the_command_line)
{
    const std::string root = "root=/dev/nfs";
    const std::pair<std::string, bool> cases[] = {
        {"console=ttyS0 " + root + " ip=dhcp\n", true},
        {"root=/dev/mmcblk0p2\n", false},
        {std::string(255 - root.size(), 'x') + root, true},
        {std::string(256 - root.size(), 'x') + root, false},
        {std::string(300, 'x') + " " + root, false},
    };
    for (const auto& [text, expected] : cases) {
        kernel.command_line = text;
        EXPECT_EQ(is_nfs_mounted(), expected) << text;
    }
    EXPECT_EQ(take_log(), Log());
}

TEST_F(netlink, without_a_command_line_there_is_no_nfs_root)
{
    kernel.command_line.reset();
    EXPECT_FALSE(is_nfs_mounted());
    EXPECT_EQ(take_log(), Log{"<3>is_nfs_mounted: Couldn't read /proc/cmdline, assuming not NFS mounted"});
}
