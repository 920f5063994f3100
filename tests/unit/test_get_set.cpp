#include "api/get_set.h"
#include "scripted_kernel.h"
#include "settings/setting_store.h"
#include "support.h"

#include <algorithm>
#include <ctime>

namespace {

// With an eth0 that has no addresses, the same on every machine.
class BusCallTest : public QuarnTest {
    ScriptedKernel kernel_;
};

using get_calls = BusCallTest;
using set_calls = BusCallTest;

using Lines = std::vector<std::string>;
using Call = int (*)(const char* request_text, char** response_text);

std::string answer(Call call, const char* request)
{
    char* text = nullptr;
    const int produced = call(request, &text);
    const OwnedMallocText response(text);
    return produced != 0 && response ? response.get() : "(none)";
}

std::string get(const std::string& request)
{
    return answer(api_get, request.c_str());
}

std::string set(const std::string& request)
{
    return answer(api_set, request.c_str());
}

const std::string SUCCESS = R"({"success":true,"errors":[]})";

std::string refusal(const std::string& entry)
{
    return R"({"success":false,"errors":[)" + entry + "]}";
}

// What tells that an apply ran, and with which flags.
Lines applied(const Lines& log)
{
    Lines lines;
    std::copy_if(log.begin(), log.end(), std::back_inserter(lines),
                 [](const std::string& line) { return line.find("Apply Flags") != std::string::npos; });
    return lines;
}

int allocations_until_failure = 0;

void* failing_allocation(std::size_t size)
{
    return allocations_until_failure-- == 0 ? nullptr : std::malloc(size);
}

// Answers one call during which the first allocation of cJSON fails, and no other.
std::string answer_without_memory(Call call, const char* request)
{
    allocations_until_failure = 0;
    cJSON_Hooks hooks{failing_allocation, std::free};
    cJSON_InitHooks(&hooks);
    const std::string response = answer(call, request);
    cJSON_InitHooks(nullptr);
    return response;
}

std::string request_of_unknown_keys(Call call, int count)
{
    std::string request = call == api_get ? R"({"settings":[)" : "{";
    for (int i = 0; i < count; i++) {
        const std::string key = "\"[Unknown]Key" + std::to_string(i) + '"';
        request += (i == 0 ? "" : ",") + key + (call == api_get ? "" : ":1");
    }
    return request + (call == api_get ? "]}" : "}");
}

// The least processor time of three calls.
double seconds_of(Call call, int count)
{
    const std::string request = request_of_unknown_keys(call, count);
    double least = 1e9;
    for (int i = 0; i < 3; i++) {
        const std::clock_t start = std::clock();
        answer(call, request.c_str());
        least = std::min(least, static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC);
    }
    return least;
}

} // namespace

TEST_F(get_calls, a_value_stands_under_its_key)
{
    EXPECT_EQ(get(R"({"settings":["[NIC/eth0]MTU"]})"),
              R"({"success":true,"errors":[],"[NIC/eth0]MTU":1500})");
    EXPECT_EQ(take_log(), Lines());
}

TEST_F(get_calls, values_come_in_the_order_of_the_request)
{
    EXPECT_EQ(
        get(R"({"settings":["[NTP]Enabled","[DNS/Manual]Servers","[Hostname]Domain","[Settings]Apply"]})"),
        R"({"success":true,"errors":[],"[NTP]Enabled":true,"[DNS/Manual]Servers":[],"[Hostname]Domain":null,)"
        R"("[Settings]Apply":true})");
}

TEST_F(get_calls, no_keys_give_no_values)
{
    EXPECT_EQ(get(R"({"settings": []})"), SUCCESS);
}

TEST_F(get_calls, a_key_without_a_reader_is_null)
{
    EXPECT_EQ(get(R"({"settings":["[TCP/Port]InUse"]})"),
              R"({"success":true,"errors":[],"[TCP/Port]InUse":null})");
}

TEST_F(get_calls, a_repeated_key_is_answered_once_and_reported)
{
    EXPECT_EQ(
        get(R"({"settings":["[NTP]Enabled","[NTP]Enabled","[DNS]Enabled","[NTP]Enabled"]})"),
        R"({"success":true,"errors":[{"key":"[NTP]Enabled","code":8,"msg":"Ignoring repeated get request for key"}],)"
        R"("[NTP]Enabled":true,"[DNS]Enabled":true})");
}

