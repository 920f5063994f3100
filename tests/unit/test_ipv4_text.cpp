#include "core/ipv4_text.h"

#include <gtest/gtest.h>

#include <string>

TEST(ipv4_text, turns_prefix_lengths_into_netmasks)
{
    const std::pair<unsigned, const char*> cases[] = {
        {0, "0.0.0.0"},          {1, "128.0.0.0"},
        {8, "255.0.0.0"},        {16, "255.255.0.0"},
        {23, "255.255.254.0"},   {24, "255.255.255.0"},
        {31, "255.255.255.254"}, {32, "255.255.255.255"},
        {33, "255.255.255.255"}, {UINT32_MAX, "255.255.255.255"},
    };
    for (const auto& [length, netmask] : cases)
        EXPECT_STREQ(prefix_to_netmask(length).get(), netmask);
}

TEST(ipv4_text, turns_netmasks_into_prefix_lengths_and_holes_into_0)
{
    const std::pair<const char*, unsigned> cases[] = {
        {"255.255.255.0", 24},
        {"255.255.255.252", 30},
        {"255.255.255.255", 32},
        {"128.0.0.0", 1},
        {"0.0.0.0", 0},
        {"255.0.255.0", 0},
        {"0.255.255.255", 0},
        {"24", 0},
        {"", 0},
        {"255.255.255.0 ", 0},
        {nullptr, 0},
    };
    for (const auto& [netmask, length] : cases)
        EXPECT_EQ(netmask_to_prefix(netmask), length) << (netmask != nullptr ? netmask : "null");
}

TEST(ipv4_text, reads_an_address_in_host_byte_order)
{
    EXPECT_EQ(ipv4_str_to_uint("1.2.3.4"), 0x01020304U);
    EXPECT_EQ(ipv4_str_to_uint("255.255.255.255"), 0xFFFFFFFFU);
    for (const char* text : {"", "1.2.3", "1.2.3.4.5", "1.2.3.256", "host", "1.2.3.4/24"})
        EXPECT_EQ(ipv4_str_to_uint(text), 0U) << text;
    EXPECT_EQ(ipv4_str_to_uint(nullptr), 0U);
}
