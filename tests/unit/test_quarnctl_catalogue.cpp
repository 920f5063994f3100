#include "api/json_response.h"
#include "catalogue.h"
#include "documents.h"
#include "net/ethtool.h"
#include "net/routes.h"
#include "report.h"
#include "services/tcp_ports.h"
#include "settings/bootenv.h"
#include "settings/setting_def.h"
#include "settings/setting_store.h"
#include "support.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using quarnctl::Storage;

// What the daemon's row does with a value says where it is kept.
Storage storage_of(const SettingDef& row)
{
    constexpr bool (*BOOT_ENVIRONMENT_SAVERS[])(const cJSON*) = {
        save_bootenv_setting<IPV4_DHCP_ENABLED>,   save_bootenv_setting<IPV4_LINK_LOCAL_ENABLED>,
        save_bootenv_setting<IPV4_MANUAL_ADDRESS>, save_bootenv_setting<IPV4_MANUAL_NETMASK>,
        save_bootenv_setting<IPV6_ENABLED>,        save_bootenv_setting<IPV4_MANUAL_DEFAULT_GATEWAY>,
        save_bootenv_setting<HOSTNAME_NAME>,       save_bootenv_setting<IPV6_MANUAL_ADDRESSES>,
    };
    if (row.save == hold_setting)
        return Storage::MEMORY;
    if (row.save == save_setting || row.save == save_link_speed || row.save == save_manual_v4_gws)
        return Storage::STORE;
    for (const auto saver : BOOT_ENVIRONMENT_SAVERS) {
        if (row.save == saver)
            return Storage::BOOT_ENVIRONMENT;
    }
    return row.save == nullptr && row.read == read_setting ? Storage::READ_ONLY : Storage::LIVE;
}

std::string line_of(std::string_view key, Storage storage, bool can_be_set, std::uintptr_t flags,
                    const char* default_json)
{
    return std::string(key) + " | " + quarnctl::name_of(storage) + (can_be_set ? " | set | " : " | read | ") +
           std::to_string(flags) + " | " + (default_json != nullptr ? default_json : "(none)");
}

const quarnctl::Setting& row_of(std::string_view key)
{
    return *quarnctl::find_setting(key);
}

std::string whole_file(const std::string& path)
{
    std::ifstream file(path);
    std::stringstream content;
    content << file.rdbuf();
    return content.str();
}

} // namespace

TEST(quarnctl_catalogue, is_the_daemons_table_row_by_row)
{
    std::vector<std::string> expected;
    for (const SettingDef* row = SETTING_TABLE; row->key != nullptr; ++row)
        expected.push_back(line_of(row->key, storage_of(*row), row->save != nullptr && row->verify != nullptr,
                                   row->apply_flags, row->default_json));
    std::vector<std::string> actual;
    for (const quarnctl::Setting& setting : quarnctl::all_settings())
        actual.push_back(line_of(setting.key, setting.storage, quarnctl::can_be_set(setting),
                                 setting.apply_flags, setting.default_json));
    EXPECT_EQ(actual, expected);
}

class quarnctl_catalogue_values : public QuarnTest {};

// The daemon's own verifiers decide what a type is worth.
TEST_F(quarnctl_catalogue_values, every_default_that_is_a_value_is_accepted_by_its_row)
{
    for (const SettingDef* row = SETTING_TABLE; row->key != nullptr; ++row) {
        if (row->verify == nullptr)
            continue;
        const OwnedJson value = with_key(quarnctl::default_of(row_of(row->key)), row->key);
        const auto response = json_response_new();
        const bool is_null = cJSON_IsNull(value.get());
        const bool is_accepted = row->verify(value.get(), response.get());
        if (is_null)
            EXPECT_EQ(is_accepted, quarnctl::can_be_null(row_of(row->key))) << row->key;
        else
            EXPECT_TRUE(is_accepted) << row->key;
    }
}

