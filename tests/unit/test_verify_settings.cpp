#include "api/json_response.h"
#include "api/setting_request.h"
#include "api/verify_settings.h"
#include "settings/setting_store.h"
#include "support.h"

namespace {

using settings_verification = QuarnTest;

using Lines = std::vector<std::string>;

struct Verdict {
    bool accepted;
    std::string errors;

    bool operator==(const Verdict&) const = default;
};

void PrintTo(const Verdict& verdict, std::ostream* stream)
{
    *stream << (verdict.accepted ? "accepted with " : "refused with ") << verdict.errors;
}

Verdict verify(const char* request_text)
{
    const std::unique_ptr<JsonResponse> response = json_response_new();
    const std::unique_ptr<SettingRequest> request = json_set_request_new(request_text, response.get());
    const bool accepted = verify_settings(request.get(), response.get());
    return {accepted, print(cJSON_GetObjectItemCaseSensitive(response->root.get(), "errors"))};
}

const std::string STATEFUL_ERROR =
    R"({"key":"[IPv6/Stateful]Enabled","code":13,"msg":"Stateless configuration requires accepting RA"})";
const std::string ACCEPT_RA_ERROR =
    R"({"key":"[IPv6/Stateless]AcceptRA","code":13,"msg":"Accepting RA is required to support stateless configuration"})";

} // namespace

TEST_F(settings_verification, a_request_of_acceptable_values_passes_in_silence)
{
    EXPECT_EQ(verify("{}"), (Verdict{true, "[]"}));
    EXPECT_EQ(verify(R"({"[DNS/Manual]Enabled": false, "[IPv6/Manual]Gateways": ["camera", "::1"]})"),
              (Verdict{true, "[]"}));
    EXPECT_EQ(take_log(), Lines());
}

TEST_F(settings_verification, nothing_is_saved)
{
    EXPECT_EQ(verify(R"({"[DNS/Manual]Enabled": false})"), (Verdict{true, "[]"}));
    EXPECT_EQ(value_of("[DNS/Manual]Enabled"), "true");
}

TEST_F(settings_verification, all_faults_are_told_at_once)
{
    EXPECT_EQ(
        verify(
            R"({"[DNS/Manual]Enabled": 1, "[NTP]Enabled": false, "[IPv6/Manual]Gateways": ["ipv6:x"], "[Nowhere]x": 1})"),
        (Verdict{false, R"([{"key":"[DNS/Manual]Enabled","code":3,"msg":"Value wasn't a boolean"},)"
                        R"({"key":"[IPv6/Manual]Gateways","code":6,"msg":"'x' isn't a valid ipv6 address"},)"
                        R"({"key":"[Nowhere]x","code":7,"msg":"Could not set unknown setting"}])"}));
}

TEST_F(settings_verification, an_unknown_key_is_reported_but_refuses_nothing)
{
    EXPECT_EQ(
        verify(R"({"[DNS/Manual]enabled": 1, "[DNS/Manual]Enabled": false, "": 2})"),
        (Verdict{true, R"([{"key":"[DNS/Manual]enabled","code":7,"msg":"Could not set unknown setting"},)"
                       R"({"key":"","code":7,"msg":"Could not set unknown setting"}])"}));
}

TEST_F(settings_verification, a_key_without_verifier_and_saver_is_refused)
{
    EXPECT_EQ(verify(R"({"[IPv4]Enabled": true})"), (Verdict{false, "[]"}));
    EXPECT_EQ(take_log(),
              (Lines{"<4>verify_settings: No validate action performed for [IPv4]Enabled",
                     "<4>verify_settings: No save function defined for [IPv4]Enabled. Failing validation"}));
}

TEST_F(settings_verification, a_key_without_verifier_is_refused_though_it_has_a_saver)
{
    EXPECT_EQ(verify(R"({"[NIC/eth0]SupportedModes": {}})"), (Verdict{false, "[]"}));
    EXPECT_EQ(take_log(),
              (Lines{"<4>verify_settings: No validate action performed for [NIC/eth0]SupportedModes"}));
}

TEST_F(settings_verification, the_group_checks_run_after_a_failure)
{
    EXPECT_EQ(verify(R"({"[IPv4]Enabled": true, "[IPv6/Stateless]AcceptRA": false})"),
              (Verdict{false, "[" + ACCEPT_RA_ERROR + "]"}));
}

TEST_F(settings_verification, a_percentage_out_of_range_is_reported_but_refuses_nothing)
{
    EXPECT_EQ(
        verify(R"({"[TrafficShaping]Rtp/CeilPercent": 101})"),
        (Verdict{
            true,
            R"([{"key":"[TrafficShaping]Rtp/CeilPercent","code":4,"msg":"Not a valid percentage value"}])"}));
}

