#include "api/json_response.h"
#include "api/setting_request.h"
#include "net/gateway_check.h"
#include "settings/setting_store.h"
#include "support.h"

namespace {

class gateway_check : public QuarnTest {
protected:
    void SetUp() override
    {
        QuarnTest::SetUp();
        hold("[IPv4/Manual]Address", R"("10.0.0.5")");
        hold("[IPv4/Manual]DefaultGateway", R"("10.0.0.1")");
    }
    void hold(const char* key, const char* json_text)
    {
        save_or_hold_setting(setting(key, json_text).get(), Keep::HELD, Unchanged::WRITTEN);
        take_log();
    }
};

using Log = std::vector<std::string>;

bool manual_gateways_fit(const char* request_text)
{
    const auto response = json_response_new();
    const auto request = json_set_request_new(request_text, response.get());
    return find_and_check_gateway_in_network(*request, "[IPv4/Manual]Address", "[IPv4/Manual]Netmask",
                                             "[IPv4/Manual]Gateways");
}

struct Verdict {
    bool accepted;
    std::string errors;

    bool operator==(const Verdict&) const = default;
};

void PrintTo(const Verdict& verdict, std::ostream* stream)
{
    *stream << (verdict.accepted ? "accepted with " : "refused with ") << verdict.errors;
}

Verdict verdict_on(const char* request_text)
{
    const auto response = json_response_new();
    const auto request = json_set_request_new(request_text, response.get());
    const bool accepted = verify_gateway_in_network(request.get(), response.get());
    return {accepted, print(cJSON_GetObjectItemCaseSensitive(response->root.get(), "errors"))};
}

const std::string MANUAL_ERRORS =
    R"([{"key":"[IPv4/Manual]Address","code":9,"msg":"The address provided cannot reach the gateway"},)"
    R"({"key":"[IPv4/Manual]Netmask","code":9,"msg":"One or more gateways are not on the defined network"},)"
    R"({"key":"[IPv4/Manual]Gateways","code":9,"msg":"One or more gateways are unreachable"}])";
const std::string DHCP_ERRORS =
    R"([{"key":"[IPv4/DHCP]Address","code":9,"msg":"The DHCP provided address cannot reach the gateway"},)"
    R"({"key":"[IPv4/DHCP]Netmask","code":9,"msg":"One or more gateways are not on the DHCP defined network"},)"
    R"({"key":"[IPv4/DHCP]Gateways","code":9,"msg":"One or more DHCP-defined gateways are unreachable"}])";

} // namespace

TEST_F(gateway_check, an_address_and_a_gateway_on_another_network_are_three_errors)
{
    EXPECT_EQ(verdict_on(R"({"[IPv4/Manual]Address": "10.0.0.5", "[IPv4/Manual]Netmask": 24,
                             "[IPv4/Manual]Gateways": ["10.0.1.1"]})"),
              (Verdict{false, MANUAL_ERRORS}));
    EXPECT_EQ(take_important_log().front(), "<4>find_and_check_gateway_in_network: The gateway 10.0.1.1 "
                                            "wasn't on the same network as 10.0.0.5/24");
}

TEST_F(gateway_check, leased_gateways_on_another_network_are_errors_but_refuse_nothing)
{
    EXPECT_EQ(verdict_on(R"({"[IPv4/DHCP]Address": "10.1.0.5", "[IPv4/DHCP]Netmask": 16,
                             "[IPv4/DHCP]Gateways": ["10.1.9.1", "10.2.0.1"]})"),
              (Verdict{true, DHCP_ERRORS}));
    const Log log = take_important_log();
    EXPECT_EQ(Log(log.begin(), log.begin() + 2),
              (Log{"<4>find_and_check_gateway_in_network: The gateway 10.2.0.1 wasn't on the same network as "
                   "10.1.0.5/16",
                   "<3>verify_gateway_in_network: DHCP provided an address/netmask defined network which "
                   "can't reach a DHCP provided gateway"}));
}

TEST_F(gateway_check, both_kinds_are_told_at_once)
{
    const std::string both = MANUAL_ERRORS.substr(0, MANUAL_ERRORS.size() - 1) + "," + DHCP_ERRORS.substr(1);
    EXPECT_EQ(verdict_on(R"({"[IPv4/Manual]Gateways": ["10.0.1.1"], "[IPv4/DHCP]Address": "10.1.0.5",
                             "[IPv4/DHCP]Netmask": 16, "[IPv4/DHCP]Gateways": ["10.2.0.1"]})"),
              (Verdict{false, both}));
}

TEST_F(gateway_check, without_a_request_or_a_response_nothing_is_accepted)
{
    const auto response = json_response_new();
    const auto request = json_set_request_new("{}", response.get());
    EXPECT_FALSE(verify_gateway_in_network(nullptr, response.get()));
    EXPECT_FALSE(verify_gateway_in_network(request.get(), nullptr));
    EXPECT_TRUE(verify_gateway_in_network(request.get(), response.get()));
}

