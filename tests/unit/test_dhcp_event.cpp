#include "api/json_response.h"
#include "api/setting_request.h"
#include "api/verify_settings.h"
#include "lease_items.h"
#include "lease_requests.h"
#include "support.h"

namespace {

constexpr char CLIENT[] = "100:5000";
constexpr char NEXT_CLIENT[] = "101:6000";

constexpr char LOST_IPV4[] =
    R"({"[IPv4/DHCP]Address":null,"[IPv4/DHCP]Gateways":[],"[DNS/IPv4/DHCP]Servers":[],)"
    R"("[DNS/IPv4/DHCP]Search":[],"[NTP/IPv4/DHCP]Servers":[]})";
constexpr char GONE_IPV6[] = R"({"[IPv6/Stateful]Addresses":[],"[DNS/IPv6/DHCP]Servers":[],)"
                             R"("[DNS/IPv6/DHCP]Search":[],"[NTP/IPv6/DHCP]Servers":[]})";

const Variables LEASE = {
    {"interface", "eth0"},
    {"ip", "10.1.2.3"},
    {"subnet", "255.255.255.0"},
    {"mask", "24"},
    {"router", "10.1.2.1"},
    {"dns", "10.1.2.53 10.1.2.54"},
    {"domain", "lan.example.org"},
    {"ntpsrv", "10.1.2.123"},
    {"lease", "120"},
    {"serverid", "10.1.2.1"},
    {"broadcast", "10.1.2.255"},
};
constexpr char LEASE_REQUEST[] =
    R"({"[IPv4/DHCP]Address":"10.1.2.3","[IPv4/DHCP]Netmask":24,"[IPv4/DHCP]Gateways":[],)"
    R"("[IPv4/DHCP]Gateways":["10.1.2.1"],"[DNS/IPv4/DHCP]Servers":["10.1.2.53","10.1.2.54"],)"
    R"("[DNS/IPv4/DHCP]Search":["lan.example.org"],"[NTP/IPv4/DHCP]Servers":["10.1.2.123"]})";
constexpr char SAME_LEASE_REQUEST[] =
    R"({"[IPv4/DHCP]Address":"10.1.2.3","[IPv4/DHCP]Netmask":24,)"
    R"("[IPv4/DHCP]Gateways":["10.1.2.1"],"[DNS/IPv4/DHCP]Servers":["10.1.2.53","10.1.2.54"],)"
    R"("[DNS/IPv4/DHCP]Search":["lan.example.org"],"[NTP/IPv4/DHCP]Servers":["10.1.2.123"]})";

const Variables LEASE6 = {
    {"interface", "eth0"},
    {"reason", "BOUND6"},
    {"new_ip6_address", "2001:db8::100"},
    {"new_ip6_prefixlen", "64"},
    {"new_dhcp6_name_servers", "2001:db8::53 fe80::1"},
    {"new_dhcp6_domain_search", "example.org. lab.example.org."},
    {"new_dhcp6_sntp_servers", "2001:db8::123"},
};

std::string lease6_request(const char* addresses)
{
    return std::string(R"({"[IPv6/Stateful]Addresses":)") + addresses +
           R"(,"[DNS/IPv6/DHCP]Servers":["2001:db8::53","fe80::1"],)"
           R"("[DNS/IPv6/DHCP]Search":["example.org","lab.example.org"],)"
           R"("[NTP/IPv6/DHCP]Servers":["2001:db8::123"]})";
}

Variables with(Variables variables, std::initializer_list<std::pair<const char*, std::string>> changes)
{
    for (const auto& [name, value] : changes)
        variables[name] = value;
    return variables;
}

std::string repeated(const char* item, int count)
{
    std::string list;
    for (int i = 0; i < count; i++)
        list += std::string(i == 0 ? "" : " ") + item;
    return list;
}

// The members of a lease's request for one list, all else as it is in LEASE.
std::string member(const OwnedJson& request, const char* key)
{
    const cJSON* found = nullptr;
    const cJSON* item = nullptr;
    cJSON_ArrayForEach(item, request.get())
    {
        if (std::string_view(item->string) == key)
            found = item;
    }
    return found != nullptr ? print(found) : "(none)";
}

} // namespace