TEST_F(settings_verification, dhcpv6_without_router_advertisements_is_refused_for_the_keys_in_the_request)
{
    const struct {
        const char* stored_stateful;
        const char* stored_accept_ra;
        const char* request;
        Verdict verdict;
    } cases[] = {
        // Neither in the request: whatever the store holds.
        {"true", "false", R"({"[DNS/Manual]Enabled": true})", {true, "[]"}},
        {"false", "false", R"({"[IPv6/Stateful]Enabled": true})", {false, "[" + STATEFUL_ERROR + "]"}},
        {"false", "true", R"({"[IPv6/Stateful]Enabled": true})", {true, "[]"}},
        {"true", "false", R"({"[IPv6/Stateful]Enabled": false})", {true, "[]"}},
        {"true", "true", R"({"[IPv6/Stateless]AcceptRA": false})", {false, "[" + ACCEPT_RA_ERROR + "]"}},
        {"false", "true", R"({"[IPv6/Stateless]AcceptRA": false})", {true, "[]"}},
        {"true", "false", R"({"[IPv6/Stateless]AcceptRA": true})", {true, "[]"}},
        {"false",
         "true",
         R"({"[IPv6/Stateless]AcceptRA": false, "[IPv6/Stateful]Enabled": true})",
         {false, "[" + STATEFUL_ERROR + "," + ACCEPT_RA_ERROR + "]"}},
        {"true",
         "false",
         R"({"[IPv6/Stateful]Enabled": true, "[IPv6/Stateless]AcceptRA": true})",
         {true, "[]"}},
        // Where a key stands twice, the last counts.
        {"true",
         "true",
         R"({"[IPv6/Stateless]AcceptRA": false, "[IPv6/Stateless]AcceptRA": true})",
         {true, "[]"}},
        {"true",
         "true",
         R"({"[IPv6/Stateless]AcceptRA": true, "[IPv6/Stateless]AcceptRA": false})",
         {false, "[" + ACCEPT_RA_ERROR + "]"}},
        // Another type counts as false.
        {"true",
         "true",
         R"({"[IPv6/Stateless]AcceptRA": 1})",
         {false, R"([{"key":"[IPv6/Stateless]AcceptRA","code":3,"msg":"Value wasn't a boolean"},)" +
                     ACCEPT_RA_ERROR + "]"}},
    };
    for (const auto& [stored_stateful, stored_accept_ra, request, verdict] : cases) {
        save_or_hold_setting(setting("[IPv6/Stateful]Enabled", stored_stateful).get(), Keep::STORED,
                             Unchanged::WRITTEN);
        save_or_hold_setting(setting("[IPv6/Stateless]AcceptRA", stored_accept_ra).get(), Keep::STORED,
                             Unchanged::WRITTEN);
        EXPECT_EQ(verify(request), verdict)
            << request << " over " << stored_stateful << ", " << stored_accept_ra;
    }
}

TEST_F(settings_verification, an_element_without_a_key_ends_the_walk)
{
    SettingRequest request;
    request.kind = RequestKind::SET;
    request.root = json(R"([true, false])");
    const std::unique_ptr<JsonResponse> response = json_response_new();
    EXPECT_FALSE(verify_settings(&request, response.get()));
    EXPECT_EQ(
        print(response->root.get()),
        R"({"success":false,"errors":[{"code":1,"msg":"Error while iterating through setting list"}]})");
    EXPECT_EQ(take_log(),
              (Lines{"<5>json_response_add_error: Adding error 1 to JSON response: Error while iterating "
                     "through setting list"}));
}

TEST_F(settings_verification, a_request_that_yields_no_item_ends_the_walk)
{
    const std::unique_ptr<JsonResponse> response = json_response_new();
    const std::unique_ptr<SettingRequest> request =
        json_get_request_new(R"({"settings": ["[NTP]Enabled"]})", response.get());
    EXPECT_FALSE(verify_settings(request.get(), response.get()));
    EXPECT_EQ(
        print(response->root.get()),
        R"({"success":false,"errors":[{"code":1,"msg":"Error while iterating through setting list"}]})");
}

TEST_F(settings_verification, missing_arguments_are_refused)
{
    EXPECT_FALSE(verify_settings(nullptr, nullptr));
    EXPECT_EQ(take_log(), (Lines{"<3>verify_settings: Null value in verify"}));
    const std::unique_ptr<JsonResponse> response = json_response_new();
    EXPECT_FALSE(verify_settings(nullptr, response.get()));
    EXPECT_EQ(print(response->root.get()),
              R"({"success":false,"errors":[{"code":1,"msg":"Null value in verify"}]})");
}
