#include "net/routes.h"
#include "scripted_kernel.h"
#include "settings/setting_store.h"
#include "support.h"

#include <sys/socket.h>

namespace {

using Log = std::vector<std::string>;
using Commands = std::vector<std::string>;

const std::string REMOVE_COMMAND =
    "while /sbin/route del default gw 0.0.0.0 dev eth0 2>/dev/null ; do : ; done";
const std::string MULTICAST_COMMAND =
    "if ! /sbin/route | grep 224.0.0.0 >/dev/null ; then  /sbin/route add -net 224.0.0.0 "
    "netmask 240.0.0.0 dev eth0 ; fi";
constexpr char GATEWAYS[] = "[IPv4/Manual]Gateways";
constexpr char DEFAULT_GATEWAY[] = "[IPv4/Manual]DefaultGateway";

std::string add_command(const std::string& gateway)
{
    return "/sbin/route add default gw " + gateway + " eth0 2>/dev/null";
}

std::string ipv6_command(const std::string& action, const std::string& gateway)
{
    return "/sbin/route -A inet6 " + action + " default gw " + gateway + " eth0 2>/dev/null";
}

class routes : public QuarnTest {
protected:
    void SetUp() override
    {
        QuarnTest::SetUp();
        hold("[IPv4/DHCP]Enabled", "false");
    }
    // Under the row's own key, past its saver.
    void hold(const char* key, const char* json_text)
    {
        ASSERT_TRUE(save_or_hold_setting(setting(key, json_text).get(), Keep::HELD, Unchanged::WRITTEN));
        take_log();
    }
    void set_manual_gateways(const char* first, const char* rest)
    {
        hold("[IPv4/Manual]Address", R"("10.0.0.5")");
        hold(DEFAULT_GATEWAY, first);
        hold(GATEWAYS, rest);
    }
    bool save(const char* json_text) { return save_manual_v4_gws(setting(GATEWAYS, json_text).get()); }
    // What is stored under the row's own key.
    static std::string remainder()
    {
        OwnedJson value;
        return read_setting(find_setting(GATEWAYS), value) ? print(value.get()) : "(none)";
    }
};

class ipv6_gateways : public QuarnTest {
protected:
    // Each route with its protocol, and the gateway that it goes through.
    void set_kernel_gateways(const std::vector<std::pair<unsigned char, std::string>>& gateways)
    {
        std::string datagram;
        for (const auto& [protocol, address] : gateways) {
            rtmsg header{};
            header.rtm_family = AF_INET6;
            header.rtm_protocol = protocol;
            header.rtm_type = RTN_UNICAST;
            datagram +=
                netlink_message(RTM_NEWROUTE, header, attribute(RTA_GATEWAY, address_bytes(address.c_str())));
        }
        kernel.datagrams[{RTM_GETROUTE, AF_INET6}] = {datagram + done_message()};
    }
    void set_manual_gateways(const char* json_text)
    {
        hold_setting(setting("[IPv6/Manual]Gateways", json_text).get());
        take_log();
    }
    ScriptedKernel kernel;
};

} // namespace

// The multicast route

TEST_F(routes, the_multicast_route_is_added_where_there_is_none)
{
    add_multicast_route();
    EXPECT_EQ(recorded_shell.commands, std::vector{MULTICAST_COMMAND});
    EXPECT_EQ(take_log(), Log{"<7>add_multicast_route:LINE: Added multicast route"});
}

TEST_F(routes, a_multicast_route_that_cannot_be_added_is_logged)
{
    recorded_shell.statuses = {{"224.0.0.0", 7}};
    add_multicast_route();
    EXPECT_EQ(recorded_shell.commands, std::vector{MULTICAST_COMMAND});
    EXPECT_EQ(take_log(), Log{"<5>add_multicast_route: System call '" + MULTICAST_COMMAND + "' returned 7"});
}

// The IPv4 default gateways

