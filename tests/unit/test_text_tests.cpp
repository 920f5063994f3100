#include "api/text_tests.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct TextCase {
    const char* text;
    bool expected;
};

void expect_all(bool (*test)(const char* text), std::initializer_list<TextCase> cases)
{
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(test(text), expected) << (text != nullptr ? text : "null");
}

const std::string HUGE_TEXT(1'000'000, '1');
const std::string HUGE_NAME(1'000'000, 'a');

std::string labels(std::size_t length)
{
    std::string name;
    while (name.size() < length)
        name += name.size() % 2 == 0 ? 'a' : '.';
    return name;
}

} // namespace

TEST(text_tests, a_dotted_quad_is_four_octets_without_leading_zeros)
{
    expect_all(is_ipv4_dotted_quad, {
                                        {"0.0.0.0", true},
                                        {"1.2.3.4", true},
                                        {"10.20.99.100", true},
                                        {"101.109.110.119", true},
                                        {"120.199.200.249", true},
                                        {"255.255.255.255", true},
                                        {"240.0.0.1", true},
                                        {nullptr, false},
                                        {"", false},
                                        {"1.2.3", false},
                                        {"1.2.3.", false},
                                        {"1.2.3.4.", false},
                                        {"1.2.3.4.5", false},
                                        {".1.2.3", false},
                                        {"1..2.3", false},
                                        {"01.2.3.4", false},
                                        {"1.2.3.00", false},
                                        {"1.2.3.256", false},
                                        {"999.1.1.1", false},
                                        {"1.2.3.1000", false},
                                        {"1.2.3.+4", false},
                                        {"1.2.3.-4", false},
                                        {"0x1.2.3.4", false},
                                        {"a.b.c.d", false},
                                        {"16909060", false},
                                        {"1.2.3.4/24", false},
                                        {"1,2,3,4", false},
                                        {"1x2x3x4", false},
                                        {"::1.2.3.4", false},
                                        {" 1.2.3.4", false},
                                        {"1.2.3.4 ", false},
                                        {"1.2.3.4\n", false},
                                        {"1.2.3.4\r", false},
                                        {"1.2.3.4\n1.2.3.4", false},
                                        {"1.2.3.4\x0b", false},
                                        {"1.2.3.4\xc2\x85", false},
                                        {"1.2.3.4\u2028", false},
                                        {"1.2.3.\xff", false},
                                        {"١.٢.٣.٤", false},
                                        {HUGE_TEXT.c_str(), false},
                                    });
}

TEST(text_tests, a_unicast_address_is_below_multicast_reserved_and_beyond_loopback)
{
    expect_all(is_unicast_ipv4_address,
               {
                   {"1.0.0.0", true},         {"1.2.3.4", true},         {"126.255.255.255", true},
                   {"128.0.0.0", true},       {"169.254.1.1", true},     {"192.168.0.255", true},
                   {"223.255.255.255", true}, {"239.255.255.255", true}, {nullptr, false},
                   {"0.0.0.0", false},        {"0.1.2.3", false},        {"0.255.255.255", false},
                   {"127.0.0.0", false},      {"127.0.0.1", false},      {"127.255.255.255", false},
                   {"240.0.0.0", false},      {"240.0.0.1", false},      {"255.255.255.255", false},
                   {"1.2.3.04", false},       {"1.2.3.4\n", false},      {"camera", false},
               });
}

TEST(text_tests, an_ipv6_address_is_what_the_kernel_takes)
{
    expect_all(is_ipv6_address, {
                                    {"::", true},
                                    {"::1", true},
                                    {"fe80::1", true},
                                    {"2001:db8:0:0:0:0:0:1", true},
                                    {"FF02::FB", true},
                                    {"::ffff:1.2.3.4", true},
                                    {nullptr, false},
                                    {"", false},
                                    {"1.2.3.4", false},
                                    {"fe80::1%eth0", false},
                                    {"fe80::1/64", false},
                                    {"[fe80::1]", false},
                                    {"fe80::1::2", false},
                                    {"12345::", false},
                                    {":::", false},
                                    {"fe80::1\n", false},
                                    {" fe80::1", false},
                                    {"fe80::\xff", false},
                                    {HUGE_TEXT.c_str(), false},
                                });
}

