#include "settings/bootenv.h"
#include "settings/setting_store.h"
#include "support.h"

namespace {

// Without a U-Boot environment the same variables stand in a key file beside the settings database.
class bootenv : public QuarnTest {
protected:
    void put(const std::string& variables)
    {
        write_text(scratch / "boot-environment.conf", "[boot_environment]\n" + variables);
    }
    std::string environment() { return read_text(scratch / "boot-environment.conf"); }
    bool save(const char* key, const char* json_text)
    {
        return find_setting(key)->save(setting(key, json_text).get());
    }
};

using Log = std::vector<std::string>;

} // namespace

TEST_F(bootenv, reads_each_kind_of_variable)
{
    put("vesko_ipv4_dhcp_enable=0\nvesko_ipv4_link_local_enable=0\nvesko_ipv6_enable=1\n"
        "vesko_ipv6_addresses=2001:db8::1/64 2001:db8::2/64\nvesko_hostname=cam01\n"
        "netdev0=0102030405060a000005ffffff000a000001\n");
    EXPECT_EQ(value_of("[IPv4/DHCP]Enabled"), "false");
    EXPECT_EQ(value_of("[IPv4/LocalLink]Enabled"), "false");
    EXPECT_EQ(value_of("[IPv6]Enabled"), "true");
    EXPECT_EQ(value_of("[IPv6/Manual]Addresses"), R"(["2001:db8::1/64","2001:db8::2/64"])");
    EXPECT_EQ(value_of("[Hostname]Name"), "\"cam01\"");
    EXPECT_EQ(value_of("[IPv4/Manual]Address"), "\"10.0.0.5\"");
    EXPECT_EQ(value_of("[IPv4/Manual]Netmask"), "24");
    EXPECT_EQ(value_of("[IPv4/Manual]DefaultGateway"), "\"10.0.0.1\"");
    EXPECT_EQ(take_log(), Log());
}

TEST_F(bootenv, the_address_0_0_0_0_yields_the_default_of_the_row)
{
    put("netdev0=010203040506000000000000000000000000\n");
    EXPECT_EQ(value_of("[IPv4/Manual]Address"), "null");
    EXPECT_EQ(take_log(),
              (Log{"<7>read_bootenv_var:LINE: Couldn't get [IPv4/Manual]Address value from boot enviornment.",
                   "<7>read_bootenv_var:LINE: Using default value [IPv4/Manual]Address=null"}));
}

TEST_F(bootenv, an_empty_host_name_yields_the_default)
{
    put("vesko_hostname=\n");
    EXPECT_EQ(value_of("[Hostname]Name"), "null");
    EXPECT_EQ(take_log(),
              (Log{"<7>read_bootenv_var:LINE: Couldn't get [Hostname]Name value from boot enviornment.",
                   "<7>read_bootenv_var:LINE: Using default value [Hostname]Name=null"}));
}

TEST_F(bootenv, a_flag_text_is_judged_by_its_first_character)
{
    OwnedJson value;
    EXPECT_TRUE(IPV6_ENABLED.text_to_json("10", value));
    EXPECT_EQ(print(value.get()), "true");
    EXPECT_TRUE(IPV6_ENABLED.text_to_json("0x", value));
    EXPECT_EQ(print(value.get()), "false");
    EXPECT_FALSE(IPV6_ENABLED.text_to_json("x", value));
    EXPECT_FALSE(IPV6_ENABLED.text_to_json("", value));
}

TEST_F(bootenv, a_text_that_does_not_convert_is_reported_and_the_default_used)
{
    OwnedJson value;
    EXPECT_TRUE(read_bootenv_var(
        find_setting("[IPv6]Enabled"), value, [] { return OwnedText(g_strdup("x")); },
        IPV6_ENABLED.text_to_json));
    EXPECT_EQ(print(value.get()), "true");
    EXPECT_EQ(take_log(), (Log{"<4>read_bootenv_var: Couldn't convert x to JSON",
                               "<7>read_bootenv_var:LINE: Using default value [IPv6]Enabled=true"}));
}

TEST_F(bootenv, a_flag_that_is_missing_or_neither_0_nor_1_leaves_the_default)
{
    for (const char* variables : {"", "vesko_ipv4_dhcp_enable=\n", "vesko_ipv4_dhcp_enable=2\n",
                                  "vesko_ipv4_dhcp_enable=no\n", "vesko_ipv4_dhcp_enable=-1\n"}) {
        put(variables);
        restart_store();
        EXPECT_EQ(value_of("[IPv4/DHCP]Enabled"), "true") << variables;
    }
}

