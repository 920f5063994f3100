#include "api/json_response.h"
#include "net/ipv4_addresses.h"
#include "net/ipv4_settings.h"
#include "scripted_kernel.h"
#include "settings/setting_store.h"
#include "support.h"

#include <sys/socket.h>

namespace {

class ipv4_settings : public QuarnTest {
protected:
    ScriptedKernel kernel;
};

using Log = std::vector<std::string>;
using Verifier = bool (*)(cJSON* item, JsonResponse* response);

constexpr char NO_ERRORS[] = R"({"success":false,"errors":[]})";

std::string response_with(const std::string& message)
{
    return R"({"success":false,"errors":[{"key":"[IPv4]Test","code":3,"msg":")" + message + R"("}]})";
}

// The response to one value; what the verifier leaves of the value is put into `left`.
std::string verified(Verifier verify, const char* json_text, std::string& left)
{
    const OwnedJson item = setting("[IPv4]Test", json_text);
    const auto response = json_response_new();
    const bool is_valid = verify(item.get(), response.get());
    const std::string text = print(response->root.get());
    EXPECT_EQ(is_valid, text == NO_ERRORS) << json_text;
    EXPECT_STREQ(item->string, "[IPv4]Test");
    left = print(item.get());
    return text;
}

std::string verified(Verifier verify, const char* json_text)
{
    std::string left;
    return verified(verify, json_text, left);
}

} // namespace

TEST_F(ipv4_settings, the_actual_address_and_netmask_are_read_from_the_kernel_with_one_dump_each)
{
    kernel.set_addresses(AF_INET, {address_message("10.0.0.5", 8), address_message("192.168.0.20", 24)});
    EXPECT_EQ(value_of("[IPv4/Actual]Address"), "\"192.168.0.20\"");
    EXPECT_EQ(value_of("[IPv4/Actual]Netmask"), "24");
    EXPECT_EQ(kernel.requests.size(), 2U);
    EXPECT_EQ(take_log(), Log());
}

TEST_F(ipv4_settings, without_an_address_the_actual_values_cannot_be_read)
{
    OwnedJson value;
    EXPECT_FALSE(read_actual_ipv4_addr(find_setting("[IPv4/Actual]Address"), value));
    EXPECT_FALSE(read_actual_ipv4_netmask(find_setting("[IPv4/Actual]Netmask"), value));
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(take_log(), (Log{"<4>get_netlink_info: no data returned",
                               "<3>read_actual_ipv4_addr: Can't retrieve [IPv4/Actual]Address value",
                               "<4>get_netlink_info: no data returned",
                               "<3>read_actual_ipv4_netmask: Can't retrieve [IPv4/Actual]Netmask value"}));
}

TEST_F(ipv4_settings, without_a_row_the_actual_values_cannot_be_read)
{
    kernel.set_addresses(AF_INET, {address_message("10.0.0.5", 8)});
    const SettingDef no_key{};
    for (const SettingDef* row : {static_cast<const SettingDef*>(nullptr), &no_key}) {
        OwnedJson value;
        EXPECT_FALSE(read_actual_ipv4_addr(row, value));
        EXPECT_FALSE(read_actual_ipv4_netmask(row, value));
        EXPECT_EQ(value, nullptr);
        EXPECT_EQ(take_log(),
                  (Log{"<2>read_actual_ipv4_addr:LINE: Setting object passed to with NULL pointer",
                       "<2>read_actual_ipv4_netmask:LINE: Setting object passed to with NULL pointer"}));
    }
}

TEST_F(ipv4_settings, the_link_local_address_reads_as_null_where_it_is_switched_off)
{
    for (const char* key : {"[IPv4]Enabled", "[IPv4/LocalLink]Enabled"}) {
        hold_setting(setting(key, "false").get());
        EXPECT_EQ(value_of("[IPv4/LocalLink]Address"), "null") << key;
        hold_setting(setting(key, "true").get());
    }
    EXPECT_EQ(recorded_shell.commands, std::vector<std::string>());
}

TEST_F(ipv4_settings, reading_the_link_local_address_probes_the_stored_one)
{
    if (*current_ipv4_linklocal_text() != '\0')
        GTEST_SKIP()
            << "an earlier test of this process has set the link-local address; ctest gives each its own";
    save_text_setting("[IPv4/LocalLink]Address", "169.254.3.4", Unchanged::WRITTEN);
    EXPECT_EQ(value_of("[IPv4/LocalLink]Address"), "\"169.254.3.4\"");
    EXPECT_EQ(recorded_shell.commands, std::vector<std::string>{"/usr/sbin/arping -D -c2 169.254.3.4"});
}

