#include "settings/setting_store.h"
#include "support.h"

#include <sqlite3.h>

namespace {

class setting_store : public QuarnTest {};

using Log = std::vector<std::string>;

// The stored value of a framework key, read past the daemon's own memory.
std::string stored(const SettingDef* row)
{
    OwnedJson value;
    return get_setting_not_default(row, value) ? print(value.get()) : "(none)";
}

} // namespace

TEST_F(setting_store, maps_setting_keys_to_framework_keys)
{
    const std::pair<const char*, const char*> cases[] = {
        {"[IPv4/DHCP]Enabled", "IPv4.DHCP.Enabled"},
        {"[TrafficShaping]Rtp/BurstPercent", "TrafficShaping.Rtp.BurstPercent"},
        {"[ab]", "ab."},
        {"[abc", "abc"},
    };
    for (const auto& [key, expected] : cases) {
        OwnedText framework_key;
        EXPECT_TRUE(get_trell_settings_key(key, framework_key)) << key;
        EXPECT_STREQ(framework_key.get(), expected);
    }
    EXPECT_EQ(take_log(), Log());
}

TEST_F(setting_store, refuses_what_is_no_setting_key)
{
    for (const char* key : {"[a]", "IPv4.DHCP", "", "[", "a[b]c"}) {
        OwnedText framework_key(g_strdup("untouched"));
        EXPECT_FALSE(get_trell_settings_key(key, framework_key)) << key;
        EXPECT_STREQ(framework_key.get(), "untouched");
        EXPECT_EQ(take_log(), Log{"<4>get_trell_settings_key: Quarn setting name '" + std::string(key) +
                                  "' is not able to be parsed"});
    }
    OwnedText framework_key;
    EXPECT_FALSE(get_trell_settings_key(nullptr, framework_key));
    EXPECT_EQ(take_log(), Log{"<2>get_trell_settings_key:LINE: Passed NULL pointer for quarn setting name"});
}

TEST_F(setting_store, finds_every_row_and_only_by_its_exact_key)
{
    for (const SettingDef* row = SETTING_TABLE; row->key != nullptr; ++row)
        EXPECT_EQ(find_setting(row->key), row);
    for (const char* key :
         {"[ipv4]Enabled", "[IPv4]enabled", "[IPv4] Enabled", "[IPv4]Enabled ", "", "IPv4.Enabled"})
        EXPECT_EQ(find_setting(key), nullptr) << key;
    EXPECT_EQ(find_setting(nullptr), nullptr);
}

TEST_F(setting_store, visits_every_row_in_table_order)
{
    char* text = nullptr;
    std::size_t size = 0;
    {
        const OwnedFile stream(open_memstream(&text, &size));
        for_each_setting(
            [](const SettingDef*, FILE* out, const char* key) { std::fprintf(out, "%s\n", key); },
            stream.get());
    }
    const OwnedMallocText visited(text);
    std::string expected;
    for (const SettingDef* row = SETTING_TABLE; row->key != nullptr; ++row)
        expected += std::string(row->key) + "\n";
    EXPECT_EQ(visited.get(), expected);
}

TEST_F(setting_store, reads_the_default_until_something_is_stored)
{
    EXPECT_EQ(value_of("[NIC/eth0]MTU"), "1500");
    EXPECT_EQ(stored(find_setting("[NIC/eth0]MTU")), "(none)");
    EXPECT_TRUE(save_setting(setting("[NIC/eth0]MTU", "1400").get()));
    EXPECT_EQ(value_of("[NIC/eth0]MTU"), "1400");
    restart_store();
    EXPECT_EQ(value_of("[NIC/eth0]MTU"), "1400");
    EXPECT_EQ(take_log(), Log());
}

TEST_F(setting_store, saving_the_same_value_twice_stores_nothing_the_second_time)
{
    EXPECT_TRUE(save_setting(setting("[NIC/eth0]MTU", "1400").get()));
    EXPECT_FALSE(save_setting(setting("[NIC/eth0]MTU", "1400").get()));
    EXPECT_EQ(take_log(),
              Log{"<7>save_or_hold_setting:LINE: The setting [NIC/eth0]MTU is not being changed"});
    EXPECT_TRUE(
        save_or_hold_setting(setting("[NIC/eth0]MTU", "1400").get(), Keep::STORED, Unchanged::WRITTEN));
}