TEST_F(gateway_check, a_request_that_touches_none_of_the_three_keys_is_not_checked)
{
    hold("[IPv4/Manual]DefaultGateway", R"("172.16.0.1")");
    EXPECT_TRUE(manual_gateways_fit(R"({"[NIC/eth0]MTU": 1400})"));
    EXPECT_EQ(take_log(), Log());
}

TEST_F(gateway_check, what_a_request_leaves_out_is_what_is_stored)
{
    EXPECT_TRUE(manual_gateways_fit(R"({"[IPv4/Manual]Address": "10.0.0.99"})"));
    EXPECT_FALSE(manual_gateways_fit(R"({"[IPv4/Manual]Address": "10.0.1.99"})"));
    EXPECT_TRUE(manual_gateways_fit(R"({"[IPv4/Manual]Address": "10.0.1.99", "[IPv4/Manual]Netmask": 16})"));
    EXPECT_FALSE(manual_gateways_fit(R"({"[IPv4/Manual]Netmask": 30})"));
    EXPECT_FALSE(manual_gateways_fit(R"({"[IPv4/Manual]Gateways": ["10.0.0.1", "10.0.1.1"]})"));
    EXPECT_TRUE(manual_gateways_fit(R"({"[IPv4/Manual]Gateways": []})"));
}

TEST_F(gateway_check, the_last_bit_of_the_network_counts)
{
    EXPECT_TRUE(
        manual_gateways_fit(R"({"[IPv4/Manual]Netmask": 31, "[IPv4/Manual]Gateways": ["10.0.0.4"]})"));
    EXPECT_FALSE(
        manual_gateways_fit(R"({"[IPv4/Manual]Netmask": 32, "[IPv4/Manual]Gateways": ["10.0.0.4"]})"));
    EXPECT_TRUE(
        manual_gateways_fit(R"({"[IPv4/Manual]Netmask": 1, "[IPv4/Manual]Gateways": ["127.255.255.255"]})"));
    EXPECT_FALSE(
        manual_gateways_fit(R"({"[IPv4/Manual]Netmask": 1, "[IPv4/Manual]Gateways": ["128.0.0.0"]})"));
}

TEST_F(gateway_check, a_prefix_length_of_0_demands_the_address_itself_as_gateway)
{
    EXPECT_FALSE(manual_gateways_fit(R"({"[IPv4/Manual]Netmask": 0})"));
    EXPECT_TRUE(manual_gateways_fit(R"({"[IPv4/Manual]Netmask": 0, "[IPv4/Manual]Gateways": ["10.0.0.5"]})"));
}

TEST_F(gateway_check, a_missing_value_fails_the_check)
{
    hold("[IPv4/Manual]Gateways", "7");
    EXPECT_FALSE(manual_gateways_fit(R"({"[IPv4/Manual]Netmask": 24})"));
    EXPECT_EQ(take_important_log().back(), "<3>find_and_check_gateway_in_network: In retrieving addr/mask/"
                                           "gateway settings, one of which was null");
}

TEST_F(gateway_check, null_as_address_or_gateways_is_not_checked)
{
    for (const char* request :
         {R"({"[IPv4/Manual]Address": null})", R"({"[IPv4/Manual]Gateways": null})",
          R"({"[IPv4/Manual]Address": null, "[IPv4/Manual]Netmask": "x", "[IPv4/Manual]Gateways": 7})"}) {
        take_log();
        EXPECT_TRUE(manual_gateways_fit(request)) << request;
        EXPECT_EQ(take_log().back(), "<6>find_and_check_gateway_in_network: IPv4 address or gateway is NULL, "
                                     "so we are skipping the gateway on network check");
    }
}

TEST_F(gateway_check, values_of_other_types_fail_the_check)
{
    const std::string line = "<3>find_and_check_gateway_in_network: One of this has incorrect type: ";
    for (const auto& [request, types] : std::initializer_list<std::pair<const char*, std::string>>{
             {R"({"[IPv4/Manual]Address": 7})", "Addr(8) Mask(8) Gateway(32)"},
             {R"({"[IPv4/Manual]Netmask": "24"})", "Addr(16) Mask(16) Gateway(32)"},
             {R"({"[IPv4/Manual]Netmask": null})", "Addr(16) Mask(4) Gateway(32)"},
             {R"({"[IPv4/Manual]Gateways": "10.0.0.1"})", "Addr(16) Mask(8) Gateway(16)"}}) {
        take_log();
        EXPECT_FALSE(manual_gateways_fit(request)) << request;
        EXPECT_EQ(take_log().back(), line + types);
    }
}

TEST_F(gateway_check, a_gateway_that_is_no_text_fails_the_check)
{
    EXPECT_FALSE(manual_gateways_fit(R"({"[IPv4/Manual]Gateways": ["10.0.0.1", 7]})"));
    EXPECT_EQ(take_log().back(), "<3>find_and_check_gateway_in_network: Gateway was not a string");
}