class udhcpc_events : public QuarnTest {
protected:
    // The request's text after an event; "(nothing)" where there is none. What is reported counts as the last
    // report.
    std::string after(const char* event, const Variables& variables, const char* client = CLIENT)
    {
        LastReport report = udhcpc_report(event, variables, client, last);
        if (!report.request)
            return "(nothing)";
        last = std::move(report);
        return print(last.request.get());
    }
    std::string list_of(const char* key, const Variables& variables)
    {
        return member(udhcpc_report("bound", variables, CLIENT, last).request, key);
    }

    LastReport last;
    const Variables no_lease = {{"interface", "eth0"}};
};

TEST_F(udhcpc_events, a_new_lease_is_one_request_that_empties_the_gateways_first)
{
    EXPECT_EQ(after("bound", LEASE), LEASE_REQUEST);
}

TEST_F(udhcpc_events, a_renewal_of_the_same_lease_leaves_the_gateways_alone)
{
    after("bound", LEASE);
    EXPECT_EQ(after("renew", LEASE), SAME_LEASE_REQUEST);
    EXPECT_EQ(after("renew", LEASE), SAME_LEASE_REQUEST);
}

TEST_F(udhcpc_events, the_next_client_with_the_same_lease_leaves_the_gateways_alone)
{
    after("bound", LEASE);
    EXPECT_EQ(after("deconfig", no_lease, NEXT_CLIENT), "(nothing)");
    EXPECT_EQ(after("bound", LEASE, NEXT_CLIENT), SAME_LEASE_REQUEST);
}

TEST_F(udhcpc_events, another_address_or_netmask_empties_the_gateways_first)
{
    after("bound", LEASE);
    EXPECT_EQ(after("renew", with(LEASE, {{"ip", "10.1.2.4"}})),
              R"({"[IPv4/DHCP]Address":"10.1.2.4","[IPv4/DHCP]Netmask":24,"[IPv4/DHCP]Gateways":[],)"
              R"("[IPv4/DHCP]Gateways":["10.1.2.1"],"[DNS/IPv4/DHCP]Servers":["10.1.2.53","10.1.2.54"],)"
              R"("[DNS/IPv4/DHCP]Search":["lan.example.org"],"[NTP/IPv4/DHCP]Servers":["10.1.2.123"]})");
    EXPECT_EQ(after("renew", with(LEASE, {{"ip", "10.1.2.4"}, {"subnet", "255.255.0.0"}})),
              R"({"[IPv4/DHCP]Address":"10.1.2.4","[IPv4/DHCP]Netmask":16,"[IPv4/DHCP]Gateways":[],)"
              R"("[IPv4/DHCP]Gateways":["10.1.2.1"],"[DNS/IPv4/DHCP]Servers":["10.1.2.53","10.1.2.54"],)"
              R"("[DNS/IPv4/DHCP]Search":["lan.example.org"],"[NTP/IPv4/DHCP]Servers":["10.1.2.123"]})");
}

TEST_F(udhcpc_events, a_lease_without_options_empties_the_lists)
{
    EXPECT_EQ(after("bound", {{"interface", "eth0"}, {"ip", "10.1.2.3"}, {"subnet", "255.255.255.0"}}),
              R"({"[IPv4/DHCP]Address":"10.1.2.3","[IPv4/DHCP]Netmask":24,"[IPv4/DHCP]Gateways":[],)"
              R"("[IPv4/DHCP]Gateways":[],"[DNS/IPv4/DHCP]Servers":[],"[DNS/IPv4/DHCP]Search":[],)"
              R"("[NTP/IPv4/DHCP]Servers":[]})");
}

