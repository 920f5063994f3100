#include "api/json_response.h"
#include "net/ipv6_addresses.h"
#include "scripted_kernel.h"
#include "settings/setting_store.h"
#include "support.h"

#include <sys/socket.h>

namespace {

class ipv6_addresses : public QuarnTest {
protected:
    void SetUp() override
    {
        QuarnTest::SetUp();
        hold("[IPv6]Enabled", "true");
    }
    void hold(const char* key, const char* json_text)
    {
        hold_setting(setting(key, json_text).get());
        take_log();
    }
};

using Log = std::vector<std::string>;
using Commands = std::vector<std::string>;

const std::string FLUSH =
    "for A in $(ip -6 addr show dev eth0 | grep global |  grep -v dynamic | cut -d ' ' -f 6); do  ip "
    "addr del $A dev eth0; done";

std::string errors_of(const char* json_text)
{
    const auto response = json_response_new();
    const bool is_valid =
        verify_unicast6_arr(setting("[IPv6/Manual]Addresses", json_text).get(), response.get());
    const cJSON* errors = cJSON_GetObjectItemCaseSensitive(response->root.get(), "errors");
    EXPECT_EQ(is_valid, errors->child == nullptr);
    return print(errors);
}

std::string error(int code, const std::string& message)
{
    return R"([{"key":"[IPv6/Manual]Addresses","code":)" + std::to_string(code) + R"(,"msg":")" + message +
           R"("}])";
}

} // namespace

TEST_F(ipv6_addresses, manual_addresses_come_before_leased_ones)
{
    hold("[IPv6/Manual]Addresses", R"(["2001:db8::1/64","2001:db8::2/48"])");
    hold("[IPv6/Stateful]Addresses", R"(["2001:db8::3/128"])");
    EXPECT_TRUE(set_ipv6_addresses());
    EXPECT_EQ(recorded_shell.commands, (Commands{FLUSH, "/sbin/ip -6 addr add 2001:db8::1/64 dev eth0",
                                                 "/sbin/ip -6 addr add 2001:db8::2/48 dev eth0",
                                                 "/sbin/ip -6 addr add 2001:db8::3/128 dev eth0"}));
}

TEST_F(ipv6_addresses, leased_addresses_are_used_only_where_both_switches_are_on)
{
    hold("[IPv6/Stateful]Addresses", R"(["2001:db8::3/128"])");
    for (const char* key : {"[IPv6/Stateful]Enabled", "[IPv6/Stateful]UseAddress"}) {
        hold(key, "false");
        recorded_shell.commands.clear();
        EXPECT_TRUE(set_ipv6_addresses());
        EXPECT_EQ(recorded_shell.commands, Commands{FLUSH}) << key;
        hold(key, "true");
    }
    EXPECT_TRUE(set_ipv6_addresses());
    EXPECT_EQ(recorded_shell.commands,
              (Commands{FLUSH, FLUSH, "/sbin/ip -6 addr add 2001:db8::3/128 dev eth0"}));
}

TEST_F(ipv6_addresses, with_ipv6_off_the_old_addresses_are_taken_away)
{
    hold("[IPv6/Manual]Addresses", R"(["2001:db8::1/64"])");
    hold("[IPv6]Enabled", "false");
    EXPECT_TRUE(set_ipv6_addresses());
    EXPECT_EQ(recorded_shell.commands, Commands{FLUSH});
    EXPECT_EQ(take_log(),
              Log{"<7>set_ipv6_addresses:LINE: Not setting any IPv6 addresses because IPv6 is disabled"});
}

TEST_F(ipv6_addresses, a_failed_flush_is_logged_and_stops_nothing)
{
    recorded_shell.statuses = {{"for A in", 2}};
    hold("[IPv6/Manual]Addresses", R"(["2001:db8::1/64"])");
    EXPECT_TRUE(set_ipv6_addresses());
    EXPECT_EQ(recorded_shell.commands, (Commands{FLUSH, "/sbin/ip -6 addr add 2001:db8::1/64 dev eth0"}));
    EXPECT_EQ(take_log(),
              (Log{"<3>set_ipv6_addresses: Error flushing global permanent ipv6 addresses on eth0",
                   "<7>set_ipv6_addresses:LINE: Flush command was '" + FLUSH + "'",
                   "QUARN: Added eth0 IPv6 address 2001:db8::1/64",
                   "<5>add_ipv6_address: Console Output: Added eth0 IPv6 address 2001:db8::1/64"}));
}

