#include "api/json_response.h"
#include "api/setting_request.h"
#include "scripted_kernel.h"
#include "services/traffic_shaping.h"
#include "settings/setting_store.h"
#include "support.h"

namespace {

using Log = std::vector<std::string>;
using Commands = std::vector<std::string>;

constexpr char SHOW[] = "/sbin/tc qdisc show dev eth0 | grep -q pfifo_fast";
constexpr char CREATE[] = "/sbin/tc qdisc replace dev eth0 root handle 1: htb default 5 r2q 100";
constexpr char REMOVE[] = "/sbin/tc qdisc del dev eth0 root";

const Commands CLASSES = {
    "/sbin/tc class replace dev eth0 parent 1:0 classid 1:1 htb rate 80000kbit ceil 80000kbit burst 10240b ",
    "/sbin/tc class replace dev eth0 parent 1:1 classid 1:2 htb rate 79500kbit ceil 80000kbit burst 10240b "
    "prio 4",
    "/sbin/tc class replace dev eth0 parent 1:1 classid 1:3 htb rate 90kbit ceil 68000kbit burst 10240b "
    "prio 3",
    "/sbin/tc class replace dev eth0 parent 1:1 classid 1:4 htb rate 400kbit ceil 80000kbit burst 10240b "
    "prio 2",
    "/sbin/tc class replace dev eth0 parent 1:1 classid 1:5 htb rate 10kbit ceil 64000kbit burst 10240b "
    "prio 1"};
const Commands FIXED_FILTERS = {
    "/sbin/tc filter add dev eth0 protocol ip parent 1: prio 0 u32 match ip protocol 17 0xff flowid 1:2",
    "/sbin/tc filter add dev eth0 protocol ip parent 1: prio 35 u32 match ip protocol 1 0xff flowid 1:3",
    "/sbin/tc filter add dev eth0 protocol ip parent 1: prio 60 u32 match ip protocol 2 0xff flowid 1:3",
    "/sbin/tc filter add dev eth0 protocol ip parent 1: prio 45 u32 match ip sport 22 0xffff flowid 1:3",
    "/sbin/tc filter add dev eth0 protocol ip parent 1: prio 40 u32 match ip sport 161 0xffff flowid 1:3"};
const Commands CLEAR_HTTP = {"/sbin/tc filter del dev eth0 protocol ip parent 1: prio 10"};
const Commands CLEAR_HTTPS = {"/sbin/tc filter del dev eth0 protocol ip parent 1: prio 11"};
const Commands CLEAR_RTSP = {"/sbin/tc filter del dev eth0 protocol ip parent 1: prio 20"};
const Commands ADD_HTTP = {
    "/sbin/tc filter add dev eth0 protocol ip parent 1: prio 10 u32 match ip sport 80 0xffff flowid 1:4"};
const Commands ADD_HTTPS = {
    "/sbin/tc filter add dev eth0 protocol ip parent 1: prio 11 u32 match ip sport 443 0xffff flowid 1:4"};
const Commands ADD_RTSP = {
    "/sbin/tc filter add dev eth0 protocol ip parent 1: prio 20 u32 match ip sport 554 0xffff flowid 1:3"};

Commands operator+(Commands first, const Commands& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// The first so many.
Commands take(std::size_t count, const Commands& commands)
{
    return {commands.begin(), commands.begin() + static_cast<std::ptrdiff_t>(count)};
}

// A camera that boots from its own flash; eth0 has the kernel's default qdisc unless a test says otherwise.
class traffic_shaping : public QuarnTest {
protected:
    void set_installed() { recorded_shell.statuses.emplace_back("grep -q pfifo_fast", 1); }
    void fail(const char* part) { recorded_shell.statuses.emplace_back(part, 2); }

    ScriptedKernel kernel;
};

void hold(const char* key, const std::string& value)
{
    hold_setting(setting(key, value.c_str()).get());
}

// The result, and the response as a client gets it.
struct Outcome {
    bool accepted;
    std::string response;

    bool operator==(const Outcome&) const = default;
};

void PrintTo(const Outcome& outcome, std::ostream* stream)
{
    *stream << (outcome.accepted ? "accepted with " : "refused with ") << outcome.response;
}

const Outcome ACCEPTED = {true, R"({"success":false,"errors":[]})"};
const Outcome RATE_TOO_LOW = {
    false,
    R"({"success":false,"errors":[{"key":"[TrafficShaping]AvgRateLimit","code":4,"msg":"The Traffic Shaping Average Rate Limit is too low"}]})"};
const Outcome BURST_TOO_SMALL = {
    false,
    R"({"success":false,"errors":[{"key":"[TrafficShaping]BurstSize","code":4,"msg":"The burst size is too small"}]})"};

Outcome verify(const std::string& request_text)
{
    const auto response = json_response_new();
    const auto request = json_set_request_new(request_text.c_str(), response.get());
    const bool accepted = verify_group_trafficshaping_rates(request.get(), response.get());
    return {accepted, print(response->root.get())};
}

Outcome verify(const char* name, const std::string& value)
{
    return verify(std::string(R"({"[TrafficShaping])") + name + "\":" + value + "}");
}

} // namespace

TEST_F(traffic_shaping, the_defaults_install_tree_and_fixed_filters_in_order)
{
    EXPECT_TRUE(quarn_apply_trafficshape_tree());
    EXPECT_EQ(recorded_shell.commands, Commands({SHOW, CREATE}) + CLASSES + FIXED_FILTERS);
}

TEST_F(traffic_shaping, a_new_tree_is_logged_step_by_step)
{
    quarn_apply_trafficshape_tree();
    Log expected = {
        std::string("<7>traffic_shaping_enabled:LINE: Run Command: ") + SHOW,
        "<7>traffic_shaping_enabled:LINE: Traffic shaping is not enabled",
        "<5>quarn_apply_trafficshape_tree: Applying Traffic Shaping.  Rate:80000kbps Burst:10240b",
        std::string("<7>create_qdisc:LINE: Run Command: ") + CREATE,
        "<6>create_qdisc: Traffic shaping enabled with HTB qdisc: success"};
    for (std::size_t i = 0; i < CLASSES.size(); i++) {
        expected.push_back("<7>modify_or_create_class:LINE: Run Command: " + CLASSES[i]);
        expected.push_back("<6>modify_or_create_class: Created HTB class 1:" + std::to_string(i + 1) +
                           " : success");
    }
    const Log filters = {"<6>create_proto_filter: Packets with proto=17 classified to 1:2: success",
                         "<6>create_proto_filter: Packets with proto=1 classified to 1:3: success",
                         "<6>create_proto_filter: Packets with proto=2 classified to 1:3: success",
                         "<6>create_port_filter: Packets from port=22 classified to 1:3: success",
                         "<6>create_port_filter: Packets from port=161 classified to 1:3: success"};
    for (std::size_t i = 0; i < filters.size(); i++) {
        expected.push_back((i < 3 ? "<7>create_proto_filter:LINE: Run Command: "
                                  : "<7>create_port_filter:LINE: Run Command: ") +
                           FIXED_FILTERS[i]);
        expected.push_back(filters[i]);
    }
    EXPECT_EQ(take_log(), expected);
}

TEST_F(traffic_shaping, an_installed_tree_gets_new_classes_only)
{
    set_installed();
    hold("[TrafficShaping]AvgRateLimit", "50000");
    hold("[TrafficShaping]BurstSize", "9999");
    hold("[TrafficShaping]LowLatency/Rate", "1000");
    hold("[TrafficShaping]Bulk/Rate", "2000");
    hold("[TrafficShaping]Misc/Rate", "3000");
    hold("[TrafficShaping]Rtp/CeilPercent", "99");
    hold("[TrafficShaping]Rtp/BurstPercent", "33");
    hold("[TrafficShaping]LowLatency/CeilPercent", "1");
    hold("[TrafficShaping]LowLatency/BurstPercent", "50");
    hold("[TrafficShaping]Bulk/CeilPercent", "77");
    hold("[TrafficShaping]Bulk/BurstPercent", "0");
    hold("[TrafficShaping]Misc/CeilPercent", "7");
    hold("[TrafficShaping]Misc/BurstPercent", "66");
    take_log();
    EXPECT_TRUE(quarn_apply_trafficshape_tree());
    EXPECT_EQ(
        recorded_shell.commands,
        (Commands{
            SHOW,
            "/sbin/tc class replace dev eth0 parent 1:0 classid 1:1 htb rate 50000kbit ceil 50000kbit burst "
            "9999b ",
            "/sbin/tc class replace dev eth0 parent 1:1 classid 1:2 htb rate 44000kbit ceil 49500kbit burst "
            "3299b prio 4",
            "/sbin/tc class replace dev eth0 parent 1:1 classid 1:3 htb rate 1000kbit ceil 500kbit burst "
            "4999b prio 3",
            "/sbin/tc class replace dev eth0 parent 1:1 classid 1:4 htb rate 2000kbit ceil 38500kbit burst "
            "0b prio 2",
            "/sbin/tc class replace dev eth0 parent 1:1 classid 1:5 htb rate 3000kbit ceil 3500kbit burst "
            "6599b prio 1"}));
    EXPECT_EQ(take_log()[1], "<7>traffic_shaping_enabled:LINE: Traffic shaping is  enabled");
}

TEST_F(traffic_shaping, a_stored_burst_below_the_minimum_is_raised_for_the_tree_and_stays_stored)
{
    set_installed();
    save_setting(setting("[TrafficShaping]AvgRateLimit", "100000").get());
    take_log();
    EXPECT_TRUE(quarn_apply_trafficshape_tree());
    EXPECT_EQ(take_important_log(),
              (Log{"<4>quarn_apply_trafficshape_tree: Provided burst size was too small.  Adjusting to 12800",
                   "<5>quarn_apply_trafficshape_tree: Applying Traffic Shaping.  Rate:100000kbps "
                   "Burst:12800b"}));
    EXPECT_EQ(recorded_shell.commands[1], "/sbin/tc class replace dev eth0 parent 1:0 classid 1:1 htb rate "
                                          "100000kbit ceil 100000kbit burst 12800b ");
    EXPECT_EQ(recorded_shell.commands[5], "/sbin/tc class replace dev eth0 parent 1:1 classid 1:5 htb rate "
                                          "10kbit ceil 80000kbit burst 12800b prio 1");
    EXPECT_EQ(value_of("[TrafficShaping]BurstSize"), "10240");
}

TEST_F(traffic_shaping, large_rates_are_counted_without_overflow)
{
    set_installed();
    hold("[TrafficShaping]AvgRateLimit", "2147483647");
    hold("[TrafficShaping]BurstSize", "2147483647");
    EXPECT_TRUE(quarn_apply_trafficshape_tree());
    EXPECT_EQ(recorded_shell.commands[5],
              "/sbin/tc class replace dev eth0 parent 1:1 classid 1:5 htb rate 10kbit ceil 1717986917kbit "
              "burst 2147483647b prio 1");
}

TEST_F(traffic_shaping, a_qdisc_that_cannot_be_made_ends_the_work)
{
    fail("qdisc replace");
    EXPECT_FALSE(quarn_apply_trafficshape_tree());
    EXPECT_EQ(recorded_shell.commands, (Commands{SHOW, CREATE}));
    EXPECT_EQ(take_log().back(), "<6>create_qdisc: Traffic shaping enabled with HTB qdisc: failure");
}

TEST_F(traffic_shaping, a_damaged_rate_is_told_before_anything_is_made)
{
    hold("[TrafficShaping]Misc/Rate", "\"ten\"");
    fail("qdisc replace");
    EXPECT_FALSE(quarn_apply_trafficshape_tree());
    const Log log = take_log();
    ASSERT_EQ(log.size(), 6U);
    EXPECT_EQ(log[3], "<3>get_int: [TrafficShaping]Misc/Rate value is not a JSON number; returning 0");
    EXPECT_EQ(log[4], std::string("<7>create_qdisc:LINE: Run Command: ") + CREATE);
}

TEST_F(traffic_shaping, the_first_class_that_fails_ends_the_work)
{
    fail("classid 1:3");
    EXPECT_FALSE(quarn_apply_trafficshape_tree());
    EXPECT_EQ(recorded_shell.commands, Commands({SHOW, CREATE}) + take(3, CLASSES));
    EXPECT_EQ(take_log().back(), "<6>modify_or_create_class: Created HTB class 1:3 : failure");
}

TEST_F(traffic_shaping, every_fixed_filter_is_tried_after_a_failure)
{
    for (const char* part : {"protocol 17", "protocol 1 ", "protocol 2", "sport 22", "sport 161"}) {
        recorded_shell = RecordedShell();
        fail(part);
        EXPECT_FALSE(quarn_apply_trafficshape_tree()) << part;
        EXPECT_EQ(recorded_shell.commands, Commands({SHOW, CREATE}) + CLASSES + FIXED_FILTERS) << part;
    }
}

TEST_F(traffic_shaping, turning_off_what_is_off_runs_nothing_more_and_succeeds)
{
    hold("[TrafficShaping]Enabled", "false");
    EXPECT_TRUE(quarn_apply_trafficshape_tree());
    EXPECT_EQ(recorded_shell.commands, Commands{SHOW});
}

TEST_F(traffic_shaping, turning_off_removes_the_tree)
{
    set_installed();
    hold("[TrafficShaping]Enabled", "false");
    take_log();
    EXPECT_TRUE(quarn_apply_trafficshape_tree());
    EXPECT_EQ(recorded_shell.commands, (Commands{SHOW, REMOVE}));
    EXPECT_EQ(take_log(), (Log{std::string("<7>traffic_shaping_enabled:LINE: Run Command: ") + SHOW,
                               "<7>traffic_shaping_enabled:LINE: Traffic shaping is  enabled",
                               std::string("<7>disable_traffic_shaping:LINE: Run Command: ") + REMOVE,
                               "<6>disable_traffic_shaping: Traffic shaping disabled: success"}));
    fail("qdisc del");
    EXPECT_FALSE(quarn_apply_trafficshape_tree());
    EXPECT_EQ(take_log().back(), "<6>disable_traffic_shaping: Traffic shaping disabled: failure");
}

TEST_F(traffic_shaping, an_nfs_root_is_never_shaped)
{
    kernel.command_line = "console=ttyS0 root=/dev/nfs ip=dhcp";
    set_installed();
    EXPECT_TRUE(quarn_apply_trafficshape_tree());
    EXPECT_TRUE(quarn_apply_trafficshape_ports());
    hold("[TrafficShaping]Enabled", "false");
    EXPECT_TRUE(quarn_apply_trafficshape_tree());
    EXPECT_EQ(recorded_shell.commands, Commands());
}

TEST_F(traffic_shaping, the_filters_of_the_service_ports_are_put_anew)
{
    set_installed();
    EXPECT_TRUE(quarn_apply_trafficshape_ports());
    EXPECT_EQ(recorded_shell.commands,
              Commands{SHOW} + CLEAR_HTTP + ADD_HTTP + CLEAR_HTTPS + ADD_HTTPS + CLEAR_RTSP + ADD_RTSP);
    EXPECT_EQ(take_log(), (Log{std::string("<7>traffic_shaping_enabled:LINE: Run Command: ") + SHOW,
                               "<7>traffic_shaping_enabled:LINE: Traffic shaping is  enabled",
                               "<7>clear_filter:LINE: Run Command: " + CLEAR_HTTP[0],
                               "<7>clear_filter:LINE: Removed HTB filter with prio=10 : success",
                               "<7>create_port_filter:LINE: Run Command: " + ADD_HTTP[0],
                               "<6>create_port_filter: Packets from port=80 classified to 1:4: success",
                               "<7>clear_filter:LINE: Run Command: " + CLEAR_HTTPS[0],
                               "<7>clear_filter:LINE: Removed HTB filter with prio=11 : success",
                               "<7>create_port_filter:LINE: Run Command: " + ADD_HTTPS[0],
                               "<6>create_port_filter: Packets from port=443 classified to 1:4: success",
                               "<7>clear_filter:LINE: Run Command: " + CLEAR_RTSP[0],
                               "<7>clear_filter:LINE: Removed HTB filter with prio=20 : success",
                               "<7>create_port_filter:LINE: Run Command: " + ADD_RTSP[0],
                               "<6>create_port_filter: Packets from port=554 classified to 1:3: success"}));
}

TEST_F(traffic_shaping, filters_that_were_not_there_do_not_matter)
{
    set_installed();
    fail("filter del");
    EXPECT_TRUE(quarn_apply_trafficshape_ports());
    EXPECT_EQ(take_log()[3], "<7>clear_filter:LINE: Removed HTB filter with prio=10 : failure");
}

TEST_F(traffic_shaping, a_port_filter_that_fails_leaves_the_later_ones_removed)
{
    set_installed();
    fail("sport 80 ");
    EXPECT_FALSE(quarn_apply_trafficshape_ports());
    EXPECT_EQ(recorded_shell.commands, Commands{SHOW} + CLEAR_HTTP + ADD_HTTP + CLEAR_HTTPS + CLEAR_RTSP);
    recorded_shell = RecordedShell();
    set_installed();
    fail("sport 443");
    EXPECT_FALSE(quarn_apply_trafficshape_ports());
    EXPECT_EQ(recorded_shell.commands,
              Commands{SHOW} + CLEAR_HTTP + ADD_HTTP + CLEAR_HTTPS + ADD_HTTPS + CLEAR_RTSP);
    recorded_shell = RecordedShell();
    set_installed();
    fail("sport 554");
    EXPECT_FALSE(quarn_apply_trafficshape_ports());
    EXPECT_EQ(take_log().back(), "<6>create_port_filter: Packets from port=554 classified to 1:3: failure");
}

TEST_F(traffic_shaping, without_a_tree_no_port_filter_is_touched)
{
    EXPECT_TRUE(quarn_apply_trafficshape_ports());
    EXPECT_EQ(recorded_shell.commands, Commands{SHOW});
    EXPECT_EQ(take_log().back(),
              "<6>quarn_apply_trafficshape_ports: Not applying traffic shaping port filters "
              "because traffic shaping is not turned on");
}

TEST_F(traffic_shaping, an_average_rate_of_12499_is_too_low_for_the_default_classes_and_12500_is_not)
{
    EXPECT_EQ(verify("AvgRateLimit", "12499"), RATE_TOO_LOW);
    EXPECT_EQ(verify("AvgRateLimit", "12500"), ACCEPTED);
}

TEST_F(traffic_shaping, an_average_rate_of_100000_needs_a_larger_burst_than_the_stored_one)
{
    EXPECT_EQ(verify("AvgRateLimit", "100000"), BURST_TOO_SMALL);
    const std::string rate = R"({"[TrafficShaping]AvgRateLimit": 100000, "[TrafficShaping]BurstSize": )";
    EXPECT_EQ(verify(rate + "12799}"), BURST_TOO_SMALL);
    EXPECT_EQ(verify(rate + "12800}"), ACCEPTED);
}

TEST_F(traffic_shaping, each_class_rate_counts_in_the_sum)
{
    // 80000 - 12000 and the two other classes' defaults
    EXPECT_EQ(verify("LowLatency/Rate", "67590"), ACCEPTED);
    EXPECT_EQ(verify("LowLatency/Rate", "67591"), RATE_TOO_LOW);
    EXPECT_EQ(verify("Bulk/Rate", "67900"), ACCEPTED);
    EXPECT_EQ(verify("Bulk/Rate", "67901"), RATE_TOO_LOW);
    EXPECT_EQ(verify("Misc/Rate", "67510"), ACCEPTED);
    EXPECT_EQ(verify("Misc/Rate", "67511"), RATE_TOO_LOW);
    EXPECT_EQ(verify("BurstSize", "10240"), ACCEPTED);
    EXPECT_EQ(verify("BurstSize", "10239"), BURST_TOO_SMALL);
}

TEST_F(traffic_shaping, both_faults_are_told)
{
    EXPECT_EQ(
        verify(R"({"[TrafficShaping]AvgRateLimit": 12499, "[TrafficShaping]BurstSize": 0})"),
        (Outcome{
            false,
            R"({"success":false,"errors":[)"
            R"({"key":"[TrafficShaping]BurstSize","code":4,"msg":"The burst size is too small"},)"
            R"({"key":"[TrafficShaping]AvgRateLimit","code":4,"msg":"The Traffic Shaping Average Rate Limit is too low"}]})"}));
}

TEST_F(traffic_shaping, the_minimum_burst_wraps_at_32_bits)
{
    EXPECT_EQ(verify("AvgRateLimit", "4194303"), BURST_TOO_SMALL);
    EXPECT_EQ(verify("AvgRateLimit", "4194304"), ACCEPTED);
}

TEST_F(traffic_shaping, huge_and_negative_values_do_not_overflow_the_sum)
{
    EXPECT_EQ(
        verify(R"({"[TrafficShaping]LowLatency/Rate": 2147483647, "[TrafficShaping]Bulk/Rate": 2147483647})"),
        RATE_TOO_LOW);
    EXPECT_EQ(
        verify(R"({"[TrafficShaping]AvgRateLimit": -2147483648, "[TrafficShaping]BurstSize": 2147483647})"),
        RATE_TOO_LOW);
    EXPECT_EQ(verify("BurstSize", "-1"), BURST_TOO_SMALL);
}

TEST_F(traffic_shaping, a_proposal_that_is_no_number_leaves_the_stored_value_in_the_sum)
{
    hold("[TrafficShaping]AvgRateLimit", "12400");
    EXPECT_EQ(verify("AvgRateLimit", R"("80000")"), RATE_TOO_LOW);
}

TEST_F(traffic_shaping, a_request_without_rates_passes)
{
    hold("[TrafficShaping]AvgRateLimit", "1");
    EXPECT_EQ(verify(R"({"[TrafficShaping]Enabled": true, "[TrafficShaping]Rtp/CeilPercent": 1})"), ACCEPTED);
}

TEST_F(traffic_shaping, the_least_average_rate_follows_the_class_rates)
{
    EXPECT_EQ(value_of("[TrafficShaping]MinAvgRateLimit"), "12500");
    hold("[TrafficShaping]LowLatency/Rate", "2147483647");
    hold("[TrafficShaping]Bulk/Rate", "1000");
    hold("[TrafficShaping]Misc/Rate", "2147483647");
    EXPECT_EQ(value_of("[TrafficShaping]MinAvgRateLimit"), "4294980294");
}

TEST_F(traffic_shaping, the_burst_time_is_1)
{
    EXPECT_EQ(value_of("[TrafficShaping]BurstTime"), "1");
}

TEST_F(traffic_shaping, a_rate_check_without_request_or_response_is_refused)
{
    const auto response = json_response_new();
    EXPECT_FALSE(verify_group_trafficshaping_rates(nullptr, response.get()));
    EXPECT_EQ(
        print(response->root.get()),
        R"({"success":false,"errors":[{"code":1,"msg":"Null value during traffic shaping rate verification"}]})");
    take_log();
    EXPECT_FALSE(verify_group_trafficshaping_rates(nullptr, nullptr));
    EXPECT_EQ(take_log(), Log{"<3>verify_group_trafficshaping_rates: Null value during traffic shaping rate "
                              "verification"});
}
