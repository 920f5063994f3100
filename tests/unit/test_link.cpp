#include "api/json_response.h"
#include "net/link.h"
#include "scripted_kernel.h"
#include "settings/setting_store.h"
#include "support.h"

#include <sys/socket.h>

namespace {

class link : public QuarnTest {};

using Log = std::vector<std::string>;
using Commands = std::vector<std::string>;

const Commands LOOPBACK_COMMANDS = {"/sbin/ip addr add 127.0.0.1/8 dev lo 2>/dev/null",
                                    "/sbin/ip link set lo up"};

} // namespace

TEST_F(link, loopback_gets_its_address_and_comes_up)
{
    EXPECT_TRUE(link_lo_up());
    EXPECT_EQ(recorded_shell.commands, LOOPBACK_COMMANDS);
    EXPECT_EQ(take_log(), Log());
}

TEST_F(link, a_loopback_address_that_is_there_already_is_fine)
{
    recorded_shell.statuses = {{"addr add", 2}};
    EXPECT_TRUE(link_lo_up());
    EXPECT_EQ(recorded_shell.commands, LOOPBACK_COMMANDS);
    EXPECT_EQ(take_log(), Log{"<5>link_lo_up: Loopback device already exists"});
}

TEST_F(link, loopback_is_brought_up_although_its_address_failed)
{
    recorded_shell.statuses = {{"addr add", 1}};
    EXPECT_FALSE(link_lo_up());
    EXPECT_EQ(recorded_shell.commands, LOOPBACK_COMMANDS);
    EXPECT_EQ(take_log(), Log{"<3>link_lo_up: System call to create loopback returned 1"});
}

TEST_F(link, a_loopback_that_does_not_come_up_is_a_failure)
{
    recorded_shell.statuses = {{"addr add", 2}, {"lo up", 4}};
    EXPECT_FALSE(link_lo_up());
    EXPECT_EQ(recorded_shell.commands, LOOPBACK_COMMANDS);
    EXPECT_EQ(take_log(), (Log{"<5>link_lo_up: Loopback device already exists",
                               "<3>link_lo_up: System call to up loopback returned 4"}));
}

TEST_F(link, eth0_is_brought_up)
{
    EXPECT_TRUE(link_eth0_up());
    recorded_shell.statuses = {{"eth0 up", 1}};
    EXPECT_FALSE(link_eth0_up());
    EXPECT_EQ(recorded_shell.commands, Commands(2, "ip link set eth0 up"));
    EXPECT_EQ(take_log(), Log{"<3>link_eth0_up: System call 'ip link set eth0 up' returned 1"});
}

TEST_F(link, the_mtu_comes_from_its_setting)
{
    EXPECT_TRUE(set_mtu());
    hold_setting(setting("[NIC/eth0]MTU", "1280").get());
    EXPECT_TRUE(set_mtu());
    EXPECT_EQ(recorded_shell.commands,
              (Commands{"/sbin/ip link set eth0 mtu 1500", "/sbin/ip link set eth0 mtu 1280"}));
}

TEST_F(link, an_mtu_that_cannot_be_set_is_a_failure)
{
    recorded_shell.statuses = {{"mtu", 2}};
    EXPECT_FALSE(set_mtu());
    EXPECT_EQ(recorded_shell.commands, Commands{"/sbin/ip link set eth0 mtu 1500"});
    EXPECT_EQ(take_log(), Log{"<3>set_mtu: System call '/sbin/ip link set eth0 mtu 1500' returned 2"});
}

TEST_F(link, an_mtu_from_1200_to_1500_is_accepted)
{
    for (const char* mtu : {"1200", "1201", "1499", "1500"}) {
        const auto response = json_response_new();
        EXPECT_TRUE(verify_mtu(setting("[NIC/eth0]MTU", mtu).get(), response.get())) << mtu;
        EXPECT_EQ(print(response->root.get()), R"({"success":false,"errors":[]})");
    }
}

TEST_F(link, an_mtu_outside_1200_to_1500_is_refused)
{
    for (const char* mtu : {"1199", "1501", "0", "-1400", "2147483647"}) {
        const auto response = json_response_new();
        EXPECT_FALSE(verify_mtu(setting("[NIC/eth0]MTU", mtu).get(), response.get())) << mtu;
        const OwnedText expected(g_strdup_printf(
            R"_({"success":false,"errors":[{"key":"[NIC/eth0]MTU","code":4,"msg":"Invalid MTU (%s) (must be 1200 to 1500)"}]})_",
            mtu));
        EXPECT_EQ(print(response->root.get()), expected.get());
    }
}

TEST_F(link, an_mtu_that_is_no_number_gets_both_errors)
{
    const auto response = json_response_new();
    EXPECT_FALSE(verify_mtu(setting("[NIC/eth0]MTU", "\"1400\"").get(), response.get()));
    EXPECT_EQ(
        print(response->root.get()),
        R"_({"success":false,"errors":[{"key":"[NIC/eth0]MTU","code":3,"msg":"Value wasn't a number"},)_"
        R"_({"key":"[NIC/eth0]MTU","code":4,"msg":"Invalid MTU (0) (must be 1200 to 1500)"}]})_");
}

TEST_F(link, an_mtu_check_without_item_or_response_is_refused)
{
    const auto response = json_response_new();
    EXPECT_FALSE(verify_mtu(nullptr, response.get()));
    EXPECT_EQ(print(response->root.get()),
              R"({"success":false,"errors":[{"code":1,"msg":"Null value during string verification"}]})");
    take_log();
    EXPECT_FALSE(verify_mtu(setting("[NIC/eth0]MTU", "1400").get(), nullptr));
    EXPECT_EQ(take_log(), Log{"<3>verify_is_number: Null value during string verification"});
}

TEST_F(link, the_mac_and_the_eui64_are_read_from_the_kernel)
{
    ScriptedKernel kernel;
    kernel.datagrams[{RTM_GETLINK, AF_INET6}] = {link_message(std::string("\x00\x11\x22\x33\x44\x55", 6)) +
                                                 done_message()};
    EXPECT_EQ(value_of("[NIC/eth0]MAC"), R"("001122334455")");
    EXPECT_EQ(value_of("[NIC/eth0]EUI64"), R"("211:22ff:fe33:4455")");
    EXPECT_EQ(kernel.requests.size(), 2U);
}

TEST_F(link, without_a_hardware_address_the_readers_fail)
{
    const ScriptedKernel kernel;
    OwnedJson value;
    EXPECT_FALSE(read_mac_addr(find_setting("[NIC/eth0]MAC"), value));
    EXPECT_EQ(take_log(), (Log{"<4>get_netlink_info: no data returned",
                               "<2>quarn_get_mac_addr:LINE: unable to retrieve mac address",
                               "<3>read_str_util_value: can't retrieve [NIC/eth0]MAC value"}));
    EXPECT_FALSE(read_eui64(nullptr, value));
    EXPECT_EQ(take_log(), (Log{"<4>read_eui64: There was a null pointer in the setting obj",
                               "<4>get_netlink_info: no data returned",
                               "<2>quarn_get_eui64:LINE: unable to retrieve EUI-64",
                               "<3>read_str_util_value: can't retrieve <unknown> value"}));
    EXPECT_EQ(value, nullptr);
}