TEST_F(routes, the_manual_gateways_replace_what_is_there_in_list_order)
{
    set_manual_gateways(R"("10.0.0.1")", R"(["10.0.0.2"])");
    EXPECT_TRUE(set_ipv4_routes());
    EXPECT_EQ(recorded_shell.commands, (Commands{REMOVE_COMMAND, MULTICAST_COMMAND, add_command("10.0.0.1"),
                                                 add_command("10.0.0.2")}));
    EXPECT_EQ(take_log(),
              (Log{"<7>remove_ipv4_routes:LINE: Removed all IPv4 routes",
                   "<7>add_multicast_route:LINE: Added multicast route",
                   "<6>add_ipv4_gateway: Added 10.0.0.1 as a gateway with '" + add_command("10.0.0.1") + "'",
                   "QUARN: Added 10.0.0.1 as IPv4 default gateway",
                   "<5>add_ipv4_gateway: Console Output: Added 10.0.0.1 as IPv4 default gateway",
                   "<6>add_ipv4_gateway: Added 10.0.0.2 as a gateway with '" + add_command("10.0.0.2") + "'",
                   "QUARN: Added 10.0.0.2 as IPv4 default gateway",
                   "<5>add_ipv4_gateway: Console Output: Added 10.0.0.2 as IPv4 default gateway"}));
}

TEST_F(routes, of_three_manual_gateways_only_the_second_that_cannot_be_added_is_missing)
{
    set_manual_gateways(R"("10.0.0.1")", R"(["10.9.9.9", "10.0.0.3"])");
    recorded_shell.statuses = {{"10.9.9.9", 7}};
    EXPECT_TRUE(set_ipv4_routes());
    EXPECT_EQ(recorded_shell.commands, (Commands{REMOVE_COMMAND, MULTICAST_COMMAND, add_command("10.0.0.1"),
                                                 add_command("10.9.9.9"), add_command("10.0.0.3")}));
    EXPECT_EQ(take_important_log(),
              (Log{"QUARN: Added 10.0.0.1 as IPv4 default gateway",
                   "<5>add_ipv4_gateway: Console Output: Added 10.0.0.1 as IPv4 default gateway",
                   "<4>add_ipv4_gateway: System call to add 10.9.9.9 gateway failed",
                   "<5>set_ipv4_routes: Failed at adding 1-th gateway 10.9.9.9 set manually",
                   "QUARN: Added 10.0.0.3 as IPv4 default gateway",
                   "<5>add_ipv4_gateway: Console Output: Added 10.0.0.3 as IPv4 default gateway"}));
}

TEST_F(routes, with_dhcp_enabled_and_no_lease_no_route_command_runs)
{
    set_manual_gateways(R"("10.0.0.1")", "[]");
    hold("[IPv4/DHCP]Enabled", "true");
    hold("[IPv4/DHCP]Gateways", R"(["10.1.0.1"])");
    EXPECT_TRUE(set_ipv4_routes());
    EXPECT_EQ(recorded_shell.commands, Commands());
    EXPECT_EQ(take_log(), Log());
}

TEST_F(routes, a_lease_brings_its_own_gateways)
{
    set_manual_gateways(R"("10.0.0.1")", "[]");
    hold("[IPv4/DHCP]Enabled", "true");
    hold("[IPv4/DHCP]Address", R"("10.1.2.3")");
    hold("[IPv4/DHCP]Gateways", R"(["10.1.0.1"])");
    recorded_shell.statuses = {{"10.1.0.1", 7}};
    EXPECT_TRUE(set_ipv4_routes());
    EXPECT_EQ(recorded_shell.commands,
              (Commands{REMOVE_COMMAND, MULTICAST_COMMAND, add_command("10.1.0.1")}));
    EXPECT_EQ(take_important_log(),
              (Log{"<4>add_ipv4_gateway: System call to add 10.1.0.1 gateway failed",
                   "<5>set_ipv4_routes: Failed at adding 0-th gateway 10.1.0.1 from dhcp"}));
}

TEST_F(routes, without_gateways_the_old_ones_are_removed_all_the_same)
{
    set_manual_gateways("null", "[]");
    EXPECT_TRUE(set_ipv4_routes());
    EXPECT_EQ(recorded_shell.commands, (Commands{REMOVE_COMMAND, MULTICAST_COMMAND}));
}

TEST_F(routes, routes_that_cannot_be_removed_are_logged_and_the_gateways_added)
{
    set_manual_gateways(R"("10.0.0.1")", "[]");
    recorded_shell.statuses = {{"route del", 127}};
    EXPECT_TRUE(set_ipv4_routes());
    EXPECT_EQ(recorded_shell.commands,
              (Commands{REMOVE_COMMAND, MULTICAST_COMMAND, add_command("10.0.0.1")}));
    EXPECT_EQ(take_important_log(),
              (Log{"<4>remove_ipv4_routes: System call to remove gateways failed. 127",
                   "QUARN: Added 10.0.0.1 as IPv4 default gateway",
                   "<5>add_ipv4_gateway: Console Output: Added 10.0.0.1 as IPv4 default gateway"}));
}