TEST_F(setting_store, a_held_value_is_read_until_the_daemon_restarts)
{
    EXPECT_TRUE(hold_setting(setting("[IPv4/DHCP]Address", "\"10.0.0.5\"").get()));
    EXPECT_EQ(value_of("[IPv4/DHCP]Address"), "\"10.0.0.5\"");
    restart_store();
    EXPECT_EQ(value_of("[IPv4/DHCP]Address"), "null");
}

TEST_F(setting_store, a_held_value_shadows_the_stored_one_and_a_later_save_does_not_remove_it)
{
    EXPECT_TRUE(hold_setting(setting("[NIC/eth0]MTU", "1300").get()));
    EXPECT_TRUE(save_setting(setting("[NIC/eth0]MTU", "1400").get()));
    EXPECT_EQ(value_of("[NIC/eth0]MTU"), "1300");
    restart_store();
    EXPECT_EQ(value_of("[NIC/eth0]MTU"), "1400");
}

TEST_F(setting_store, unknown_and_unreadable_keys_give_no_value)
{
    EXPECT_EQ(get_json_value("[No]Such"), nullptr);
    EXPECT_EQ(get_json_value("[TCP/Port]InUse"), nullptr);
    EXPECT_EQ(take_log(), (Log{"<3>get_json_value: unrecognized JSON key [No]Such",
                               "<3>get_json_value: JSON key [TCP/Port]InUse has no read_func"}));
}

TEST_F(setting_store, a_failing_reader_is_reported)
{
    // No eth0 with this index exists, so the kernel reports no address.
    EXPECT_EQ(get_json_value("[IPv4/Actual]Address"), nullptr);
    EXPECT_EQ(take_important_log().back(),
              "<3>get_json_value: JSON key [IPv4/Actual]Address fails read_func");
}

TEST_F(setting_store, set_json_value_reports_every_way_to_fail)
{
    EXPECT_FALSE(set_json_value(nullptr));
    EXPECT_FALSE(set_json_value(setting("[No]Such", "1").get()));
    EXPECT_FALSE(set_json_value(setting("[IPv4]Enabled", "false").get()));
    EXPECT_FALSE(set_json_value(setting("[NIC/eth0]MTU", "1500").get()));
    EXPECT_EQ(take_important_log(),
              (Log{"<2>set_json_value:LINE: Unable to set json value because of null pointer",
                   "<3>set_json_value: unrecognized JSON key [No]Such",
                   "<3>set_json_value: JSON key [IPv4]Enabled has no save_func",
                   "<3>set_json_value: JSON key [NIC/eth0]MTU fails ave_func"}));
    EXPECT_TRUE(set_json_value(setting("[NIC/eth0]MTU", "1400").get()));
    EXPECT_EQ(value_of("[NIC/eth0]MTU"), "1400");
}

TEST_F(setting_store, tells_whether_a_setting_is_being_changed)
{
    EXPECT_FALSE(setting_is_being_changed(setting("[NIC/eth0]MTU", "1500").get()));
    EXPECT_TRUE(setting_is_being_changed(setting("[NIC/eth0]MTU", "1501").get()));
    EXPECT_TRUE(setting_is_being_changed(setting("[NIC/eth0]MTU", "\"1500\"").get()));
    EXPECT_EQ(take_log(), Log());
    EXPECT_TRUE(setting_is_being_changed(setting("[TCP/Port]InUse", "80").get()));
    EXPECT_FALSE(setting_is_being_changed(json("1").get()));
    EXPECT_FALSE(setting_is_being_changed(nullptr));
    EXPECT_EQ(take_log(),
              (Log{"<3>get_json_value: JSON key [TCP/Port]InUse has no read_func",
                   "<4>setting_is_being_changed: Couldn't read the existing setting for [TCP/Port]InUse",
                   "<3>setting_is_being_changed: Setting object didn't contain setting key",
                   "<3>setting_is_being_changed: NULL setting pointer passed"}));
}

