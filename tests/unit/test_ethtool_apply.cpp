#include "link_hardware.h"
#include "net/ethtool.h"
#include "settings/setting_store.h"
#include "support.h"

#include <sys/wait.h>

#include <sstream>

namespace {

using Log = std::vector<std::string>;
using Texts = std::vector<std::string>;

constexpr char GET_FAILURE[] =
    "<3>ethtool_ioctl_get_cmd: ioctl failure for eth0 AF_INET socket with ETHTOOL_GSET";
const Texts WORKAROUND = {"/usr/sbin/ethtool -s eth0 autoneg off speed 10 duplex full",
                          "/usr/sbin/ethtool -s eth0 autoneg on speed 100 duplex full"};

// 10 and 100 Mb/s of both kinds and 1000 Mb/s full duplex, autonegotiation, twisted pair, both pauses.
constexpr std::uint32_t GIGABIT_PORT = 0x60EF;

// What applying does in a process that has applied nothing before: the workaround is run once a process.
struct Applied {
    bool result;
    Texts commands;
    // What eth0 was given, then what was done on the bus of the external PHYs.
    Texts modes;

    bool operator==(const Applied&) const = default;
};

void PrintTo(const Applied& applied, std::ostream* stream)
{
    *stream << (applied.result ? "true" : "false");
    for (const Texts* texts : {&applied.commands, &applied.modes}) {
        for (const std::string& text : *texts)
            *stream << ", " << text;
    }
}

class ethtool_apply : public QuarnTest {
protected:
    void SetUp() override
    {
        QuarnTest::SetUp();
        hardware.link.supported = GIGABIT_PORT;
        hardware.link.duplex = DUPLEX_FULL;
        hardware.link.autoneg = AUTONEG_ENABLE;
        hardware.set_speed(1000);
        // The capabilities are cached before the child is made: it only reads the store.
        ethtool_get_data();
        take_log();
    }
    void hold(const char* key, const char* json_text)
    {
        ASSERT_TRUE(save_or_hold_setting(setting(key, json_text).get(), Keep::HELD, Unchanged::WRITTEN));
        take_log();
    }
    void set_manual(const char* speed, const char* full_duplex)
    {
        hold("[NIC/eth0/AutoNegotiated]Enabled", "false");
        hold("[NIC/eth0/Manual]LinkSpeed", speed);
        hold("[NIC/eth0/Manual]FullDuplex", full_duplex);
    }
    void set_autonegotiated(const char* speed, const char* full_duplex)
    {
        hold("[NIC/eth0/AutoNegotiated]Enabled", "true");
        hold("[NIC/eth0/AutoNegotiated]LinkSpeed", speed);
        hold("[NIC/eth0/AutoNegotiated]FullDuplex", full_duplex);
    }
    // The result is that of the last of so many applies.
    Applied apply(int times = 1)
    {
        const std::filesystem::path report = scratch / "report";
        const pid_t child = fork();
        if (child == 0) {
            bool result = false;
            for (int i = 0; i < times; ++i)
                result = apply_ethtool();
            std::string lines;
            for (const std::string& command : recorded_shell.commands)
                lines += "$ " + command + "\n";
            for (const Texts* texts : {&hardware.modes_set, &hardware.bus}) {
                for (const std::string& text : *texts)
                    lines += text + "\n";
            }
            write_text(report, lines);
            _exit(result ? 0 : 1);
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status));
        Applied applied{WEXITSTATUS(status) == 0, {}, {}};
        std::istringstream lines(read_text(report));
        for (std::string line; std::getline(lines, line);) {
            if (line.starts_with("$ "))
                applied.commands.push_back(line.substr(2));
            else
                applied.modes.push_back(line);
        }
        return applied;
    }
    LinkHardware hardware;
};

} // namespace

