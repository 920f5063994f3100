#include "platform_fixture.h"

#include <memory>

namespace {

class platform_configuration : public PlatformTest {
protected:
    void TearDown() override
    {
        if (configuration != nullptr)
            trell_core_configuration_deinit(configuration);
        PlatformTest::TearDown();
    }

    int open(const std::string& text)
    {
        write_text(scratch / "quarn.conf", text);
        return trell_core_configuration_init("quarn", &configuration);
    }

    std::string string_value(const char* key)
    {
        char* value = nullptr;
        const int result = trell_core_configuration_get_string_value(configuration, key, &value);
        const std::unique_ptr<char, decltype(&std::free)> owned(value, std::free);
        return result == 0 ? value : "(none)";
    }

    int int_value(const char* key)
    {
        int value = -1;
        trell_core_configuration_get_int_value(configuration, key, &value);
        return value;
    }

    // "true", "false" or "(none)".
    std::string bool_value(const char* key)
    {
        bool value = false;
        if (trell_core_configuration_get_bool_value(configuration, key, &value) != 0)
            return "(none)";
        return value ? "true" : "false";
    }

    // False when the call fails.
    bool int_array(const char* key, std::vector<int>& numbers)
    {
        int* values = nullptr;
        std::size_t count = 0;
        if (trell_core_configuration_get_arrayofint_value(configuration, key, &values, &count) != 0)
            return false;
        numbers.assign(values, values + count);
        trell_core_free_int_array(values);
        return true;
    }

    TrellConfiguration* configuration = nullptr;
};

} // namespace

TEST_F(platform_configuration, a_missing_file_is_a_configuration_without_values)
{
    ASSERT_EQ(trell_core_configuration_init("quarn", &configuration), 0);
    EXPECT_EQ(string_value("eth0_max_speed"), "(none)");
    EXPECT_EQ(take_log(), Lines{});
}

TEST_F(platform_configuration, a_file_that_cannot_be_read_is_a_failure)
{
    std::filesystem::create_directory(scratch / "quarn.conf");
    EXPECT_NE(trell_core_configuration_init("quarn", &configuration), 0);
    EXPECT_EQ(configuration, nullptr);
    EXPECT_EQ(take_log().size(), 1U);
}

TEST_F(platform_configuration, values_of_every_type_are_read)
{
    ASSERT_EQ(open("[quarn]\neth0_max_speed=1000\nenable_disable_pause_frame=true\nexternal_phy_ids=1;2;17\n"
                   "switch_phy_id=16\n"),
              0);
    EXPECT_EQ(string_value("eth0_max_speed"), "1000");
    EXPECT_EQ(bool_value("enable_disable_pause_frame"), "true");
    EXPECT_EQ(int_value("switch_phy_id"), 16);
    std::vector<int> ids;
    EXPECT_TRUE(int_array("external_phy_ids", ids));
    EXPECT_EQ(ids, (std::vector<int>{1, 2, 17}));
}

TEST_F(platform_configuration, a_list_may_end_with_a_separator_and_may_be_empty)
{
    ASSERT_EQ(open("[quarn]\nended=1;2;\nempty=\n"), 0);
    std::vector<int> numbers;
    EXPECT_TRUE(int_array("ended", numbers));
    EXPECT_EQ(numbers, (std::vector<int>{1, 2}));
    EXPECT_TRUE(int_array("empty", numbers));
    EXPECT_EQ(numbers, std::vector<int>{});
}

TEST_F(platform_configuration, a_value_of_another_type_is_a_failure)
{
    ASSERT_EQ(open("[quarn]\nword=fast\nnumber=1\nlarge=99999999999\nhexadecimal=0x10\nlist=1;two\n"), 0);
    EXPECT_EQ(bool_value("word"), "(none)");
    EXPECT_EQ(bool_value("number"), "(none)");
    for (const char* const key : {"word", "large", "hexadecimal"})
        EXPECT_EQ(int_value(key), -1) << key;
    std::vector<int> numbers;
    EXPECT_FALSE(int_array("list", numbers));
    EXPECT_FALSE(int_array("missing", numbers));
}

TEST_F(platform_configuration, a_line_that_does_not_parse_is_logged_with_its_number_and_loses_nothing_else)
{
    ASSERT_EQ(open("# ours\n[quarn]\nswitch_phy_id=16\nwhat is this\n\n=5\neth0_max_speed=100\r\nlast\x01"),
              0);
    EXPECT_EQ(int_value("switch_phy_id"), 16);
    EXPECT_EQ(string_value("eth0_max_speed"), "100");
    EXPECT_EQ(
        take_log(),
        (Lines{"<3>readable_lines: SCRATCH/quarn.conf, line 4 cannot be read and is left out: what is this",
               "<3>readable_lines: SCRATCH/quarn.conf, line 6 cannot be read and is left out: =5",
               "<3>readable_lines: SCRATCH/quarn.conf, line 8 cannot be read and is left out: last\\x01"}));
}

TEST_F(platform_configuration, lines_before_the_first_group_and_behind_a_broken_group_line_belong_to_no_group)
{
    ASSERT_EQ(
        open("eth0_max_speed=10\n[quarn]\nswitch_phy_id=16\n[other\nswitch_phy_id=1\n[quarn]\nnumber=7\n"),
        0);
    EXPECT_EQ(string_value("eth0_max_speed"), "(none)");
    EXPECT_EQ(int_value("switch_phy_id"), 16);
    EXPECT_EQ(int_value("number"), 7);
    EXPECT_EQ(take_log().size(), 3U);
}

TEST_F(platform_configuration, a_zero_byte_in_a_line_leaves_the_line_out)
{
    ASSERT_EQ(open(std::string("[quarn]\nswitch_phy_id=1\0006\nnumber=7\n", 34)), 0);
    EXPECT_EQ(int_value("switch_phy_id"), -1);
    EXPECT_EQ(int_value("number"), 7);
}

TEST_F(platform_configuration, a_byte_order_mark_is_dropped)
{
    ASSERT_EQ(open("\xef\xbb\xbf[quarn]\nswitch_phy_id=16\n"), 0);
    EXPECT_EQ(int_value("switch_phy_id"), 16);
    EXPECT_EQ(take_log(), Lines{});
}