TEST_F(bootenv, a_value_that_the_verifier_of_the_row_rejects_is_replaced_by_the_default)
{
    put("vesko_ipv6_addresses=2001:db8::1/64  2001:db8::2/64\n");
    EXPECT_EQ(value_of("[IPv6/Manual]Addresses"), "[]");
    EXPECT_EQ(
        take_log(),
        (Log{"<5>json_response_add_error: For setting '[IPv6/Manual]Addresses', adding error 6 to JSON "
             "response "
             "'' doesn't include a prefix length",
             "<4>read_bootenv_var: We got 2001:db8::1/64  2001:db8::2/64 from boot environment, which didn't "
             "validate for [IPv6/Manual]Addresses",
             "<7>read_bootenv_var:LINE: Using default value [IPv6/Manual]Addresses=[]"}));
}

TEST_F(bootenv, a_read_value_is_held_and_a_stored_one_wins)
{
    put("vesko_ipv4_dhcp_enable=0\n");
    EXPECT_EQ(value_of("[IPv4/DHCP]Enabled"), "false");
    put("vesko_ipv4_dhcp_enable=1\n");
    EXPECT_EQ(value_of("[IPv4/DHCP]Enabled"), "false");
    restart_store();
    EXPECT_EQ(value_of("[IPv4/DHCP]Enabled"), "true");
    EXPECT_TRUE(save("[IPv4/DHCP]Enabled", "false"));
    put("vesko_ipv4_dhcp_enable=1\n");
    restart_store();
    EXPECT_EQ(value_of("[IPv4/DHCP]Enabled"), "false");
}

TEST_F(bootenv, what_was_saved_is_what_is_read_next)
{
    EXPECT_EQ(value_of("[IPv4/DHCP]Enabled"), "true");
    take_log();
    EXPECT_TRUE(save("[IPv4/DHCP]Enabled", "false"));
    EXPECT_EQ(value_of("[IPv4/DHCP]Enabled"), "false");
    EXPECT_EQ(take_log(), Log{"<7>save_bootenv_var:LINE: Saved value to boot environment"});
    EXPECT_EQ(environment(), "[boot_environment]\nvesko_ipv4_dhcp_enable=0\n");
}

TEST_F(bootenv, a_mask_of_255_255_255_0_reads_as_24_and_saving_16_changes_only_the_mask)
{
    put("netdev0=0102030405060a000005ffffff000a000001\n");
    EXPECT_EQ(value_of("[IPv4/Manual]Netmask"), "24");
    EXPECT_TRUE(save("[IPv4/Manual]Netmask", "16"));
    EXPECT_EQ(environment(), "[boot_environment]\nnetdev0=0102030405060a000005ffff00000a000001\n");
}

TEST_F(bootenv, saving_an_unchanged_value_succeeds_without_writing)
{
    put("vesko_hostname=cam01\n");
    EXPECT_EQ(value_of("[Hostname]Name"), "\"cam01\"");
    put("vesko_hostname=other\n");
    EXPECT_TRUE(save("[Hostname]Name", "\"cam01\""));
    EXPECT_EQ(environment(), "[boot_environment]\nvesko_hostname=other\n");
    EXPECT_EQ(take_log(), Log{"<7>save_bootenv_var:LINE: [Hostname]Name is not being changed"});
}

TEST_F(bootenv, null_takes_a_manual_address_away)
{
    put("netdev0=0102030405060a000005ffffff000a000001\n");
    EXPECT_TRUE(save("[IPv4/Manual]Address", "null"));
    EXPECT_EQ(environment(), "[boot_environment]\nnetdev0=01020304050600000000ffffff000a000001\n");
    EXPECT_TRUE(save("[IPv4/Manual]DefaultGateway", "null"));
    EXPECT_EQ(environment(), "[boot_environment]\nnetdev0=01020304050600000000ffffff0000000000\n");
    restart_store();
    EXPECT_EQ(value_of("[IPv4/Manual]Address"), "null");
}

TEST_F(bootenv, the_first_address_can_be_saved_where_there_was_no_record)
{
    EXPECT_TRUE(save("[IPv4/Manual]Address", "\"10.0.0.5\""));
    EXPECT_EQ(environment(), "[boot_environment]\nnetdev0=0000000000000a0000050000000000000000\n");
}