TEST_F(ipv4_settings, the_link_local_reader_without_a_row_goes_on_under_another_name)
{
    hold_setting(setting("[IPv4/LocalLink]Enabled", "false").get());
    take_log();
    OwnedJson value;
    EXPECT_TRUE(read_ipv4_linklocal(nullptr, value));
    EXPECT_EQ(print(value.get()), "null");
    EXPECT_EQ(take_log(), Log{"<4>read_ipv4_linklocal: There was a null pointer in the setting obj"});
}

TEST_F(ipv4_settings, unicast_addresses_and_null_are_accepted)
{
    for (const Verifier verify : {verify_ipv4_address, verify_dhcp_ipv4_address}) {
        for (const char* value : {"null", "\"1.0.0.0\"", "\"10.0.0.5\"", "\"239.255.255.255\""})
            EXPECT_EQ(verified(verify, value), NO_ERRORS) << value;
    }
}

TEST_F(ipv4_settings, texts_that_are_no_unicast_address_are_refused)
{
    for (const Verifier verify : {verify_ipv4_address, verify_dhcp_ipv4_address}) {
        for (const std::string text : {"", "10.0.0", "10.0.0.256", "127.0.0.1", "0.1.2.3", "240.0.0.1",
                                       "camera", "10.0.0.5 ", "0.0.0.0 ", "10.0.0.5/24"})
            EXPECT_EQ(verified(verify, ("\"" + text + "\"").c_str()),
                      response_with("String '" + text + "' wasn't a valid IPv4 address"));
        EXPECT_EQ(verified(verify, "\"10.0.0.5\\n\""),
                  response_with("String '10.0.0.5\\n' wasn't a valid IPv4 address"));
    }
}

TEST_F(ipv4_settings, an_address_is_a_string)
{
    for (const char* value : {"1", "true", "[]", "{}"})
        EXPECT_EQ(verified(verify_ipv4_address, value), response_with("Value wasn't a string")) << value;
}

TEST_F(ipv4_settings, only_a_lease_may_be_0_0_0_0)
{
    EXPECT_EQ(verified(verify_dhcp_ipv4_address, "\"0.0.0.0\""), NO_ERRORS);
    EXPECT_EQ(verified(verify_ipv4_address, "\"0.0.0.0\""),
              response_with("String '0.0.0.0' wasn't a valid IPv4 address"));
}

TEST_F(ipv4_settings, a_dotted_netmask_becomes_its_prefix_length)
{
    const std::pair<const char*, const char*> cases[] = {
        {"\"255.255.255.0\"", "24"},
        {"\"255.255.255.252\"", "30"},
        {"\"255.255.255.254\"", "31"},
        {"\"128.0.0.0\"", "1"},
        {"\"255.255.240.0\"", "20"},
        {"1", "1"},
        {"24", "24"},
        {"31", "31"},
    };
    for (const auto& [value, expected] : cases) {
        std::string left;
        EXPECT_EQ(verified(verify_ipv4_netmask, value, left), NO_ERRORS) << value;
        EXPECT_EQ(left, expected);
    }
}

TEST_F(ipv4_settings, what_is_no_netmask_is_refused_and_left_as_it_is)
{
    for (const char* value : {"\"255.0.255.0\"", "\"0.0.0.255\"", "\"255.255.255.1\"", "\"255.255.255\"",
                              "\"24\"", "\"\"", "null", "true", "[24]", "{}"}) {
        std::string left;
        EXPECT_EQ(verified(verify_ipv4_netmask, value, left),
                  response_with("Value was neither an IPv4 netmask nor a length of such"))
            << value;
        EXPECT_EQ(left, value);
    }
}

TEST_F(ipv4_settings, netmasks_that_leave_no_network_or_no_host_are_refused)
{
    for (const char* value : {"0", "32", "-1", "33", "4294967320", "\"0.0.0.0\"", "\"255.255.255.255\""})
        EXPECT_EQ(verified(verify_ipv4_netmask, value),
                  response_with("Value wasn't a valid ipv4 netmask length"))
            << value;
}

TEST_F(ipv4_settings, a_check_without_item_or_response_is_refused)
{
    for (const Verifier verify : {verify_ipv4_address, verify_dhcp_ipv4_address, verify_ipv4_netmask}) {
        const auto response = json_response_new();
        EXPECT_FALSE(verify(nullptr, response.get()));
        EXPECT_EQ(print(response->root.get()),
                  R"({"success":false,"errors":[{"code":1,"msg":"Null value during string verification"}]})");
        EXPECT_FALSE(verify(setting("[IPv4]Test", "\"10.0.0.5\"").get(), nullptr));
    }
}
