#include "link_hardware.h"
#include "mdio_marvell.h"

#include <gtest/gtest.h>

namespace {

class mdio_marvell : public testing::Test {
protected:
    mdio_marvell()
    {
        hardware.phys[5].fill(0x1234);
        hardware.phys[31].fill(0x5678);
    }
    bool read(unsigned switch_id, unsigned phy_id, unsigned reg, const char* interface = "eth0")
    {
        return mdio_marvell_external_phy_read(interface, static_cast<std::uint8_t>(switch_id),
                                              static_cast<std::uint8_t>(phy_id),
                                              static_cast<std::uint8_t>(reg), &value);
    }
    bool write(unsigned switch_id, unsigned phy_id, unsigned reg, unsigned new_value)
    {
        return mdio_marvell_external_phy_write(
            "eth0", static_cast<std::uint8_t>(switch_id), static_cast<std::uint8_t>(phy_id),
            static_cast<std::uint8_t>(reg), static_cast<std::uint16_t>(new_value));
    }
    LinkHardware hardware;
    std::uint16_t value = UNTOUCHED;
    static constexpr std::uint16_t UNTOUCHED = 0xABCD;
};

using Accesses = std::vector<std::string>;

} // namespace

TEST_F(mdio_marvell, a_read_is_a_command_to_the_switch_whose_answer_stands_in_the_data_register)
{
    EXPECT_TRUE(read(28, 5, 4));
    EXPECT_EQ(value, 0x1234);
    EXPECT_EQ(hardware.accesses, (Accesses{"get 28.24", "set 28.24 0x98A4", "get 28.24", "get 28.25"}));
    EXPECT_EQ(hardware.bus, Accesses{"read 5:4"});
}

TEST_F(mdio_marvell, a_write_puts_the_value_into_the_data_register_before_the_command)
{
    EXPECT_TRUE(write(28, 31, 31, 0x4321));
    EXPECT_EQ(hardware.accesses,
              (Accesses{"get 28.24", "set 28.25 0x4321", "set 28.24 0x97FF", "get 28.24"}));
    EXPECT_EQ(hardware.bus, Accesses{"write 31:31 0x4321"});
    EXPECT_EQ(hardware.phys[31][31], 0x4321);
    EXPECT_EQ(hardware.phys[31][30], 0x5678);
}

TEST_F(mdio_marvell, a_busy_switch_is_polled_until_it_is_idle)
{
    hardware.busy_polls = 3;
    EXPECT_TRUE(read(28, 5, 0));
    EXPECT_EQ(value, 0x1234);
    EXPECT_EQ(hardware.accesses, (Accesses{"get 28.24", "set 28.24 0x98A0", "get 28.24", "get 28.24",
                                           "get 28.24", "get 28.24", "get 28.25"}));
}

TEST_F(mdio_marvell, a_switch_that_stays_busy_fails_the_access_and_is_not_polled_for_ever)
{
    hardware.slow_accesses = {"read 5:0", "write 5:0"};
    EXPECT_FALSE(read(28, 5, 0));
    EXPECT_EQ(value, UNTOUCHED);
    EXPECT_EQ(hardware.accesses.size(), 102U);
    EXPECT_FALSE(write(28, 5, 0, 1));
}

TEST_F(mdio_marvell, a_busy_switch_is_given_no_command)
{
    hardware.busy_polls = 1000;
    EXPECT_FALSE(read(28, 5, 0));
    EXPECT_FALSE(write(28, 5, 0, 1));
    EXPECT_FALSE(read(28, 5, 0));
    EXPECT_EQ(hardware.bus, Accesses{"read 5:0"});
    EXPECT_EQ(hardware.phys[5][0], 0x1234);
}

TEST_F(mdio_marvell, every_access_that_the_kernel_refuses_fails_the_whole)
{
    for (int answered = 0; answered < 4; ++answered) {
        hardware.answered_accesses = answered;
        EXPECT_FALSE(read(28, 5, 0)) << answered;
        hardware.answered_accesses = answered;
        EXPECT_FALSE(write(28, 5, 0, 1)) << answered;
    }
    EXPECT_EQ(value, UNTOUCHED);
    hardware.answered_accesses = 4;
    EXPECT_TRUE(read(28, 5, 0));
}

TEST_F(mdio_marvell, an_interface_that_is_not_there_fails_the_access)
{
    EXPECT_FALSE(read(28, 5, 0, "eth9"));
    EXPECT_FALSE(read(28, 5, 0, "an interface name that is too long"));
    EXPECT_EQ(hardware.accesses, Accesses());
}

TEST_F(mdio_marvell, where_there_is_no_switch_the_busy_bit_never_clears)
{
    EXPECT_FALSE(read(3, 5, 0));
    EXPECT_EQ(hardware.bus, Accesses());
}

TEST_F(mdio_marvell, numbers_above_31_reach_no_other_phy)
{
    EXPECT_FALSE(read(28, 37, 0));
    EXPECT_FALSE(read(28, 5, 32));
    EXPECT_FALSE(read(60, 5, 0));
    EXPECT_FALSE(write(28, 37, 0, 1));
    EXPECT_EQ(hardware.accesses, Accesses());
    EXPECT_EQ(hardware.phys[5][0], 0x1234);
}
