#include "services/generated_files.h"
#include "settings/setting_store.h"
#include "support.h"

namespace {

using generated_files = QuarnTest;

using Lines = std::vector<std::string>;

std::string written_list(const char* title, const char* keyword, const std::vector<const char*>* items)
{
    std::vector<const char*> list;
    if (items != nullptr) {
        list = *items;
        list.push_back(nullptr);
    }
    char* text = nullptr;
    std::size_t size = 0;
    OwnedFile stream(open_memstream(&text, &size));
    write_address_list(stream.get(), title, keyword,
                       items != nullptr ? const_cast<char* const*>(list.data()) : nullptr);
    stream.reset();
    const OwnedMallocText owned_text(text);
    return {text, size};
}

std::string written(std::vector<const char*> items)
{
    return written_list("DHCP DNS servers", "nameserver", &items);
}

} // namespace

TEST_F(generated_files, a_path_without_a_slash_opens_nothing)
{
    EXPECT_EQ(open_file("resolv.conf"), nullptr);
    EXPECT_EQ(take_log(), Lines{"<2>open_file:LINE: no path for file resolv.conf"});
}

TEST_F(generated_files, a_missing_list_writes_nothing)
{
    EXPECT_EQ(written_list("DHCP DNS servers", "nameserver", nullptr), "");
}

TEST_F(generated_files, an_empty_list_writes_its_title)
{
    EXPECT_EQ(written({}), "\n# DHCP DNS servers\n");
}

TEST_F(generated_files, each_item_is_a_line_behind_the_title)
{
    EXPECT_EQ(written({"192.0.2.1", "2001:db8::1"}),
              "\n# DHCP DNS servers\nnameserver 192.0.2.1\nnameserver 2001:db8::1\n");
}

TEST_F(generated_files, a_list_without_a_title_is_its_items)
{
    const std::vector<const char*> items = {"192.0.2.1", "camera.example"};
    EXPECT_EQ(written_list(nullptr, "server -4", &items), "server -4 192.0.2.1\nserver -4 camera.example\n");
}

TEST_F(generated_files, link_local_addresses_get_the_zone_in_any_letter_case)
{
    EXPECT_EQ(written({"fe80::1", "FE80::2", "fE80:0::3", "2001:db8::1"}),
              "\n# DHCP DNS servers\nnameserver fe80::1%eth0\nnameserver FE80::2%eth0\nnameserver "
              "fE80:0::3%eth0\nnameserver 2001:db8::1\n");
}

TEST_F(generated_files, link_local_addresses_beside_fe80_get_no_zone)
{
    EXPECT_EQ(written({"fe81::1", "fe8f::1", "febf::1", "fe80", "fe8"}),
              "\n# DHCP DNS servers\nnameserver fe81::1\nnameserver fe8f::1\nnameserver febf::1\nnameserver "
              "fe80\nnameserver fe8\n");
}

TEST_F(generated_files, an_item_that_would_be_a_second_word_or_line_is_left_out)
{
    EXPECT_EQ(
        written({"192.0.2.1\noptions rotate", "192.0.2.2 192.0.2.3", "", "\t", "192.0.2.4\x7f", "192.0.2.5"}),
        "\n# DHCP DNS servers\nnameserver 192.0.2.5\n");
    EXPECT_EQ(take_log(),
              (Lines{R"(<3>write_address_list: Left out '192.0.2.1\x0aoptions rotate', which is no server)",
                     "<3>write_address_list: Left out '192.0.2.2 192.0.2.3', which is no server",
                     "<3>write_address_list: Left out '', which is no server",
                     R"(<3>write_address_list: Left out '\x09', which is no server)",
                     R"(<3>write_address_list: Left out '192.0.2.4\x7f', which is no server)"}));
}

TEST_F(generated_files, a_list_is_given_only_while_its_source_is_enabled)
{
    ASSERT_TRUE(save_setting(setting("[NTP/Manual]Servers", R"(["a.example","b.example"])").get()));
    ASSERT_TRUE(save_setting(setting("[NTP/Manual]Enabled", "true").get()));
    const OwnedStringArray list = get_enabled_string_array("[NTP/Manual]Enabled", "[NTP/Manual]Servers");
    ASSERT_TRUE(list);
    EXPECT_EQ(Lines(list.get(), list.get() + g_strv_length(list.get())), (Lines{"a.example", "b.example"}));

    ASSERT_TRUE(save_setting(setting("[NTP/Manual]Enabled", "false").get()));
    EXPECT_EQ(get_enabled_string_array("[NTP/Manual]Enabled", "[NTP/Manual]Servers"), nullptr);
}

TEST_F(generated_files, a_disabled_list_is_not_read)
{
    ASSERT_TRUE(save_setting(setting("[NTP/Manual]Servers", "7").get()));
    take_log();
    EXPECT_EQ(get_enabled_string_array("[NTP/Manual]Enabled", "[NTP/Manual]Servers"), nullptr);
    EXPECT_EQ(take_log(), Lines{});
}

TEST_F(generated_files, an_empty_list_is_none)
{
    ASSERT_TRUE(save_setting(setting("[NTP/Manual]Enabled", "true").get()));
    EXPECT_EQ(get_enabled_string_array("[NTP/Manual]Enabled", "[NTP/Manual]Servers"), nullptr);
}

TEST_F(generated_files, a_file_that_could_not_be_written_whole_is_told)
{
    OwnedFile full(std::fopen("/dev/full", "w"));
    std::fputs("nameserver 192.0.2.1\n", full.get());
    EXPECT_FALSE(close_file(std::move(full)));

    OwnedFile whole(std::fopen((scratch / "resolv.conf").c_str(), "w"));
    std::fputs("nameserver 192.0.2.1\n", whole.get());
    EXPECT_TRUE(close_file(std::move(whole)));
    EXPECT_EQ(read_text(scratch / "resolv.conf"), "nameserver 192.0.2.1\n");
}