TEST_F(ethtool_apply, a_manual_mode_runs_the_two_ethtool_commands_the_first_time_only)
{
    set_manual("100", "false");
    const std::string mode = "speed 100 half autoneg off advertising 0x000060EF";
    EXPECT_EQ(apply(), (Applied{true, WORKAROUND, {mode}}));
    EXPECT_EQ(take_log(), (Log{"<5>ethtool_set_data: Running ethtool workaround.",
                               "<6>ethtool_set_data: Link not using autonegotiation with speed 100"}));
    EXPECT_EQ(apply(3), (Applied{true, WORKAROUND, {mode, mode, mode}}));
}

TEST_F(ethtool_apply, a_workaround_that_fails_is_not_noticed)
{
    set_manual("10", "true");
    recorded_shell.statuses = {{"ethtool", 127}};
    EXPECT_EQ(apply(2).commands, WORKAROUND);
}

TEST_F(ethtool_apply, a_link_that_cannot_be_read_any_more_gets_the_workaround_and_no_mode)
{
    set_manual("100", "true");
    hardware.answered_gets = 1;
    EXPECT_EQ(apply(), (Applied{false, WORKAROUND, {}}));
    EXPECT_EQ(take_log(), (Log{GET_FAILURE, "<5>ethtool_set_data: Running ethtool workaround."}));
    set_autonegotiated("100", "true");
    EXPECT_EQ(apply(), (Applied{false, {}, {}}));
    EXPECT_EQ(take_log(), Log{GET_FAILURE});
}

TEST_F(ethtool_apply, without_the_kernels_answer_nothing_is_changed)
{
    set_manual("100", "true");
    hardware.answered_gets = 0;
    EXPECT_EQ(apply(), (Applied{true, {}, {}}));
    EXPECT_EQ(take_log(),
              (Log{GET_FAILURE, "<3>ethtool_set_data: Not setting ethtool because could not get existing"}));
}

TEST_F(ethtool_apply, a_mode_that_the_kernel_refuses_is_a_failure)
{
    set_autonegotiated("1000", "true");
    hardware.refuses_set = true;
    EXPECT_EQ(apply(), (Applied{false, {}, {}}));
    EXPECT_EQ(take_important_log(),
              Log{"<3>ethtool_ioctl_set_cmd: ioctl failure on AF_INET socket with ETHTOOL_SSET"});
}

TEST_F(ethtool_apply, full_autonegotiation_advertises_all_that_is_supported)
{
    set_autonegotiated("1000", "true");
    EXPECT_EQ(apply(), (Applied{true, {}, {"speed 1000 full autoneg on advertising 0x000060EF"}}));
    EXPECT_EQ(take_log(), Log{"<7>ethtool_set_data:LINE: Link set to use full autonegotiation"});
}

TEST_F(ethtool_apply, with_100_full_duplex_and_no_pause_frames_these_modes_are_not_advertised)
{
    write_text(scratch / "quarn.conf", "[quarn]\nenable_disable_pause_frame=true\n");
    hardware.link.supported = 0x60FF;
    set_autonegotiated("100", "true");
    EXPECT_EQ(apply(), (Applied{true, {}, {"speed 100 full autoneg on advertising 0x000000CF"}}));
    EXPECT_EQ(take_log(), Log{"<5>ethtool_set_data: Link set to use autonegotiation with reduced "
                              "capabilities 0x000000CF"});
}

TEST_F(ethtool_apply, speed_and_duplex_bound_what_is_advertised)
{
    struct Case {
        const char* speed;
        const char* full_duplex;
        const char* mode;
    };
    hardware.link.supported = 0x703F;
    for (const Case& wanted : std::initializer_list<Case>{
             {"10", "true", "speed 10 full autoneg on advertising 0x00007003"},
             {"10", "false", "speed 10 half autoneg on advertising 0x00007001"},
             {"-5", "true", "speed -5 full autoneg on advertising 0x00007003"},
             {"11", "true", "speed 11 full autoneg on advertising 0x0000700F"},
             {"100", "false", "speed 100 half autoneg on advertising 0x00007005"},
             {"101", "false", "speed 101 half autoneg on advertising 0x00007015"},
             {"1000", "true", "speed 1000 full autoneg on advertising 0x0000703F"},
             {"100000", "true", "speed 100000 full autoneg on advertising 0x0000703F"}}) {
        set_autonegotiated(wanted.speed, wanted.full_duplex);
        EXPECT_EQ(apply(), (Applied{true, {}, {wanted.mode}}));
    }
}