TEST_F(ipv6_addresses, a_failed_addition_does_not_stop_the_others)
{
    hold("[IPv6/Manual]Addresses", R"(["2001:db8::1/64","2001:db8::2/64"])");
    hold("[IPv6/Stateful]Addresses", R"(["2001:db8::3/64"])");
    recorded_shell.statuses = {{"2001:db8::1/64", 2}};
    EXPECT_FALSE(set_ipv6_addresses());
    EXPECT_EQ(recorded_shell.commands, (Commands{FLUSH, "/sbin/ip -6 addr add 2001:db8::1/64 dev eth0",
                                                 "/sbin/ip -6 addr add 2001:db8::2/64 dev eth0",
                                                 "/sbin/ip -6 addr add 2001:db8::3/64 dev eth0"}));
    EXPECT_EQ(take_log(), (Log{"<3>add_ipv6_address: Couldn't add manual address 2001:db8::1/64",
                               "QUARN: Added eth0 IPv6 address 2001:db8::2/64",
                               "<5>add_ipv6_address: Console Output: Added eth0 IPv6 address 2001:db8::2/64",
                               "QUARN: Added eth0 IPv6 address 2001:db8::3/64",
                               "<5>add_ipv6_address: Console Output: Added eth0 IPv6 address 2001:db8::3/64",
                               "<6>set_ipv6_addresses: Failure setting IPv6 addresses"}));
}

TEST_F(ipv6_addresses, an_address_without_a_prefix_length_is_added_with_64)
{
    EXPECT_TRUE(add_ipv6_address("2001:db8::1"));
    EXPECT_EQ(recorded_shell.commands, Commands{"/sbin/ip -6 addr add 2001:db8::1/64 dev eth0"});
    EXPECT_EQ(take_log(), (Log{"<4>add_ipv6_address: Manual address missing netmask. Using 2001:db8::1/64",
                               "QUARN: Added eth0 IPv6 address 2001:db8::1",
                               "<5>add_ipv6_address: Console Output: Added eth0 IPv6 address 2001:db8::1"}));
}

TEST_F(ipv6_addresses, an_address_that_could_be_a_command_is_not_run)
{
    for (const char* text : {"::1/64;reboot", "$(reboot)/64", "", "-x/64", "::1/64\nreboot"})
        EXPECT_FALSE(add_ipv6_address(text)) << text;
    EXPECT_EQ(recorded_shell.commands, Commands());
}

TEST_F(ipv6_addresses, the_actual_addresses_are_read_from_the_kernel)
{
    ScriptedKernel kernel;
    kernel.set_addresses(AF_INET6, {address_message("fe80::1", 64), address_message("2001:db8::1", 48)});
    EXPECT_EQ(value_of("[IPv6/Actual]Addresses"), R"(["2001:db8::1/48","fe80::1/64"])");
    kernel.datagrams.clear();
    EXPECT_EQ(value_of("[IPv6/Actual]Addresses"), "[]");
}

TEST_F(ipv6_addresses, the_stateless_addresses_are_read_from_the_kernel)
{
    ScriptedKernel kernel;
    kernel.set_addresses(AF_INET6,
                         {address_message("2001:db8::1", 48), stateless_address_message("2001:db8::2"),
                          stateless_address_message("2001:db8::3")});
    EXPECT_EQ(value_of("[IPv6/Stateless]Addresses"), R"(["2001:db8::3/64","2001:db8::2/64"])");
    EXPECT_EQ(kernel.requests.size(), 1U);
}

TEST_F(ipv6_addresses, the_link_local_address_is_made_of_the_hardware_address)
{
    ScriptedKernel kernel;
    kernel.datagrams[{RTM_GETLINK, AF_INET6}] = {link_message(std::string("\x00\x11\x22\x33\x44\x55", 6)) +
                                                 done_message()};
    EXPECT_EQ(value_of("[IPv6/LocalLink]Address"), R"("fe80::211:22ff:fe33:4455/64")");
    EXPECT_EQ(kernel.requests.size(), 1U);
}

TEST_F(ipv6_addresses, with_ipv6_off_nothing_is_asked_of_the_kernel)
{
    const ScriptedKernel kernel;
    hold("[IPv6]Enabled", "false");
    EXPECT_EQ(value_of("[IPv6/LocalLink]Address"), "null");
    EXPECT_EQ(value_of("[IPv6/Actual]Addresses"), "[]");
    EXPECT_EQ(value_of("[IPv6/Stateless]Addresses"), "[]");
    hold("[IPv6]Enabled", "true");
    hold("[IPv6/Stateless]AcceptRA", "false");
    EXPECT_EQ(value_of("[IPv6/Stateless]Addresses"), "[]");
    EXPECT_EQ(kernel.requests.size(), 0U);
    EXPECT_EQ(take_log(), Log());
}

