#include "link_hardware.h"
#include "net/external_phy.h"
#include "support.h"

#include <regex>

namespace {

using Log = std::vector<std::string>;
using Accesses = std::vector<std::string>;

constexpr char TWO_PHYS[] = "[quarn]\nexternal_phy_ids=5;6\nswitch_phy_id=28\n";

class external_phy : public QuarnTest {
protected:
    void SetUp() override
    {
        QuarnTest::SetUp();
        configure("[quarn]\nexternal_phy_ids=5\nswitch_phy_id=28\n");
        hardware.phys[5].fill(0);
        hardware.phys[6].fill(0);
    }
    void configure(const std::string& text) { write_text(scratch / "quarn.conf", text); }

    static bool set_fixed(unsigned speed, unsigned char duplex)
    {
        ethtool_cmd command{};
        command.autoneg = AUTONEG_DISABLE;
        command.duplex = duplex;
        ethtool_cmd_speed_set(&command, speed);
        return ethtool_set_data_external_phys(command);
    }
    static bool set_autonegotiated(unsigned advertising)
    {
        ethtool_cmd command{};
        command.autoneg = AUTONEG_ENABLE;
        command.advertising = advertising;
        return ethtool_set_data_external_phys(command);
    }

    LinkHardware hardware;
};

} // namespace

TEST_F(external_phy, without_a_list_of_phys_or_a_switch_there_is_nothing_to_do)
{
    for (const char* text :
         {"[quarn]\n", "[quarn]\nexternal_phy_ids=5\n", "[quarn]\nswitch_phy_id=28\n",
          "[quarn]\nexternal_phy_ids=\nswitch_phy_id=28\n", "[quarn]\nexternal_phy_ids=x\nswitch_phy_id=28\n",
          "[quarn]\nexternal_phy_ids=5\nswitch_phy_id=x\n"}) {
        configure(text);
        EXPECT_TRUE(set_fixed(100, DUPLEX_FULL)) << text;
    }
    std::filesystem::remove(scratch / "quarn.conf");
    EXPECT_TRUE(set_fixed(100, DUPLEX_FULL));
    EXPECT_EQ(hardware.accesses, Accesses());
}

TEST_F(external_phy, a_fixed_mode_is_written_into_the_control_register)
{
    struct Case {
        unsigned speed;
        unsigned char duplex;
        std::uint16_t old_value;
        std::uint16_t new_value;
    };
    for (const Case& mode : std::initializer_list<Case>{{10, DUPLEX_HALF, 0xFFFF, 0xC6BF},
                                                        {10, DUPLEX_FULL, 0x3940, 0x0100},
                                                        {100, DUPLEX_HALF, 0x1140, 0x2000},
                                                        {100, DUPLEX_FULL, 0x0000, 0x2100},
                                                        {1000, DUPLEX_HALF, 0x8000, 0x8040},
                                                        {1000, DUPLEX_FULL, 0xFFFF, 0xC7FF},
                                                        {66536, DUPLEX_HALF, 0x0040, 0x0000}}) {
        hardware.phys[5][0] = mode.old_value;
        EXPECT_TRUE(set_fixed(mode.speed, mode.duplex));
        EXPECT_EQ(hardware.phys[5][0], mode.new_value) << mode.speed << " " << int(mode.duplex);
    }
}

TEST_F(external_phy, a_fixed_mode_that_is_there_already_is_not_written)
{
    hardware.phys[5][0] = 0x2100;
    EXPECT_TRUE(set_fixed(100, DUPLEX_FULL));
    EXPECT_EQ(hardware.bus, Accesses{"read 5:0"});
}

TEST_F(external_phy, autonegotiation_is_advertised_then_enabled_and_restarted)
{
    hardware.phys[5][0] = 0x0940;
    EXPECT_TRUE(set_autonegotiated(0x602F));
    EXPECT_EQ(hardware.bus, (Accesses{"read 5:4", "read 5:9", "write 5:4 0x0DE0", "write 5:9 0x0200",
                                      "read 5:0", "write 5:0 0x1340"}));
}