TEST_F(routes, a_gateway_that_is_no_plain_argument_is_never_run)
{
    set_manual_gateways(R"("10.0.0.1")", R"(["10.0.0.2; reboot", "10.0.0.3"])");
    EXPECT_TRUE(set_ipv4_routes());
    EXPECT_EQ(recorded_shell.commands, (Commands{REMOVE_COMMAND, MULTICAST_COMMAND, add_command("10.0.0.1"),
                                                 add_command("10.0.0.3")}));
    const Log log = take_important_log();
    EXPECT_EQ(
        Log(log.begin() + 2, log.begin() + 5),
        (Log{"<3>ShellCommand: Refused to run '/sbin/route add default gw %s eth0 2>/dev/null' with the "
             "value '10.0.0.2; reboot'",
             "<4>add_ipv4_gateway: System call to add 10.0.0.2; reboot gateway failed",
             "<5>set_ipv4_routes: Failed at adding 1-th gateway 10.0.0.2; reboot set manually"}));
}

// The manual IPv4 gateway list

TEST_F(routes, a_list_of_two_is_stored_as_default_gateway_and_remainder_and_read_as_one)
{
    EXPECT_TRUE(save(R"(["10.0.0.1","10.0.0.2"])"));
    EXPECT_EQ(value_of(DEFAULT_GATEWAY), R"("10.0.0.1")");
    EXPECT_EQ(remainder(), R"(["10.0.0.2"])");
    EXPECT_EQ(value_of(GATEWAYS), R"(["10.0.0.1","10.0.0.2"])");
    restart_store();
    EXPECT_EQ(value_of(GATEWAYS), R"(["10.0.0.1","10.0.0.2"])");
}

TEST_F(routes, an_empty_list_is_refused_and_the_stored_gateways_stay)
{
    ASSERT_TRUE(save(R"(["10.0.0.1","10.0.0.2"])"));
    take_log();
    EXPECT_FALSE(save("[]"));
    EXPECT_EQ(take_log(), Log{"<6>save_manual_v4_gws: No manual IPv4 gateways were provided"});
    EXPECT_EQ(value_of(GATEWAYS), R"(["10.0.0.1","10.0.0.2"])");
    EXPECT_EQ(remainder(), R"(["10.0.0.2"])");
}

TEST_F(routes, what_is_no_array_is_refused)
{
    for (const char* json_text : {R"("10.0.0.1")", "null", "{}", "7"}) {
        EXPECT_FALSE(save(json_text));
        EXPECT_EQ(take_log(), Log{"<3>save_manual_v4_gws: Provided JSON object wasn't valid"}) << json_text;
    }
    EXPECT_EQ(value_of(GATEWAYS), "[]");
}

TEST_F(routes, a_first_element_that_is_no_text_leaves_no_default_gateway)
{
    ASSERT_TRUE(save(R"(["10.0.0.1"])"));
    take_log();
    EXPECT_TRUE(save(R"([null,"10.0.0.2"])"));
    EXPECT_EQ(take_important_log(),
              Log{"<4>save_manual_v4_gws: The first element of the manual IPv4 gateways "
                  "array was not a string. It has cJSON type=4"});
    EXPECT_EQ(value_of(DEFAULT_GATEWAY), "null");
    EXPECT_EQ(value_of(GATEWAYS), R"(["10.0.0.2"])");
}

TEST_F(routes, a_shorter_list_takes_the_remainder_away)
{
    ASSERT_TRUE(save(R"(["10.0.0.1","10.0.0.2","10.0.0.3"])"));
    EXPECT_TRUE(save(R"(["10.0.0.1"])"));
    EXPECT_EQ(remainder(), "[]");
    EXPECT_EQ(value_of(GATEWAYS), R"(["10.0.0.1"])");
}

