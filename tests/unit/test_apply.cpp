#include "apply/apply.h"
#include "settings/setting_def.h"
#include "settings/setting_store.h"
#include "support.h"

namespace {

class apply : public QuarnTest {
protected:
    void SetUp() override
    {
        QuarnTest::SetUp();
        // No lease and no probing: the sequence itself is what is looked at.
        hold_setting(setting("[IPv4/DHCP]Enabled", "false").get());
        hold_setting(setting("[IPv4/Manual]Address", "\"10.0.0.5\"").get());
        take_log();
    }
    // The lines of the apply sequence itself.
    std::vector<std::string> take_sequence()
    {
        std::vector<std::string> lines = take_log();
        std::erase_if(
            lines, [](const std::string& line) { return line.find(">apply_settings") == std::string::npos; });
        return lines;
    }
};

using Log = std::vector<std::string>;

} // namespace

TEST_F(apply, flags_0_only_compare_the_addresses)
{
    EXPECT_TRUE(apply_settings(0, ApplyRun::LIVE_CHANGE));
    EXPECT_EQ(recorded_shell.commands, std::vector<std::string>());
    EXPECT_EQ(take_sequence(), Log{"<7>apply_settings:LINE: Apply Flags: 0x00000000 (restart=1)"});
}

TEST_F(apply, addresses_come_before_the_mtu)
{
    EXPECT_TRUE(apply_settings(APPLY_MTU | APPLY_IPV4_ADDR | APPLY_IPV6_ADDR, ApplyRun::LIVE_CHANGE));
    EXPECT_EQ(take_sequence(), (Log{"<7>apply_settings:LINE: Apply Flags: 0x00010006 (restart=1)",
                                    "<6>apply_settings: Applying IPv4 Addresses",
                                    "<6>apply_settings: If IPv6 enabled, applying IPv6 addresses",
                                    "<6>apply_settings: Set the MTU on eth0"}));
    EXPECT_EQ(
        recorded_shell.commands,
        (std::vector<std::string>{
            "/sbin/ifconfig eth0:1 down",
            "/sbin/ifconfig eth0 10.0.0.5 netmask 255.255.255.0 broadcast 10.0.0.255",
            "if ! /sbin/route | grep 224.0.0.0 >/dev/null ; then  /sbin/route add -net 224.0.0.0 netmask "
            "240.0.0.0 dev eth0 ; fi",
            "for A in $(ip -6 addr show dev eth0 | grep global |  grep -v dynamic | cut -d ' ' -f 6); do  ip "
            "addr "
            "del $A dev eth0; done",
            "/sbin/ip link set eth0 mtu 1500"}));
}

TEST_F(apply, a_failed_action_stops_nothing_and_fails_the_run)
{
    recorded_shell.statuses = {{"/sbin/ifconfig eth0 ", 1}};
    EXPECT_FALSE(apply_settings(APPLY_MTU | APPLY_IPV4_ADDR, ApplyRun::LIVE_CHANGE));
    EXPECT_EQ(recorded_shell.commands.back(), "/sbin/ip link set eth0 mtu 1500");
}

TEST_F(apply, with_ipv6_off_the_router_advertisement_flag_logs_its_line_and_touches_nothing)
{
    hold_setting(setting("[IPv6]Enabled", "false").get());
    take_log();
    EXPECT_TRUE(apply_settings(APPLY_ACCEPT_RA, ApplyRun::LIVE_CHANGE));
    EXPECT_EQ(recorded_shell.commands, std::vector<std::string>());
    EXPECT_EQ(take_log(),
              (Log{"<7>apply_settings:LINE: Apply Flags: 0x00000800 (restart=1)",
                   "<6>apply_settings: Turning accept_ra on/off", "<4>get_netlink_info: no data returned"}));
}

TEST_F(apply, start_up_marks_no_mtu_signal_and_a_live_change_does)
{
    EXPECT_TRUE(apply_settings(APPLY_MTU, ApplyRun::START_UP));
    for (const std::string& line : take_log())
        EXPECT_EQ(line.find("mark_signal_flag"), std::string::npos) << line;
}