TEST_F(external_phy, the_advertised_modes_replace_those_that_were_advertised)
{
    struct Case {
        unsigned advertising;
        std::uint16_t old_modes;
        std::uint16_t modes;
        std::uint16_t old_gigabit;
        std::uint16_t gigabit;
    };
    for (const Case& mode : std::initializer_list<Case>{{0x0001, 0x01E1, 0x0021, 0xFFFF, 0xFCFF},
                                                        {0x0002, 0x03E0, 0x0040, 0x0300, 0x0000},
                                                        {0x0004, 0x0000, 0x0080, 0x0000, 0x0000},
                                                        {0x0008, 0x0000, 0x0100, 0x0000, 0x0000},
                                                        {0x0010, 0x0000, 0x0000, 0x0200, 0x0100},
                                                        {0x0020, 0x0000, 0x0000, 0x0100, 0x0200},
                                                        {0x2000, 0x0000, 0x0400, 0x0000, 0x0000},
                                                        {0x4000, 0x0000, 0x0800, 0x0000, 0x0000},
                                                        // What was advertised of pause stays.
                                                        {0x0000, 0x0C01, 0x0C01, 0x0000, 0x0000}}) {
        hardware.phys[5][4] = mode.old_modes;
        hardware.phys[5][9] = mode.old_gigabit;
        EXPECT_TRUE(set_autonegotiated(mode.advertising));
        EXPECT_EQ(hardware.phys[5][4], mode.modes) << mode.advertising;
        EXPECT_EQ(hardware.phys[5][9], mode.gigabit) << mode.advertising;
    }
}

TEST_F(external_phy, what_is_advertised_already_is_not_written_but_autonegotiation_starts_anew)
{
    hardware.phys[5][0] = 0x1140;
    hardware.phys[5][4] = 0x01E1;
    hardware.phys[5][9] = 0x0200;
    EXPECT_TRUE(set_autonegotiated(0x002F));
    EXPECT_EQ(hardware.bus, (Accesses{"read 5:4", "read 5:9", "read 5:0", "write 5:0 0x1340"}));
}

TEST_F(external_phy, every_phy_of_the_list_is_programmed)
{
    configure(TWO_PHYS);
    EXPECT_TRUE(set_fixed(100, DUPLEX_FULL));
    EXPECT_EQ(hardware.bus, (Accesses{"read 5:0", "write 5:0 0x2100", "read 6:0", "write 6:0 0x2100"}));
}

TEST_F(external_phy, of_the_ids_the_low_eight_bits_count)
{
    configure("[quarn]\nexternal_phy_ids=261\nswitch_phy_id=284\n");
    EXPECT_TRUE(set_fixed(100, DUPLEX_FULL));
    EXPECT_EQ(hardware.bus, (Accesses{"read 5:0", "write 5:0 0x2100"}));
}

TEST_F(external_phy, a_phy_that_cannot_be_read_is_logged_and_the_next_one_programmed)
{
    configure(TWO_PHYS);
    hardware.slow_accesses = {"read 5:0"};
    EXPECT_FALSE(set_fixed(100, DUPLEX_FULL));
    EXPECT_EQ(hardware.bus, (Accesses{"read 5:0", "read 6:0", "write 6:0 0x2100"}));
    const Log log = take_log();
    ASSERT_EQ(log.size(), 1U);
    EXPECT_TRUE(std::regex_match(log[0], std::regex("<3>ethtool_set_data_external_phys: [0-9]+: Failure "
                                                    "reading external phy 28:5")))
        << log[0];
}

TEST_F(external_phy, a_phy_that_cannot_be_written_is_logged_and_the_next_one_programmed)
{
    configure(TWO_PHYS);
    hardware.slow_accesses = {"write 5:4"};
    EXPECT_FALSE(set_autonegotiated(0x000F));
    EXPECT_EQ(hardware.bus, (Accesses{"read 5:4", "read 5:9", "write 5:4 0x01E0", "read 6:4", "read 6:9",
                                      "write 6:4 0x01E0", "read 6:0", "write 6:0 0x1200"}));
    const Log log = take_log();
    ASSERT_EQ(log.size(), 1U);
    EXPECT_TRUE(std::regex_match(log[0], std::regex("<3>ethtool_set_data_external_phys: [0-9]+: Failure "
                                                    "writing external phy 28:5")))
        << log[0];
}

TEST_F(external_phy, any_access_of_a_phy_that_fails_ends_its_programming)
{
    struct Case {
        const char* access;
        Accesses bus;
    };
    for (const Case& failure : std::initializer_list<Case>{
             {"read 5:4", {"read 5:4"}},
             {"read 5:9", {"read 5:4", "read 5:9"}},
             {"write 5:9", {"read 5:4", "read 5:9", "write 5:4 0x0020", "write 5:9 0x0100"}},
             {"read 5:0", {"read 5:4", "read 5:9", "write 5:4 0x0020", "write 5:9 0x0100", "read 5:0"}},
             {"write 5:0",
              {"read 5:4", "read 5:9", "write 5:4 0x0020", "write 5:9 0x0100", "read 5:0",
               "write 5:0 0x1200"}}}) {
        hardware.phys[5].fill(0);
        hardware.bus.clear();
        hardware.slow_accesses = {failure.access};
        EXPECT_FALSE(set_autonegotiated(0x0011)) << failure.access;
        EXPECT_EQ(hardware.bus, failure.bus) << failure.access;
    }
}