TEST_F(get_calls, unknown_keys_are_reported_beside_the_values)
{
    EXPECT_EQ(
        get(R"({"settings":["[NTP]enabled","[NTP] Enabled","[NTP]Enabled","","errors","[x]y","[x]y"]})"),
        R"({"success":true,"errors":[{"key":"[NTP]enabled","code":7,"msg":"Unknown key"},)"
        R"({"key":"[NTP] Enabled","code":7,"msg":"Unknown key"},{"key":"","code":7,"msg":"Unknown key"},)"
        R"({"key":"errors","code":7,"msg":"Unknown key"},{"key":"[x]y","code":7,"msg":"Unknown key"},)"
        R"({"key":"[x]y","code":8,"msg":"Ignoring repeated get request for key"}],"[NTP]Enabled":true})");
}

TEST_F(get_calls, a_failed_read_fails_the_request_and_the_others_are_answered)
{
    EXPECT_EQ(
        get(R"({"settings":["[NIC/eth0]MAC","[NTP]Enabled"]})"),
        R"({"success":false,"errors":[{"key":"[NIC/eth0]MAC","code":1,"msg":"Could not read value or default"}],)"
        R"("[NTP]Enabled":true})");
}

TEST_F(get_calls, a_malformed_request_is_answered_with_its_fault_and_the_next_is_served)
{
    const std::string deep = R"({"settings":)" + std::string(1'000, '[') + std::string(1'000, ']') + "}";
    const std::string too_deep = std::string(100'000, '[');
    const struct {
        std::string request;
        const char* message;
    } cases[] = {
        {"", "The provided JSON didn't parse"},
        {"{", "The provided JSON didn't parse"},
        {R"({"settings":[]} trailing)", "The provided JSON didn't parse"},
        {R"({"settings":[]}{"settings":[]})", "The provided JSON didn't parse"},
        {R"({"settings":["\udc00"]})", "The provided JSON didn't parse"},
        {deep, "The provided JSON didn't parse"},
        {too_deep, "The provided JSON didn't parse"},
        {R"(["[NTP]Enabled"])", "The provided JSON was not an object"},
        {"{}", "The provided JSON did not have a setting array"},
        {R"({"SETTINGS":["[NTP]Enabled"]})", "The provided JSON did not have a setting array"},
        {R"({"settings":"[NTP]Enabled"})", "The provided JSON did not have a setting array"},
        {R"({"settings":["[NTP]Enabled",1]})", "One of the setting keys was not a string"},
    };
    for (const auto& [request, message] : cases) {
        EXPECT_EQ(get(request), refusal(R"({"code":2,"msg":")" + std::string(message) + R"("})")) << request;
        EXPECT_EQ(get(R"({"settings":["[NTP]Enabled"]})"),
                  R"({"success":true,"errors":[],"[NTP]Enabled":true})");
    }
    EXPECT_EQ(answer(api_get, nullptr), refusal(R"({"code":2,"msg":"Didn't get JSON text"})"));
}

TEST_F(get_calls, a_key_of_a_megabyte_is_quoted_whole)
{
    const std::string key(1'000'000, 'k');
    EXPECT_EQ(get(R"({"settings":[")" + key + R"("]})"),
              R"({"success":true,"errors":[{"key":")" + key + R"(","code":7,"msg":"Unknown key"}]})");
}

TEST_F(get_calls, a_key_that_the_bus_would_refuse_is_answered_in_escapes)
{
    EXPECT_EQ(get(R"({"settings":["[\uffff]\ud83f\udffe"]})"),
              R"({"success":true,"errors":[{"key":"[\uffff]\ud83f\udffe","code":7,"msg":"Unknown key"}]})");
}

TEST_F(get_calls, without_memory_for_a_response_there_is_none)
{
    EXPECT_EQ(answer_without_memory(api_get, R"({"settings":["[NTP]Enabled"]})"), "(none)");
    EXPECT_EQ(take_log(),
              (Lines{"<2>api_get:LINE: Critical problem creating JSON response object: NULL returned"}));
}

TEST_F(get_calls, ten_times_the_keys_take_about_ten_times_the_time)
{
    EXPECT_LT(seconds_of(api_get, 10'000), 30 * seconds_of(api_get, 1'000));
}

TEST_F(set_calls, a_change_is_saved_and_applied)
{
    EXPECT_EQ(set(R"({"[NIC/eth0]MTU": 1400})"), SUCCESS);
    EXPECT_EQ(value_of("[NIC/eth0]MTU"), "1400");
    EXPECT_EQ(recorded_shell.commands, (Lines{"/sbin/ip link set eth0 mtu 1400"}));
    EXPECT_EQ(applied(take_log()), (Lines{"<7>apply_settings:LINE: Apply Flags: 0x00010000 (restart=1)"}));
}

TEST_F(set_calls, a_saved_value_survives_a_restart)
{
    EXPECT_EQ(set(R"({"[NIC/eth0]MTU": 1400})"), SUCCESS);
    restart_store();
    EXPECT_EQ(value_of("[NIC/eth0]MTU"), "1400");
}

TEST_F(set_calls, values_that_equal_the_current_ones_save_nothing_and_apply_nothing)
{
    take_log();
    EXPECT_EQ(set(R"({"[NIC/eth0]MTU": 1500, "[NTP]Enabled": true})"), SUCCESS);
    const Lines log = take_log();
    EXPECT_EQ(applied(log), (Lines{"<7>apply_settings:LINE: Apply Flags: 0x00000000 (restart=1)"}));
    const Lines saving(log.begin(), std::find(log.begin(), log.end(), applied(log).front()));
    EXPECT_EQ(saving,
              (Lines{
                  R"(<5>api_set: API call: SET.  Data: {"[NIC/eth0]MTU": 1500, "[NTP]Enabled": true})",
                  "<7>api_set:LINE: Saving setting '[NIC/eth0]MTU'",
                  "<7>save_or_hold_setting:LINE: The setting [NIC/eth0]MTU is not being changed",
                  "<7>api_set:LINE: [NIC/eth0]MTU was not changed.  Will not reapply.",
                  "<7>api_set:LINE: Saving setting '[NTP]Enabled'",
                  "<7>save_or_hold_setting:LINE: The setting [NTP]Enabled is not being changed",
                  "<7>api_set:LINE: [NTP]Enabled was not changed.  Will not reapply.",
              }));
    EXPECT_EQ(log.back(), "<7>api_set:LINE: Finished with SET command");
    EXPECT_EQ(recorded_shell.commands, Lines());
    OwnedJson stored;
    EXPECT_FALSE(get_setting_not_default(find_setting("[NIC/eth0]MTU"), stored));
}

TEST_F(set_calls, only_the_flags_of_changed_rows_are_applied)
{
    EXPECT_EQ(set(R"({"[IPv6/Stateless]AcceptRA": true, "[NIC/eth0]MTU": 1300})"), SUCCESS);
    EXPECT_EQ(applied(take_log()), (Lines{"<7>apply_settings:LINE: Apply Flags: 0x00010000 (restart=1)"}));
}

TEST_F(set_calls, by_request_nothing_is_applied)
{
    take_log();
    EXPECT_EQ(set(R"({"[NIC/eth0]MTU":1400,"[Settings]Apply":false})"), SUCCESS);
    EXPECT_EQ(take_log(),
              (Lines{
                  R"(<5>api_set: API call: SET.  Data: {"[NIC/eth0]MTU":1400,"[Settings]Apply":false})",
                  "<7>api_set:LINE: Saving setting '[NIC/eth0]MTU'",
                  "<7>api_set:LINE: Saving setting '[Settings]Apply'",
                  "<5>api_set: By request, not applying settings. Anticipating reboot.",
                  "<7>api_set:LINE: Finished with SET command",
              }));
    EXPECT_EQ(recorded_shell.commands, Lines());
    EXPECT_EQ(value_of("[NIC/eth0]MTU"), "1400");
}

TEST_F(set_calls, not_applying_stays_in_force_until_it_is_taken_back)
{
    EXPECT_EQ(set(R"({"[Settings]Apply": false})"), SUCCESS);
    EXPECT_EQ(set(R"({"[NIC/eth0]MTU": 1400})"), SUCCESS);
    EXPECT_EQ(recorded_shell.commands, Lines());
    EXPECT_EQ(set(R"({"[Settings]Apply": true, "[NIC/eth0]MTU": 1300})"), SUCCESS);
    EXPECT_EQ(recorded_shell.commands, (Lines{"/sbin/ip link set eth0 mtu 1300"}));
}

TEST_F(set_calls, not_applying_ends_with_a_restart)
{
    EXPECT_EQ(set(R"({"[Settings]Apply": false})"), SUCCESS);
    restart_store();
    EXPECT_EQ(set(R"({"[NIC/eth0]MTU": 1400})"), SUCCESS);
    EXPECT_EQ(recorded_shell.commands, (Lines{"/sbin/ip link set eth0 mtu 1400"}));
}

TEST_F(set_calls, a_failed_apply_is_reported_and_is_a_success_still)
{
    recorded_shell.statuses = {{"mtu", 2}};
    EXPECT_EQ(
        set(R"({"[NIC/eth0]MTU": 1400})"),
        R"({"success":true,"errors":[{"code":1,"msg":"There was an error in applying the settings"}]})");
    EXPECT_EQ(value_of("[NIC/eth0]MTU"), "1400");
}

TEST_F(set_calls, one_invalid_value_saves_nothing_at_all)
{
    take_log();
    EXPECT_EQ(set(R"({"[NIC/eth0]MTU": 1400, "[NTP]Enabled": "no"})"),
              refusal(R"({"key":"[NTP]Enabled","code":3,"msg":"Value wasn't a boolean"})"));
    EXPECT_EQ(
        take_log(),
        (Lines{
            R"(<5>api_set: API call: SET.  Data: {"[NIC/eth0]MTU": 1400, "[NTP]Enabled": "no"})",
            "<5>json_response_add_error: For setting '[NTP]Enabled', adding error 3 to JSON response Value "
            "wasn't a boolean",
            R"(<3>api_set: Failed setting validation: {"[NIC/eth0]MTU":1400,"[NTP]Enabled":"no"})",
            "<7>api_set:LINE: Finished with SET command",
        }));
    EXPECT_EQ(value_of("[NIC/eth0]MTU"), "1500");
    EXPECT_EQ(recorded_shell.commands, Lines());
}

TEST_F(set_calls, an_unknown_key_is_reported_and_the_others_are_saved)
{
    EXPECT_EQ(
        set(R"({"[Unknown]x": 1, "[NIC/eth0]MTU": 1400})"),
        R"({"success":true,"errors":[{"key":"[Unknown]x","code":7,"msg":"Could not set unknown setting"}]})");
    EXPECT_EQ(value_of("[NIC/eth0]MTU"), "1400");
}

TEST_F(set_calls, a_read_only_key_refuses_the_request)
{
    EXPECT_EQ(set(R"({"[IPv4]Enabled": false, "[NIC/eth0]MTU": 1400})"), refusal(""));
    EXPECT_EQ(value_of("[NIC/eth0]MTU"), "1500");
}

TEST_F(set_calls, of_a_key_that_stands_twice_the_last_value_stays)
{
    EXPECT_EQ(set(R"({"[NIC/eth0]MTU": 1400, "[NIC/eth0]MTU": 1300})"), SUCCESS);
    EXPECT_EQ(value_of("[NIC/eth0]MTU"), "1300");
}

TEST_F(set_calls, what_a_verifier_leaves_is_what_is_saved)
{
    EXPECT_EQ(set(R"({"[Settings]Apply": false, "[IPv6/Manual]Gateways": ["ipv6:fe80::1", "host:gateway"]})"),
              SUCCESS);
    EXPECT_EQ(value_of("[IPv6/Manual]Gateways"), R"(["fe80::1","gateway"])");
}

TEST_F(set_calls, a_failed_validation_is_told_of_an_awaited_reboot_too)
{
    EXPECT_EQ(set(R"({"[Settings]Apply": false})"), SUCCESS);
    take_log();
    EXPECT_EQ(set(R"({"[NTP]Enabled": 7})"),
              refusal(R"({"key":"[NTP]Enabled","code":3,"msg":"Value wasn't a boolean"})"));
    EXPECT_EQ(
        take_important_log(),
        (Lines{
            R"(<5>api_set: API call: SET.  Data: {"[NTP]Enabled": 7})",
            "<5>json_response_add_error: For setting '[NTP]Enabled', adding error 3 to JSON response Value "
            "wasn't a boolean",
            R"(<3>api_set: Failed setting validation: {"[NTP]Enabled":7})",
            "<5>api_set: By request, not applying settings. Anticipating reboot.",
        }));
}

TEST_F(set_calls, a_text_that_does_not_parse_is_logged_and_answered)
{
    take_log();
    EXPECT_EQ(set("{"), refusal(R"({"code":2,"msg":"The provided JSON didn't parse"})"));
    EXPECT_EQ(
        take_log(),
        (Lines{
            "<5>api_set: API call: SET.  Data: {",
            "<5>json_response_add_error: Adding error 2 to JSON response: The provided JSON didn't parse",
            "<3>api_set: Null request object on SET call",
            "<7>api_set:LINE: Finished with SET command",
        }));
    EXPECT_EQ(answer(api_set, nullptr), refusal(R"({"code":2,"msg":"No json text provided"})"));
}

TEST_F(set_calls, bad_input_saves_nothing_and_runs_nothing_and_the_next_request_is_served)
{
    const auto malformed = [](const char* message) {
        return refusal(R"({"code":2,"msg":")" + std::string(message) + R"("})");
    };
    const std::string no_parse = malformed("The provided JSON didn't parse");
    const std::string no_object = malformed("The provided JSON was not an object");
    const std::string mtu = R"("[NIC/eth0]MTU":1400)";
    const std::string megabyte(1'000'000, 'x');
    const auto nested = [](std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
    const std::string no_boolean =
        refusal(R"({"key":"[NTP]Enabled","code":3,"msg":"Value wasn't a boolean"})");
    const struct {
        std::string request;
        std::string response;
    } cases[] = {
        {"", no_parse},
        {"{" + mtu, no_parse},
        {"{" + mtu + "} {}", no_parse},
        {"{" + mtu + "}\x01x", no_parse},
        {"{" + mtu + R"(,"a":"\ud800\ud800"})", no_parse},
        {"{" + mtu + R"(,"a":nan})", no_parse},
        {"\xEF\xBB\xBF\xEF\xBB\xBF{" + mtu + "}", no_parse},
        {"{" + mtu + R"(,"a":)" + nested(1'000) + "}", no_parse},
        {"[{" + mtu + "}]", no_object},
        {"null", no_object},
        {'"' + megabyte + '"', no_object},
        {"{" + mtu + R"(,"[NTP]Enabled":)" + nested(999) + "}", no_boolean},
        {"{" + mtu + R"(,"[NTP]Enabled":")" + megabyte + "\"}", no_boolean},
        {"{" + mtu + R"(,"[NTP]Enabled":true,"[NTP]Enabled":null})", no_boolean},
        {"\xEF\xBB\xBF{" + mtu + R"(,"[NTP]Enabled":0})", no_boolean},
        {R"({"[NIC/eth0]MTU":1400,"[IPv6/Manual]Gateways":"::1"})",
         refusal(R"({"key":"[IPv6/Manual]Gateways","code":3,"msg":"Value wasn't a JSON array"})")},
        {R"({"[NIC/eth0]MTU":1400,"[TrafficShaping]BurstSize":1e999})",
         refusal(R"({"key":"[TrafficShaping]BurstSize","code":3,"msg":"Value wasn't a number"})")},
        {R"({"[NIC/eth0]MTU":1400,"[IPv6/Manual]Gateways":["a;reboot\n"]})",
         refusal(
             R"({"key":"[IPv6/Manual]Gateways","code":3,"msg":"'a;reboot\n' isn't a valid server name or ip"})")},
        {R"({"[NIC/eth0]MTU":1400,"[IPv6/Manual]Gateways":[")" + megabyte + "\"]}",
         refusal(R"({"key":"[IPv6/Manual]Gateways","code":3,"msg":"')" + megabyte +
                 R"(' isn't a valid server name or ip"})")},
        {R"({"[NIC/eth0]MTU":1400,"[IPv6/Manual]Gateways":["\ufffe"]})",
         refusal(
             R"({"key":"[IPv6/Manual]Gateways","code":3,"msg":"'\ufffe' isn't a valid server name or ip"})")},
    };
    for (const auto& [request, response] : cases) {
        EXPECT_EQ(set(request), response) << request.substr(0, 200);
        EXPECT_EQ(get(R"({"settings":["[NIC/eth0]MTU"]})"),
                  R"({"success":true,"errors":[],"[NIC/eth0]MTU":1500})");
    }
    EXPECT_EQ(recorded_shell.commands, Lines());
    EXPECT_EQ(set(R"({"[NIC/eth0]MTU": 1400})"), SUCCESS);
}

TEST_F(set_calls, members_of_no_name_are_unknown_keys_like_any_other)
{
    EXPECT_EQ(set(R"({"": 1, "": 2, "[NIC/eth0]mtu": 1400})"),
              R"({"success":true,"errors":[{"key":"","code":7,"msg":"Could not set unknown setting"},)"
              R"({"key":"[NIC/eth0]mtu","code":7,"msg":"Could not set unknown setting"}]})");
    EXPECT_EQ(recorded_shell.commands, Lines());
}

TEST_F(set_calls, a_request_with_line_ends_stays_one_line_of_the_log)
{
    set("{\n\"[NTP]Enabled\": 7}");
    EXPECT_EQ(take_important_log().size(), 3U);
}

TEST_F(set_calls, a_failed_commit_applies_only_what_is_held_and_succeeds)
{
    for (int i = 0; i < 100; i++)
        set(i % 2 == 0 ? R"({"[Settings]Apply":false,"[NIC/eth0]MTU":1400})" : R"({"[NIC/eth0]MTU":1500})");
    set(R"({"[Settings]Apply":true,"[NIC/eth0]MTU":1500})");
    recorded_shell.commands.clear();
    take_log();
    {
        const FullDisk full(scratch / "settings.db-wal");
        EXPECT_EQ(set(R"({"[NIC/eth0]MTU":1300,"[IPv6/Stateful]Addresses":["2001:db8::1/64"]})"), SUCCESS);
    }
    const Lines log = take_log();
    EXPECT_EQ(applied(log), (Lines{"<7>apply_settings:LINE: Apply Flags: 0x00000004 (restart=1)"}));
    EXPECT_EQ(std::count(log.begin(), log.end(),
                         "<3>end_save_group: Could not set NIC.eth0.MTU = 1300 to settings"),
              1);
    EXPECT_EQ(value_of("[NIC/eth0]MTU"), "1500");
    EXPECT_EQ(value_of("[IPv6/Stateful]Addresses"), R"(["2001:db8::1/64"])");

    EXPECT_EQ(set(R"({"[NIC/eth0]MTU":1300})"), SUCCESS);
    EXPECT_EQ(value_of("[NIC/eth0]MTU"), "1300");
}

TEST_F(set_calls, without_memory_for_a_response_there_is_none)
{
    take_log();
    EXPECT_EQ(answer_without_memory(api_set, R"({"[NIC/eth0]MTU":1400})"), "(none)");
    EXPECT_EQ(take_log(),
              (Lines{
                  R"(<5>api_set: API call: SET.  Data: {"[NIC/eth0]MTU":1400})",
                  "<2>api_set:LINE: Critical problem creating JSON response object: NULL returned",
                  "<3>api_set: Null request object on SET call",
              }));
    EXPECT_EQ(value_of("[NIC/eth0]MTU"), "1500");
}

TEST_F(set_calls, without_memory_for_a_response_an_awaited_reboot_is_told)
{
    set(R"({"[Settings]Apply": false})");
    take_log();
    EXPECT_EQ(answer_without_memory(api_set, "{}"), "(none)");
    EXPECT_EQ(take_log(),
              (Lines{
                  "<5>api_set: API call: SET.  Data: {}",
                  "<2>api_set:LINE: Critical problem creating JSON response object: NULL returned",
                  "<3>api_set: Null request object on SET call",
                  "<5>api_set: By request, not applying settings. Anticipating reboot.",
              }));
}

TEST_F(set_calls, ten_times_the_keys_take_about_ten_times_the_time)
{
    set(R"({"[Settings]Apply": false})");
    EXPECT_LT(seconds_of(api_set, 10'000), 30 * seconds_of(api_set, 1'000));
}