TEST(text_tests, a_hostname_is_labels_with_at_least_one_letter)
{
    expect_all(is_valid_hostname, {
                                      {"a", true},          {"camera", true}, {"camera-1.example.org", true},
                                      {"Camera_2", true},   {"1a", true},     {"1.2.3.x", true},
                                      {"a.1", true},        {"a--_b", true},  {nullptr, false},
                                      {"", false},          {".", false},     {"1", false},
                                      {"1.2.3.4", false},   {"1-2_3", false}, {"-a", false},
                                      {"a-", false},        {"_a", false},    {"a_", false},
                                      {"a.", false},        {".a", false},    {"a..b", false},
                                      {"a.-b", false},      {"a b", false},   {"a;reboot", false},
                                      {"$(reboot)", false}, {"a\n", false},   {"a\r\n", false},
                                      {"a\nb", false},      {"a\x0c", false}, {"a\u2029", false},
                                      {"kämera", false},    {"a\xff", false}, {HUGE_NAME.c_str(), false},
                                  });
}

TEST(text_tests, a_hostname_of_63_characters_passes_and_of_64_fails)
{
    EXPECT_TRUE(is_valid_hostname(std::string(63, 'a').c_str()));
    EXPECT_FALSE(is_valid_hostname(std::string(64, 'a').c_str()));
    EXPECT_TRUE(is_valid_hostname(labels(63).c_str()));
    EXPECT_FALSE(is_valid_hostname(labels(65).c_str()));
}

TEST(text_tests, an_ipv4_address_becomes_a_number_in_host_byte_order)
{
    EXPECT_EQ(ipv4_to_host_order("1.2.3.4"), 0x01020304u);
    EXPECT_EQ(ipv4_to_host_order("255.255.255.255"), 0xFFFFFFFFu);
    for (const char* text : {"0.0.0.0", "", "1.2.3", "1.2.3.4 ", "camera", "::1"})
        EXPECT_EQ(ipv4_to_host_order(text), 0u) << text;
    EXPECT_EQ(ipv4_to_host_order(nullptr), 0u);
}

TEST(text_tests, a_prefix_length_is_plain_digits_within_bounds)
{
    constexpr std::uint32_t UNTOUCHED = 4711;
    const struct {
        const char* text;
        std::uint32_t minimum;
        std::uint32_t maximum;
        std::uint32_t length;
    } cases[] = {
        {"0", 0, 32, 0},
        {"1", 1, 128, 1},
        {"24", 1, 32, 24},
        {"32", 1, 32, 32},
        {"128", 1, 128, 128},
        {"4294967295", 0, UINT32_MAX, UINT32_MAX},
        {"0", 1, 128, UNTOUCHED},
        {"33", 1, 32, UNTOUCHED},
        {"129", 1, 128, UNTOUCHED},
        {"4294967296", 0, UINT32_MAX, UNTOUCHED},
        {"18446744073709551640", 0, 32, UNTOUCHED},
        {"", 0, 32, UNTOUCHED},
        {"024", 0, 32, UNTOUCHED},
        {"00", 0, 32, UNTOUCHED},
        {"24.0", 0, 32, UNTOUCHED},
        {"24.7", 0, 32, UNTOUCHED},
        {"2.4e1", 0, 32, UNTOUCHED},
        {"+24", 0, 32, UNTOUCHED},
        {"-1", 0, 32, UNTOUCHED},
        {" 24", 0, 32, UNTOUCHED},
        {"24 ", 0, 32, UNTOUCHED},
        {"24\n", 0, 32, UNTOUCHED},
        {"24/8", 0, 32, UNTOUCHED},
        {"0x18", 0, 32, UNTOUCHED},
        {"\"24\"", 0, 32, UNTOUCHED},
        {"true", 0, 32, UNTOUCHED},
        {"٢", 0, 32, UNTOUCHED},
        {nullptr, 0, 32, UNTOUCHED},
        {HUGE_TEXT.c_str(), 0, 32, UNTOUCHED},
    };
    for (const auto& [text, minimum, maximum, expected] : cases) {
        std::uint32_t length = UNTOUCHED;
        EXPECT_EQ(parse_prefix_length(text, minimum, maximum, length), expected != UNTOUCHED)
            << (text != nullptr ? text : "null");
        EXPECT_EQ(length, expected) << (text != nullptr ? text : "null");
    }
}