TEST_F(udhcpc_events, the_first_deconfig_of_a_client_changes_nothing)
{
    EXPECT_EQ(after("deconfig", no_lease), "(nothing)");
}

TEST_F(udhcpc_events, a_deconfig_of_the_client_that_has_the_lease_is_a_lost_lease)
{
    after("bound", LEASE);
    EXPECT_EQ(after("deconfig", no_lease), LOST_IPV4);
}

TEST_F(udhcpc_events, a_lease_is_lost_only_once_and_its_return_empties_the_gateways_first)
{
    after("bound", LEASE);
    after("deconfig", no_lease);
    EXPECT_EQ(after("deconfig", no_lease), "(nothing)");
    EXPECT_EQ(after("leasefail", no_lease), "(nothing)");
    EXPECT_EQ(after("bound", LEASE), LEASE_REQUEST);
}

TEST_F(udhcpc_events, a_client_that_finds_no_server_loses_the_lease_of_the_one_before)
{
    after("bound", LEASE);
    EXPECT_EQ(after("deconfig", no_lease, NEXT_CLIENT), "(nothing)");
    EXPECT_EQ(after("leasefail", no_lease, NEXT_CLIENT), LOST_IPV4);
}

TEST_F(udhcpc_events, no_server_without_a_lease_changes_nothing)
{
    EXPECT_EQ(after("leasefail", no_lease), "(nothing)");
}

TEST_F(udhcpc_events, a_refusal_by_itself_changes_nothing)
{
    after("bound", LEASE);
    EXPECT_EQ(after("nak", no_lease), "(nothing)");
}

TEST_F(udhcpc_events, other_interfaces_and_unknown_events_change_nothing)
{
    EXPECT_EQ(after("bound", with(LEASE, {{"interface", "eth1"}})), "(nothing)");
    Variables without_interface = LEASE;
    without_interface.erase("interface");
    EXPECT_EQ(after("bound", without_interface), "(nothing)");
    EXPECT_EQ(after("", LEASE), "(nothing)");
    EXPECT_EQ(after("BOUND", LEASE), "(nothing)");
}

TEST_F(udhcpc_events, a_lease_without_a_usable_netmask_takes_its_class_s)
{
    const std::pair<const char*, const char*> classes[] = {
        {"10.1.2.3", "8"}, {"126.1.2.3", "8"}, {"128.1.2.3", "16"}, {"191.1.2.3", "16"}, {"192.1.2.3", "24"}};
    for (const auto& [address, length] : classes) {
        for (const char* netmask : {"", "0.0.0.0", "255.255.255.255", "255.0.255.0", "24", "255.255.0.0\n"})
            EXPECT_EQ(list_of("[IPv4/DHCP]Netmask", with(LEASE, {{"ip", address}, {"subnet", netmask}})),
                      length)
                << address << " " << netmask;
    }
    take_log();
    list_of("[IPv4/DHCP]Netmask", with(LEASE, {{"subnet", "0.0.0.0"}}));
    EXPECT_EQ(take_log(), std::vector<std::string>{"<4>prefix_length_of: The lease has no usable netmask "
                                                   "('0.0.0.0'). Using /8"});
}

TEST_F(udhcpc_events, an_address_that_no_host_may_have_is_no_lease)
{
    for (const char* address :
         {"", "0.0.0.0", "0.1.2.3", "127.0.0.1", "224.0.0.1", "239.255.255.255", "240.0.0.1",
          "255.255.255.255", "10.1.2.0", "10.1.2.255", "10.1.2.3;reboot", "10.1.2.3\n", "$(reboot)"}) {
        take_log();
        EXPECT_EQ(after("bound", with(LEASE, {{"ip", address}})), "(nothing)") << address;
        EXPECT_EQ(take_log().size(), 1U) << address;
    }
}

TEST_F(udhcpc_events, a_renewal_to_an_address_that_no_host_may_have_is_a_lost_lease)
{
    after("bound", LEASE);
    EXPECT_EQ(after("renew", with(LEASE, {{"ip", "127.0.0.1"}})), LOST_IPV4);
}