TEST_F(setting_store, restores_a_default_through_the_row_s_own_saver)
{
    EXPECT_TRUE(hold_setting(setting("[IPv4/DHCP]Gateways", "[\"10.0.0.1\"]").get()));
    EXPECT_TRUE(restore_setting_default("[IPv4/DHCP]Gateways"));
    EXPECT_EQ(value_of("[IPv4/DHCP]Gateways"), "[]");
    EXPECT_FALSE(restore_setting_default("[No]Such"));
    EXPECT_FALSE(restore_setting_default("[NIC/eth0/AutoNegotiated]LinkSpeed"));
    EXPECT_EQ(take_log(), (Log{"<3>restore_setting_default: Could not get setting [No]Such",
                               "<3>restore_setting_default: Could not parse default value '(null)' of "
                               "[NIC/eth0/AutoNegotiated]LinkSpeed"}));
}

TEST_F(setting_store, typed_getters_read_their_type)
{
    EXPECT_TRUE(get_bool("[IPv4]Enabled"));
    EXPECT_EQ(get_int("[NIC/eth0]MTU"), 1500);
    EXPECT_EQ(get_string("[Hostname]Domain"), nullptr);
    hold_setting(setting("[Hostname]Domain", "\"example.net\"").get());
    EXPECT_STREQ(get_string("[Hostname]Domain").get(), "example.net");
    EXPECT_EQ(get_string_array("[DNS/Manual]Servers"), nullptr);
    hold_setting(setting("[DNS/Manual]Servers", R"(["10.0.0.1","10.0.0.2"])").get());
    const OwnedStringArray servers = get_string_array("[DNS/Manual]Servers");
    ASSERT_EQ(g_strv_length(servers.get()), 2U);
    EXPECT_STREQ(servers.get()[0], "10.0.0.1");
    EXPECT_STREQ(servers.get()[1], "10.0.0.2");
    EXPECT_EQ(take_log(), Log());
}

TEST_F(setting_store, get_int_of_a_boolean_is_0_with_a_warning)
{
    EXPECT_EQ(get_int("[IPv4]Enabled"), 0);
    EXPECT_EQ(take_log(), Log{"<3>get_int: [IPv4]Enabled value is not a JSON number; returning 0"});
}

TEST_F(setting_store, typed_getters_report_other_types)
{
    hold_setting(setting("[DNS/Manual]Servers", R"(["10.0.0.1",2])").get());
    EXPECT_FALSE(get_bool("[NIC/eth0]MTU"));
    EXPECT_EQ(get_int("[IPv4/DHCP]Netmask"), 0);
    EXPECT_EQ(get_string("[NIC/eth0]MTU"), nullptr);
    EXPECT_EQ(get_string_array("[NIC/eth0]MTU"), nullptr);
    EXPECT_EQ(get_string_array("[DNS/Manual]Servers"), nullptr);
    EXPECT_FALSE(get_bool("[No]Such"));
    EXPECT_EQ(take_log(), (Log{"<3>get_bool: [NIC/eth0]MTU value is not a JSON boolean; returning FALSE",
                               "<5>get_int: [IPv4/DHCP]Netmask value is JSON NULL, returning 0",
                               "<3>get_string: [NIC/eth0]MTU value is not a JSON string or NULL",
                               "<3>get_string_array: [NIC/eth0]MTU value is not a JSON string array",
                               "<3>get_string_array: [DNS/Manual]Servers value is not a JSON string array",
                               "<3>get_json_value: unrecognized JSON key [No]Such"}));
}

TEST_F(setting_store, the_autonegotiated_link_speed_is_100_unless_the_configuration_names_another)
{
    EXPECT_EQ(value_of("[NIC/eth0/AutoNegotiated]LinkSpeed"), "100");
    EXPECT_EQ(take_log(), Log());
    write_text(scratch / "quarn.conf", "[quarn]\neth0_max_speed=1000\n");
    EXPECT_EQ(value_of("[NIC/eth0/AutoNegotiated]LinkSpeed"), "1000");
    EXPECT_EQ(take_log(), Log{"<5>read_setting: DEFAULT kEth0MaxSpeed changed to 1000"});
    save_setting(setting("[NIC/eth0/AutoNegotiated]LinkSpeed", "10").get());
    take_log();
    EXPECT_EQ(value_of("[NIC/eth0/AutoNegotiated]LinkSpeed"), "10");
    EXPECT_EQ(take_log(), Log());
}