TEST_F(routes, a_remainder_that_equals_the_list_read_so_far_is_stored_all_the_same)
{
    ASSERT_TRUE(save(R"(["10.0.0.1"])"));
    EXPECT_TRUE(save(R"(["10.0.0.1","10.0.0.1"])"));
    EXPECT_EQ(value_of(GATEWAYS), R"(["10.0.0.1","10.0.0.1"])");
}

TEST_F(routes, without_a_default_gateway_the_list_is_its_remainder)
{
    hold(GATEWAYS, R"(["10.0.0.2"])");
    EXPECT_EQ(value_of(GATEWAYS), R"(["10.0.0.2"])");
    EXPECT_EQ(take_log().back(), "<6>read_manual_v4_gws: No primary default gateway found");
}

TEST_F(routes, a_default_gateway_of_another_type_is_logged_and_left_out)
{
    hold(DEFAULT_GATEWAY, "7");
    hold(GATEWAYS, R"(["10.0.0.2"])");
    EXPECT_EQ(value_of(GATEWAYS), R"(["10.0.0.2"])");
    EXPECT_EQ(take_log(), Log{"<3>read_manual_v4_gws: Default gateway wasn't string or null. Was type=8"});
}

TEST_F(routes, a_remainder_that_cannot_be_read_fails_the_list)
{
    hold(DEFAULT_GATEWAY, R"("10.0.0.1")");
    hold(GATEWAYS, R"(["10.0.0.2"])");
    // A framework key that maps to no row: nothing stored, no default.
    const SettingDef lost{"[IPv4/Lost]Gateways", read_setting, nullptr, nullptr, 0, nullptr};
    OwnedJson value;
    EXPECT_FALSE(read_manual_v4_gws(&lost, value));
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(take_important_log(), Log{"<3>read_manual_v4_gws: Could not read setting object"});
}

TEST_F(routes, a_remainder_that_is_no_array_fails_the_list)
{
    hold(GATEWAYS, R"("10.0.0.2")");
    EXPECT_EQ(value_of(GATEWAYS), "(none)");
    EXPECT_EQ(take_important_log(),
              (Log{"<3>read_manual_v4_gws: Attempt to get additional gateways didn't yield an array.  "
                   "cJSON_Type=16",
                   "<3>get_json_value: JSON key [IPv4/Manual]Gateways fails read_func"}));
}

TEST_F(routes, elements_of_the_remainder_that_are_no_texts_are_passed_over)
{
    hold(DEFAULT_GATEWAY, R"("10.0.0.1")");
    hold(GATEWAYS, R"([7,"10.0.0.2",null])");
    EXPECT_EQ(value_of(GATEWAYS), R"(["10.0.0.1","10.0.0.2"])");
    const std::string line = "<4>read_manual_v4_gws: Unexpected element in [IPv4/Manual]Gateways array";
    EXPECT_EQ(take_log(), (Log{line, line}));
}

// The IPv6 gateways

TEST_F(ipv6_gateways, the_actual_ones_are_all_the_stateless_ones_those_learned)
{
    set_kernel_gateways({{RTPROT_RA, "fe80::1"}, {RTPROT_BOOT, "2001:db8::1"}, {RTPROT_KERNEL, "fe80::2"}});
    EXPECT_EQ(value_of("[IPv6/Actual]Gateways"), R"(["fe80::2","2001:db8::1","fe80::1"])");
    EXPECT_EQ(value_of("[IPv6/Stateless]Gateways"), R"(["fe80::2","fe80::1"])");
    set_kernel_gateways({});
    EXPECT_EQ(value_of("[IPv6/Actual]Gateways"), "[]");
    EXPECT_EQ(value_of("[IPv6/Stateless]Gateways"), "[]");
}

TEST_F(ipv6_gateways, without_memory_the_read_fails)
{
    cJSON_Hooks no_memory{[](std::size_t) -> void* { return nullptr; }, std::free};
    const SettingDef* actual = find_setting("[IPv6/Actual]Gateways");
    const SettingDef* stateless = find_setting("[IPv6/Stateless]Gateways");
    set_kernel_gateways({{RTPROT_RA, "fe80::1"}});
    OwnedJson value;
    cJSON_InitHooks(&no_memory);
    const bool results[] = {
        read_actual_ipv6_gateways(actual, value), read_actual_ipv6_gateways(nullptr, value),
        read_ipv6_kernel_gateways(stateless, value), read_ipv6_kernel_gateways(nullptr, value)};
    cJSON_InitHooks(nullptr);
    for (const bool result : results)
        EXPECT_FALSE(result);
    EXPECT_EQ(
        take_important_log(),
        (Log{"<2>read_actual_ipv6_gateways:LINE: Out of memory retrieving [IPv6/Actual]Gateways value",
             "<2>read_actual_ipv6_gateways:LINE: Out of memory and null ptr in setting obj",
             "<2>read_ipv6_kernel_gateways:LINE: Out of memory retrieving [IPv6/Stateless]Gateways value",
             "<2>read_ipv6_kernel_gateways:LINE: Out of memory AND a null ptr in setting_obj"}));
}