TEST_F(udhcpc_events, both_addresses_of_a_network_of_two_may_be_leased)
{
    for (const char* address : {"10.1.2.0", "10.1.2.1"})
        EXPECT_EQ(
            list_of("[IPv4/DHCP]Address", with(LEASE, {{"ip", address}, {"subnet", "255.255.255.254"}})),
            "\"" + std::string(address) + "\"");
}

TEST_F(udhcpc_events, gateways_and_servers_that_no_host_may_be_are_left_out_one_by_one)
{
    const std::string hostile = "127.0.0.1 10.1.2.1 224.0.0.1 0.0.0.0 10.1.2.2; 10.1.2.3\n10.1.2.4 10.1.2.2";
    const Variables variables = with(LEASE, {{"router", hostile}, {"dns", hostile}, {"ntpsrv", hostile}});
    take_log();
    EXPECT_EQ(after("bound", variables),
              R"({"[IPv4/DHCP]Address":"10.1.2.3","[IPv4/DHCP]Netmask":24,"[IPv4/DHCP]Gateways":[],)"
              R"("[IPv4/DHCP]Gateways":["10.1.2.1","10.1.2.2"],)"
              R"("[DNS/IPv4/DHCP]Servers":["10.1.2.1","10.1.2.2"],)"
              R"("[DNS/IPv4/DHCP]Search":["lan.example.org"],)"
              R"("[NTP/IPv4/DHCP]Servers":["10.1.2.1","10.1.2.2"]})");
    const std::vector<std::string> log = take_log();
    ASSERT_EQ(log.size(), 15U);
    EXPECT_EQ(log[0], "<4>log_dropped: Dropping '127.0.0.1' from the DHCP DNS servers: not usable");
    EXPECT_EQ(log[4],
              "<4>log_dropped: Dropping '10.1.2.3\\x0a10.1.2.4' from the DHCP DNS servers: not usable");
}

TEST_F(udhcpc_events, dns_servers_are_not_counted)
{
    std::string expected = "[";
    for (int i = 0; i < 200; i++)
        expected += i == 0 ? "\"10.1.2.53\"" : ",\"10.1.2.53\"";
    EXPECT_EQ(list_of("[DNS/IPv4/DHCP]Servers", with(LEASE, {{"dns", repeated("10.1.2.53", 200)}})),
              expected + "]");
}

TEST_F(udhcpc_events, seven_ntp_servers_are_kept)
{
    EXPECT_EQ(list_of("[NTP/IPv4/DHCP]Servers", with(LEASE, {{"ntpsrv", repeated("10.1.2.9", 8)}})),
              R"(["10.1.2.9","10.1.2.9","10.1.2.9","10.1.2.9","10.1.2.9","10.1.2.9","10.1.2.9"])");
}

TEST_F(udhcpc_events, the_search_list_comes_before_the_domain)
{
    EXPECT_EQ(list_of("[DNS/IPv4/DHCP]Search", with(LEASE, {{"search", "a.example. b.example"}})),
              R"(["a.example","b.example"])");
}

TEST_F(udhcpc_events, the_domain_stands_in_for_a_search_list_of_which_nothing_is_usable)
{
    EXPECT_EQ(list_of("[DNS/IPv4/DHCP]Search", with(LEASE, {{"search", "$(reboot) a'b \"x"}})),
              R"(["lan.example.org"])");
}

TEST_F(udhcpc_events, hostile_search_domains_are_left_out_one_by_one)
{
    const std::string hostile = "good.example $(reboot) a.example\nnameserver `id` 'q' x..y -a. 10.1.2.3 "
                                "host:b.example \xff\xfe last.example.";
    EXPECT_EQ(list_of("[DNS/IPv4/DHCP]Search", with(LEASE, {{"search", hostile}})),
              R"(["good.example","last.example"])");
}