TEST_F(setting_store, a_configured_speed_that_is_no_number_leaves_100)
{
    for (const char* text : {"fast", "\"1000\"", "1e999", "1000 Mbit", "true", ""}) {
        write_text(scratch / "quarn.conf", std::string("[quarn]\neth0_max_speed=") + text + "\n");
        EXPECT_EQ(value_of("[NIC/eth0/AutoNegotiated]LinkSpeed"), "100") << text;
    }
    EXPECT_EQ(take_log(), Log());
}

TEST_F(setting_store, wraps_a_text_as_a_json_string)
{
    OwnedJson value;
    EXPECT_TRUE(read_str_util_value(
        "[NIC/eth0]MAC", [] { return OwnedText(g_strdup("001122334455")); }, value));
    EXPECT_EQ(print(value.get()), "\"001122334455\"");
    value.reset();
    EXPECT_FALSE(read_str_util_value(
        "[NIC/eth0]MAC", [] { return OwnedText(); }, value));
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(take_log(), Log{"<3>read_str_util_value: can't retrieve [NIC/eth0]MAC value"});
}

TEST_F(setting_store, a_group_of_saves_is_durable_only_once_it_has_ended)
{
    begin_save_group();
    EXPECT_TRUE(save_setting(setting("[NIC/eth0]MTU", "1400").get()));
    EXPECT_TRUE(save_setting(setting("[NTP]Enabled", "false").get()));
    EXPECT_TRUE(hold_setting(setting("[IPv4/DHCP]Address", "\"10.0.0.5\"").get()));
    EXPECT_EQ(saves_in_group(), 2U);
    EXPECT_EQ(value_of("[NIC/eth0]MTU"), "1400");

    // What another reader of the database sees: the committed state.
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open((scratch / "settings.db").c_str(), &database), SQLITE_OK);
    const auto rows = [&] {
        int count = -1;
        sqlite3_exec(
            database, "SELECT count(*) FROM settings",
            [](void* out, int, char** columns, char**) {
                *static_cast<int*>(out) = std::atoi(columns[0]);
                return 0;
            },
            &count, nullptr);
        return count;
    };
    EXPECT_EQ(rows(), 0);
    EXPECT_TRUE(end_save_group());
    EXPECT_EQ(rows(), 2);
    sqlite3_close(database);
}

TEST_F(setting_store, an_empty_group_ends_well)
{
    begin_save_group();
    EXPECT_TRUE(end_save_group());
    EXPECT_EQ(take_log(), Log());
}

TEST_F(setting_store, a_value_that_could_not_be_stored_counts_as_changed_until_it_is)
{
    EXPECT_TRUE(save_setting(setting("[NTP]Enabled", "false").get()));
    {
        const FullDisk full(scratch / "settings.db-wal");
        EXPECT_FALSE(save_setting(setting("[NIC/eth0]MTU", "1400").get()));
        EXPECT_TRUE(setting_is_being_changed(setting("[NIC/eth0]MTU", "1500").get()));
    }
    EXPECT_TRUE(save_setting(setting("[NIC/eth0]MTU", "1500").get()));
    EXPECT_FALSE(setting_is_being_changed(setting("[NIC/eth0]MTU", "1500").get()));
    restart_store();
    EXPECT_EQ(stored(find_setting("[NIC/eth0]MTU")), "1500");
}

TEST_F(setting_store, a_boot_environment_key_whose_commit_failed_is_stored_when_it_is_sent_again)
{
    const SettingDef* row = find_setting("[IPv4/Manual]Address");
    EXPECT_TRUE(row->save(setting(row->key, "\"10.0.0.5\"").get()));
    begin_save_group();
    {
        const FullDisk full(scratch / "settings.db-wal");
        EXPECT_TRUE(row->save(setting(row->key, "\"10.0.0.6\"").get()));
        EXPECT_FALSE(end_save_group());
    }
    EXPECT_EQ(value_of(row->key), "\"10.0.0.5\"");
    begin_save_group();
    EXPECT_TRUE(row->save(setting(row->key, "\"10.0.0.6\"").get()));
    EXPECT_EQ(saves_in_group(), 1U);
    EXPECT_TRUE(end_save_group());
    restart_store();
    EXPECT_EQ(value_of(row->key), "\"10.0.0.6\"");
}