TEST_F(quarnctl_catalogue_values, a_row_takes_null_where_the_catalogue_says_so)
{
    for (const SettingDef* row = SETTING_TABLE; row->key != nullptr; ++row) {
        if (row->verify == nullptr || row->save == nullptr)
            continue;
        const OwnedJson value = with_key(OwnedJson(cJSON_CreateNull()), row->key);
        const auto response = json_response_new();
        EXPECT_EQ(row->verify(value.get(), response.get()), quarnctl::can_be_null(row_of(row->key)))
            << row->key;
    }
}

TEST(quarnctl_catalogue, a_key_is_found_byte_by_byte)
{
    EXPECT_NE(quarnctl::find_setting("[NIC/eth0]MTU"), nullptr);
    EXPECT_EQ(quarnctl::find_setting("[NIC/eth0]mtu"), nullptr);
    EXPECT_EQ(quarnctl::find_setting("[NIC/eth0]MTU "), nullptr);
    EXPECT_EQ(quarnctl::find_setting(""), nullptr);
}

TEST(quarnctl_catalogue, only_what_is_stored_is_configuration)
{
    EXPECT_TRUE(quarnctl::is_configuration(row_of("[NIC/eth0]MTU")));
    EXPECT_TRUE(quarnctl::is_configuration(row_of("[IPv4/Manual]Address")));
    EXPECT_FALSE(quarnctl::is_configuration(row_of("[IPv4/DHCP]Address")));
    EXPECT_FALSE(quarnctl::is_configuration(row_of("[IPv4/Actual]Address")));
    EXPECT_FALSE(quarnctl::is_configuration(row_of("[TCP/Port]InUse")));
}

TEST(quarnctl_catalogue, the_speed_without_a_default_counts_as_100)
{
    EXPECT_EQ(print(quarnctl::default_of(row_of("[NIC/eth0/AutoNegotiated]LinkSpeed")).get()), "100");
    EXPECT_EQ(print(quarnctl::default_of(row_of("[IPv4/Manual]Netmask")).get()), "24");
}

TEST(quarnctl_catalogue, the_effect_of_a_change_is_told_in_the_order_in_which_it_is_carried_out)
{
    EXPECT_EQ(
        quarnctl::effect_of(row_of("[RTSP]Port")),
        "loads the IPv4 packet filter; loads the IPv6 packet filter; sets the traffic shaping of ports");
    EXPECT_EQ(quarnctl::effect_of(row_of("[IPv4/LocalLink]Enabled")), "nothing at once");
}

TEST(quarnctl_catalogue, the_page_of_the_settings_is_the_one_that_is_checked_in)
{
    EXPECT_EQ(whole_file(QUARN_SOURCE_DIR "/docs/settings.md"), quarnctl::settings_document())
        << "run: quarnctl settings-document > docs/settings.md";
}

TEST(quarnctl_catalogue, the_manual_page_of_the_settings_is_the_one_that_is_checked_in)
{
    EXPECT_EQ(whole_file(QUARN_SOURCE_DIR "/docs/man/quarn-settings.7.scd"), quarnctl::settings_manual())
        << "run: quarnctl settings-manual > docs/man/quarn-settings.7.scd";
}

TEST(quarnctl_catalogue, a_fault_names_the_key_and_what_is_accepted)
{
    EXPECT_EQ(quarnctl::fault_text({"[NIC/eth0]MTU", 3, "Value wasn't a number"}),
              "[NIC/eth0]MTU: Value wasn't a number (accepted: a number from 1200 to 1500)");
    EXPECT_EQ(quarnctl::fault_text({"[NIC/eth0]MTO", 7, "Unknown key"}),
              "[NIC/eth0]MTO: Unknown key; did you mean [NIC/eth0]MTU or [NIC/eth0]MAC?");
    EXPECT_EQ(quarnctl::fault_text({"", 1, "There was an error in applying the settings"}),
              "There was an error in applying the settings");
}

TEST(quarnctl_catalogue, a_fault_cannot_forge_a_line_or_speak_to_the_terminal)
{
    EXPECT_EQ(quarnctl::fault_text({"", 5, "'1\n\x1b[2J\x7f' isn't a valid ipv4 address"}),
              "'1\\x0a\\x1b[2J\\x7f' isn't a valid ipv4 address");
}