TEST_F(ipv6_addresses, a_reader_without_a_row_goes_on_under_another_name)
{
    const ScriptedKernel kernel;
    hold("[IPv6]Enabled", "false");
    const SettingDef no_key{};
    for (const SettingDef* row : {static_cast<const SettingDef*>(nullptr), &no_key}) {
        OwnedJson value;
        EXPECT_TRUE(read_ipv6_linklocal(row, value));
        EXPECT_EQ(print(value.get()), "null");
        EXPECT_TRUE(read_actual_ipv6_addrs(row, value));
        EXPECT_EQ(print(value.get()), "[]");
        EXPECT_TRUE(read_stateless_ipv6_addrs(row, value));
        EXPECT_EQ(print(value.get()), "[]");
        EXPECT_EQ(take_log(),
                  (Log{"<4>read_ipv6_linklocal: There was a null pointer in the setting obj",
                       "<4>read_actual_ipv6_addrs: There was a null pointer in the setting obj",
                       "<4>read_stateless_ipv6_addrs: There was a null pointer in the setting obj"}));
    }
    hold("[IPv6]Enabled", "true");
    OwnedJson value;
    EXPECT_FALSE(read_ipv6_linklocal(nullptr, value));
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(take_log().back(), "<3>read_str_util_value: can't retrieve <unknown> value");
}

TEST_F(ipv6_addresses, unicast_addresses_with_prefix_lengths_of_1_to_128_are_accepted)
{
    for (const char* list : {"[]", R"(["2001:db8::1/1"])", R"(["2001:db8::1/128","fe80::1/64"])",
                             R"(["::2/64"])", R"(["fec0::1/10","::ffff:10.0.0.1/96"])"})
        EXPECT_EQ(errors_of(list), "[]") << list;
}

TEST_F(ipv6_addresses, addresses_that_eth0_cannot_have_are_refused)
{
    const std::pair<const char*, const char*> cases[] = {
        {R"(["::1/128"])", "Cannot use localhost address ::1 for eth0"},
        {R"(["0:0:0:0:0:0:0:1/64"])", "Cannot use localhost address ::1 for eth0"},
        {R"(["::/64"])", "Cannot use undefined address ::0 for eth0"},
        {R"(["0::0/64"])", "Cannot use undefined address ::0 for eth0"},
        {R"(["ff02::1/64"])", "Cannot use multicast addresses for eth0"},
        {R"(["2001:db8::1/64","ff00::/8"])", "Cannot use multicast addresses for eth0"},
        {R"(["2001:db8::1/0"])", "'2001:db8::1/0' doesn't contain a valid prefix length"},
        {R"(["2001:db8::1/129"])", "'2001:db8::1/129' doesn't contain a valid prefix length"},
        {R"(["2001:db8::1"])", "'2001:db8::1' doesn't include a prefix length"},
    };
    for (const auto& [list, message] : cases)
        EXPECT_EQ(errors_of(list), error(ERROR_INVALID_IPV6, message)) << list;
}

TEST_F(ipv6_addresses, sixteen_addresses_are_accepted_and_seventeen_are_not)
{
    std::string list = R"("2001:db8::1/64")";
    for (int count = 1; count < 16; ++count)
        list += R"(,"2001:db8::1/64")";
    EXPECT_EQ(errors_of(("[" + list + "]").c_str()), "[]");
    EXPECT_EQ(errors_of(("[" + list + R"(,"2001:db8::1/64"])").c_str()),
              error(ERROR_TOO_MANY, "There are too many elements in the provided array."));
}

TEST_F(ipv6_addresses, a_check_without_item_or_response_is_refused)
{
    const auto response = json_response_new();
    EXPECT_FALSE(verify_unicast6_arr(nullptr, response.get()));
    EXPECT_EQ(
        print(response->root.get()),
        R"({"success":false,"errors":[{"code":1,"msg":"Null value during string array verification"}]})");
    EXPECT_FALSE(verify_unicast6_arr(setting("[IPv6/Manual]Addresses", R"(["::2/64"])").get(), nullptr));
}