TEST_F(ipv6_gateways, adding_one_is_told_on_the_console_removing_one_is_not)
{
    EXPECT_TRUE(single_ipv6_default_gateway(GatewayChange::ADD, "fe80::1"));
    EXPECT_TRUE(single_ipv6_default_gateway(GatewayChange::REMOVE, "fe80::1"));
    const std::string add = ipv6_command("add", "fe80::1");
    const std::string remove = ipv6_command("del", "fe80::1");
    EXPECT_EQ(recorded_shell.commands, (Commands{add, remove}));
    EXPECT_EQ(take_log(),
              (Log{"<7>single_ipv6_default_gateway:LINE: Running " + add,
                   "<6>single_ipv6_default_gateway: Added fe80::1 as an IPv6 default gateway",
                   "QUARN: Added fe80::1 as IPv6 default gateway",
                   "<5>single_ipv6_default_gateway: Console Output: Added fe80::1 as IPv6 default gateway",
                   "<7>single_ipv6_default_gateway:LINE: Running " + remove,
                   "<6>single_ipv6_default_gateway: Removed fe80::1 as an IPv6 default gateway"}));
}

TEST_F(ipv6_gateways, one_that_cannot_be_changed_is_a_failure)
{
    recorded_shell.statuses = {{"fe80::1", 7}};
    EXPECT_FALSE(single_ipv6_default_gateway(GatewayChange::ADD, "fe80::1"));
    EXPECT_FALSE(single_ipv6_default_gateway(GatewayChange::REMOVE, "fe80::1"));
    EXPECT_EQ(take_important_log(),
              (Log{"<4>single_ipv6_default_gateway: System call to add ipv6 gateway fe80::1 failed. 7",
                   "<4>single_ipv6_default_gateway: System call to remove ipv6 gateway fe80::1 failed. 7"}));
}

TEST_F(ipv6_gateways, those_of_a_user_make_place_for_the_manual_ones_and_the_learned_ones_stay)
{
    set_kernel_gateways(
        {{RTPROT_RA, "fe80::1"}, {RTPROT_BOOT, "2001:db8::9"}, {RTPROT_STATIC, "2001:db8::8"}});
    set_manual_gateways(R"(["2001:db8::1","2001:db8::2"])");
    EXPECT_TRUE(remove_ipv6_user_gateways());
    EXPECT_EQ(recorded_shell.commands,
              (Commands{ipv6_command("del", "2001:db8::8"), ipv6_command("del", "2001:db8::9"),
                        ipv6_command("add", "2001:db8::1"), ipv6_command("add", "2001:db8::2")}));
    EXPECT_EQ(take_log().front(),
              "<7>remove_ipv6_user_gateways:LINE: Removing all user-defined IPv6 gateways");
}

TEST_F(ipv6_gateways, one_that_cannot_be_added_fails_the_step_but_not_the_next_one)
{
    set_manual_gateways(R"(["2001:db8::1","2001:db8::2"])");
    recorded_shell.statuses = {{"add default gw 2001:db8::1 ", 7}};
    EXPECT_FALSE(remove_ipv6_user_gateways());
    EXPECT_EQ(recorded_shell.commands,
              (Commands{ipv6_command("add", "2001:db8::1"), ipv6_command("add", "2001:db8::2")}));
}

TEST_F(ipv6_gateways, one_that_cannot_be_removed_and_an_empty_list_are_no_failure)
{
    set_kernel_gateways({{RTPROT_BOOT, "2001:db8::8"}});
    recorded_shell.statuses = {{"del", 7}};
    EXPECT_TRUE(remove_ipv6_user_gateways());
    EXPECT_EQ(recorded_shell.commands, Commands{ipv6_command("del", "2001:db8::8")});
}