TEST_F(bootenv, a_record_that_is_not_36_hexadecimal_digits_is_no_record)
{
    for (const char* record :
         {"0102", "0102030405060a000005ffffff000a00000x", "0102030405060a000005ffffff000a00000100"}) {
        put(std::string("netdev0=") + record + "\n");
        EXPECT_EQ(IPV4_MANUAL_ADDRESS.get(), nullptr) << record;
        EXPECT_FALSE(IPV4_MANUAL_ADDRESS.set("10.0.0.9"));
        EXPECT_EQ(environment(), std::string("[boot_environment]\nnetdev0=") + record + "\n");
    }
}

TEST_F(bootenv, a_value_that_the_environment_refuses_is_stored_and_read_all_the_same)
{
    put("netdev0=0102\n");
    EXPECT_FALSE(save("[IPv4/Manual]Address", "\"10.0.0.5\""));
    EXPECT_EQ(value_of("[IPv4/Manual]Address"), "\"10.0.0.5\"");
    restart_store();
    EXPECT_EQ(value_of("[IPv4/Manual]Address"), "\"10.0.0.5\"");
}

TEST_F(bootenv, an_address_that_is_no_address_fails_and_leaves_the_record)
{
    put("netdev0=0102030405060a000005ffffff000a000001\n");
    EXPECT_FALSE(save("[IPv4/Manual]DefaultGateway", "\"router.example\""));
    EXPECT_EQ(environment(), "[boot_environment]\nnetdev0=0102030405060a000005ffffff000a000001\n");
    EXPECT_EQ(take_important_log(), Log{"<3>save_bootenv_var: Could not set boot environment"});
}

TEST_F(bootenv, a_key_whose_write_failed_counts_as_changed_until_a_write_succeeds)
{
    put("netdev0=bad\n");
    EXPECT_FALSE(save("[IPv4/Manual]Address", "\"10.0.0.5\""));
    EXPECT_FALSE(save("[IPv4/Manual]Address", "\"10.0.0.5\""));
    put("netdev0=010203040506000000000000000000000000\n");
    EXPECT_TRUE(save("[IPv4/Manual]Address", "\"10.0.0.5\""));
    EXPECT_EQ(environment(), "[boot_environment]\nnetdev0=0102030405060a0000050000000000000000\n");
    take_log();
    EXPECT_TRUE(save("[IPv4/Manual]Address", "\"10.0.0.5\""));
    EXPECT_EQ(take_log(), Log{"<7>save_bootenv_var:LINE: [IPv4/Manual]Address is not being changed"});
}

TEST_F(bootenv, other_types_do_not_convert)
{
    EXPECT_FALSE(save("[IPv4/DHCP]Enabled", "1"));
    EXPECT_FALSE(save("[Hostname]Name", "7"));
    EXPECT_FALSE(save("[IPv4/Manual]Netmask", "\"24\""));
    EXPECT_EQ(
        take_important_log(),
        (Log{"<3>save_bootenv_var: Couldn't convert [IPv4/DHCP]Enabled JSON to string for boot environment",
             "<3>save_bootenv_var: Couldn't convert [Hostname]Name JSON to string for boot environment",
             "<3>save_bootenv_var: Couldn't convert [IPv4/Manual]Netmask JSON to string for boot "
             "environment"}));
}

TEST_F(bootenv, missing_arguments_are_reported)
{
    OwnedJson value;
    EXPECT_FALSE(read_bootenv_var(nullptr, value, IPV6_ENABLED.get, IPV6_ENABLED.text_to_json));
    EXPECT_FALSE(save_bootenv_var(nullptr, IPV6_ENABLED.set, IPV6_ENABLED.json_to_text));
    EXPECT_EQ(take_log(), (Log{"<3>read_bootenv_var: Wasn't provided setting object",
                               "<3>save_bootenv_var: JSON object wasn't provided"}));
}

TEST_F(bootenv, joins_a_list_with_blanks_and_passes_over_what_is_no_string)
{
    OwnedText text;
    EXPECT_TRUE(IPV6_MANUAL_ADDRESSES.json_to_text(json(R"(["a/1",7,"b/2"])").get(), text));
    EXPECT_STREQ(text.get(), "a/1 b/2");
    text.reset();
    EXPECT_TRUE(IPV6_MANUAL_ADDRESSES.json_to_text(json("\"a\"").get(), text));
    EXPECT_EQ(text, nullptr);
    EXPECT_TRUE(IPV6_MANUAL_ADDRESSES.json_to_text(nullptr, text));
    EXPECT_EQ(text, nullptr);
}