TEST_F(udhcpc_events, what_udhcpc_writes_for_a_hostile_domain_is_no_domain)
{
    EXPECT_EQ(list_of("[DNS/IPv4/DHCP]Search", with(LEASE, {{"domain", "bad"}})), "[]");
}

TEST_F(udhcpc_events, six_search_domains_of_248_bytes_together_are_kept)
{
    EXPECT_EQ(list_of("[DNS/IPv4/DHCP]Search", with(LEASE, {{"search", repeated("a.example", 7)}})),
              R"(["a.example","a.example","a.example","a.example","a.example","a.example"])");
    const std::string long_name(62, 'a');
    const std::string rest(63, 'b');
    // 62 + 62 + 62 + 62 = 248: what would be one byte more is left out, what fits is kept.
    EXPECT_EQ(list_of("[DNS/IPv4/DHCP]Search", with(LEASE, {{"search", repeated(long_name.c_str(), 3) + " " +
                                                                           rest + " " + long_name + " c"}})),
              R"([")" + long_name + R"(",")" + long_name + R"(",")" + long_name + R"(",")" + long_name +
                  R"("])");
}

TEST_F(udhcpc_events, a_dropped_text_is_quoted_only_by_its_beginning)
{
    take_log();
    list_of("[DNS/IPv4/DHCP]Search", with(LEASE, {{"search", std::string(100'000, 'x')}}));
    EXPECT_EQ(take_log(), std::vector<std::string>{"<4>log_dropped: Dropping '" + std::string(64, 'x') +
                                                   "' from the DHCP search list: not usable"});
}

TEST_F(udhcpc_events, a_last_report_of_another_form_counts_as_none)
{
    last = {CLIENT, json(R"({"[IPv4/DHCP]Address":17,"[IPv4/DHCP]Netmask":"x"})")};
    EXPECT_EQ(after("bound", LEASE), LEASE_REQUEST);
    last = {CLIENT, json(R"({"[IPv4/DHCP]Address":"10.1.2.3"})")};
    EXPECT_EQ(after("bound", LEASE), LEASE_REQUEST);
}

class dhclient_events : public QuarnTest {
protected:
    std::string after(const Variables& variables, const char* client = CLIENT)
    {
        LastReport report = dhclient_report(variables, client, last);
        if (!report.request)
            return "(nothing)";
        last = std::move(report);
        return print(last.request.get());
    }
    std::string after(const char* reason, const char* old_address)
    {
        return after({{"interface", "eth0"}, {"reason", reason}, {"old_ip6_address", old_address}});
    }

    LastReport last;
};

TEST_F(dhclient_events, bound_renew_and_rebind_report_all_without_trailing_dots)
{
    for (const char* reason : {"BOUND6", "RENEW6", "REBIND6"})
        EXPECT_EQ(after(with(LEASE6, {{"reason", reason}})), lease6_request(R"(["2001:db8::100/64"])"))
            << reason;
}

TEST_F(dhclient_events, the_addresses_of_one_lease_are_gathered)
{
    after(LEASE6);
    EXPECT_EQ(after(with(LEASE6, {{"new_ip6_address", "2001:db8::101"}})),
              lease6_request(R"(["2001:db8::100/64","2001:db8::101/64"])"));
}

TEST_F(dhclient_events, an_address_that_a_renewal_passes_over_stays_beside_the_new_one_until_it_expires)
{
    constexpr char BOTH[] = R"(["2001:db8::100/64","2001:db8::200/64"])";
    after(LEASE6);
    for (int renewal = 0; renewal < 3; renewal++) {
        const Variables kept = with(LEASE6, {{"reason", "RENEW6"}});
        const Variables added = with(kept, {{"new_ip6_address", "2001:db8::200"}});
        EXPECT_EQ(after(kept), lease6_request(renewal == 0 ? R"(["2001:db8::100/64"])" : BOTH));
        EXPECT_EQ(after(added), lease6_request(BOTH));
    }
    EXPECT_EQ(after("EXPIRE6", "2001:db8::100"), lease6_request(R"(["2001:db8::200/64"])"));
}

TEST_F(dhclient_events, a_new_client_has_none_of_the_addresses_of_the_one_before)
{
    after(LEASE6);
    after(with(LEASE6, {{"new_ip6_address", "2001:db8::101"}}));
    EXPECT_EQ(after(with(LEASE6, {{"new_ip6_address", "2001:db8::101"}}), NEXT_CLIENT),
              lease6_request(R"(["2001:db8::101/64"])"));
}

TEST_F(dhclient_events, an_expired_address_is_taken_out_and_with_the_last_one_all_is_gone)
{
    after(LEASE6);
    after(with(LEASE6, {{"new_ip6_address", "2001:db8::10"}}));
    EXPECT_EQ(after("EXPIRE6", "2001:db8::100"), lease6_request(R"(["2001:db8::10/64"])"));
    EXPECT_EQ(after("EXPIRE6", "2001:db8::10"), GONE_IPV6);
}

TEST_F(dhclient_events, release_and_stop_take_all_away)
{
    for (const char* reason : {"RELEASE6", "STOP6"}) {
        after(LEASE6);
        after(with(LEASE6, {{"new_ip6_address", "2001:db8::101"}}));
        EXPECT_EQ(after(reason, "2001:db8::100"), GONE_IPV6) << reason;
    }
}

TEST_F(dhclient_events, preinit_deprecation_and_ipv4_change_nothing)
{
    for (const char* reason : {"PREINIT6", "DEPREF6", "BOUND", "FAIL", ""})
        EXPECT_EQ(after(with(LEASE6, {{"reason", reason}})), "(nothing)") << reason;
    EXPECT_EQ(after(with(LEASE6, {{"interface", "eth1"}})), "(nothing)");
}

TEST_F(dhclient_events, an_answer_without_an_address_still_brings_its_servers)
{
    EXPECT_EQ(after(with(LEASE6, {{"new_ip6_address", ""}})), lease6_request("[]"));
}

TEST_F(dhclient_events, an_address_that_no_host_may_be_leased_is_left_out)
{
    for (const char* address : {"::", "::1", "ff02::1", "fe80::1", "::ffff:10.1.2.3", "10.1.2.3", "x",
                                "2001:db8::1/64", "2001:db8::1;reboot"}) {
        take_log();
        EXPECT_EQ(after(with(LEASE6, {{"new_ip6_address", address}})), lease6_request("[]")) << address;
        EXPECT_EQ(take_log().size(), 1U) << address;
    }
}

TEST_F(dhclient_events, an_address_without_a_usable_prefix_length_stands_alone)
{
    for (const char* length : {"", "0", "129", "064", "64.5", "-1", "64 "}) {
        last = {};
        EXPECT_EQ(after(with(LEASE6, {{"new_ip6_prefixlen", length}})),
                  lease6_request(R"(["2001:db8::100/128"])"))
            << length;
    }
}

TEST_F(dhclient_events, sixteen_addresses_are_kept)
{
    std::string report;
    for (int i = 0; i < 17; i++)
        report = after(with(LEASE6, {{"new_ip6_address", "2001:db8::" + std::to_string(10 + i)}}));
    EXPECT_EQ(
        cJSON_GetArraySize(cJSON_GetObjectItemCaseSensitive(last.request.get(), "[IPv6/Stateful]Addresses")),
        16);
    EXPECT_EQ(report.find("2001:db8::26"), std::string::npos);
    EXPECT_NE(report.find("2001:db8::25"), std::string::npos);
}

TEST_F(dhclient_events, hostile_servers_and_domains_are_left_out_one_by_one)
{
    const Variables hostile =
        with(LEASE6, {{"new_dhcp6_name_servers", ":: ::1 2001:db8::1 ff02::1 10.1.2.3 2001:db8::2%eth0 "
                                                 "2001:db8::3 2001:db8::4 2001:db8::5"},
                      {"new_dhcp6_domain_search", "a.example. $(reboot). . .. b.example."},
                      {"new_dhcp6_sntp_servers", "::1 2001:db8::7 ntp.example 'x' ff05::101"}});
    EXPECT_EQ(after(hostile), R"({"[IPv6/Stateful]Addresses":["2001:db8::100/64"],)"
                              R"("[DNS/IPv6/DHCP]Servers":["2001:db8::1","2001:db8::3","2001:db8::4"],)"
                              R"("[DNS/IPv6/DHCP]Search":["a.example","b.example"],)"
                              R"("[NTP/IPv6/DHCP]Servers":["2001:db8::7","ntp.example"]})");
}

class router_advertisements : public QuarnTest {
protected:
    static std::string after(std::string_view resolv_conf)
    {
        return print(router_advertisement_request(resolv_conf).get());
    }
};

TEST_F(router_advertisements, servers_lose_their_interface_and_domains_their_dots)
{
    EXPECT_EQ(after("search example.org lab.example.org.\nnameserver 2001:db8::53\n"
                    "nameserver fe80::1%eth0\n"),
              R"({"[DNS/IPv6/Discovery]Servers":["2001:db8::53","fe80::1"],)"
              R"("[DNS/IPv6/Discovery]Search":["example.org","lab.example.org"]})");
}

TEST_F(router_advertisements, no_advertisement_empties_the_lists)
{
    for (const char* content : {"", "\n", "# nameserver 2001:db8::1\n", "nameserver\nsearch\n"})
        EXPECT_EQ(after(content), R"({"[DNS/IPv6/Discovery]Servers":[],"[DNS/IPv6/Discovery]Search":[]})")
            << content;
}

TEST_F(router_advertisements, hostile_items_are_left_out_and_three_servers_are_kept)
{
    EXPECT_EQ(after("nameserver ::1\nnameserver ff02::1%eth0\nnameserver 2001:db8::1;reboot\n"
                    "nameserver 2001:db8::1\nnameserver fe80::2%eth1\nnameserver 2001:db8::2\n"
                    "nameserver 2001:db8::3\nnameserver 2001:db8::4\n"
                    "search a.example\tb.example $(reboot) \xff\noptions x\n"),
              R"({"[DNS/IPv6/Discovery]Servers":["2001:db8::1","2001:db8::2","2001:db8::3"],)"
              R"("[DNS/IPv6/Discovery]Search":["a.example","b.example"]})");
}

class lease_requests : public QuarnTest {
protected:
    static std::string answer_to(const OwnedJson& request)
    {
        const std::string text = print(request.get());
        const std::unique_ptr<JsonResponse> response = json_response_new();
        const auto parsed = json_set_request_new(text.c_str(), response.get());
        const bool accepted = parsed && verify_settings(parsed.get(), response.get());
        return (accepted ? "" : "refused: ") + std::string(json_response_print(*response).get());
    }
};

TEST_F(lease_requests, are_accepted_by_the_daemon_whole)
{
    constexpr char ACCEPTED[] = R"({"success":false,"errors":[]})";
    const Variables odd = with(LEASE, {{"search", "a_b.example A-1"}, {"ntpsrv", "10.9.9.9 ntp.example"}});
    LastReport lease = udhcpc_report("bound", odd, CLIENT, {});
    EXPECT_EQ(answer_to(lease.request), ACCEPTED);
    EXPECT_EQ(answer_to(udhcpc_report("leasefail", odd, CLIENT, lease).request), ACCEPTED);
    EXPECT_EQ(answer_to(dhclient_report(LEASE6, CLIENT, {}).request), ACCEPTED);
    EXPECT_EQ(answer_to(dhclient_report(with(LEASE6, {{"reason", "STOP6"}}), CLIENT, {}).request), ACCEPTED);
    EXPECT_EQ(answer_to(router_advertisement_request("nameserver fe80::1%eth0\nsearch a.example.\n")),
              ACCEPTED);
}