TEST_F(ethtool_apply, pause_frames_stay_unless_the_configuration_says_true)
{
    set_autonegotiated("1000", "true");
    for (const char* text : {"[quarn]\n", "[quarn]\nenable_disable_pause_frame=false\n",
                             "[quarn]\nenable_disable_pause_frame=yes\n"}) {
        write_text(scratch / "quarn.conf", text);
        EXPECT_EQ(apply().modes, Texts{"speed 1000 full autoneg on advertising 0x000060EF"}) << text;
    }
    write_text(scratch / "quarn.conf", "[quarn]\nenable_disable_pause_frame=true\n");
    EXPECT_EQ(apply().modes, Texts{"speed 1000 full autoneg on advertising 0x000000EF"});
}

TEST_F(ethtool_apply, a_mode_of_a_wrong_type_is_logged_with_those_read_after_it)
{
    const std::string enabled =
        "<3>ethtool_set_data: Value for [NIC/eth0/AutoNegotiated]Enabled was not a boolean";
    const std::string speed = "<3>ethtool_set_data: Value for [NIC/eth0/Manual]LinkSpeed was not a number";
    const std::string duplex = "<3>ethtool_set_data: Value for [NIC/eth0/Manual]FullDuplex was not a boolean";
    set_autonegotiated("100", "1");
    EXPECT_EQ(apply(), (Applied{false, {}, {}}));
    EXPECT_EQ(take_log(), Log{duplex});
    set_autonegotiated(R"("100")", "true");
    EXPECT_EQ(apply(), (Applied{false, {}, {}}));
    EXPECT_EQ(take_log(), (Log{speed, duplex}));
    hold("[NIC/eth0/AutoNegotiated]Enabled", "1");
    EXPECT_EQ(apply(), (Applied{false, {}, {}}));
    EXPECT_EQ(take_log(), (Log{enabled, speed, duplex}));
}

TEST_F(ethtool_apply, the_external_phys_get_the_mode_that_eth0_got)
{
    write_text(scratch / "quarn.conf", "[quarn]\nexternal_phy_ids=5\nswitch_phy_id=28\n");
    hardware.phys[5].fill(0);
    set_autonegotiated("100", "true");
    EXPECT_EQ(apply(), (Applied{true,
                                {},
                                {"speed 100 full autoneg on advertising 0x000060CF", "read 5:4", "read 5:9",
                                 "write 5:4 0x0DE0", "read 5:0", "write 5:0 0x1200"}}));
}

TEST_F(ethtool_apply, an_external_phy_that_does_not_answer_fails_the_step)
{
    write_text(scratch / "quarn.conf", "[quarn]\nexternal_phy_ids=5\nswitch_phy_id=28\n");
    hardware.slow_accesses = {"read 5:4"};
    set_autonegotiated("100", "true");
    EXPECT_EQ(apply(),
              (Applied{false, {}, {"speed 100 full autoneg on advertising 0x000060CF", "read 5:4"}}));
}

TEST_F(ethtool_apply, the_external_phys_are_left_alone_where_eth0_got_no_mode)
{
    write_text(scratch / "quarn.conf", "[quarn]\nexternal_phy_ids=5\nswitch_phy_id=28\n");
    set_autonegotiated("100", "true");
    hardware.refuses_set = true;
    EXPECT_EQ(apply(), (Applied{false, {}, {}}));
    hardware.answered_gets = 0;
    EXPECT_EQ(apply(), (Applied{true, {}, {}}));
}
