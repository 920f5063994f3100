#include "configuration_file.h"
#include "plan.h"
#include "remote.h"
#include "report.h"
#include "status.h"
#include "support.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using quarnctl::Plan;
using quarnctl::Unchanged;

namespace {

constexpr auto ONLY_DIFFERENT = Unchanged::LEFT_OUT;

Plan plan_of(const char* wanted, const char* current, Unchanged unchanged = ONLY_DIFFERENT)
{
    return quarnctl::make_plan(json(wanted).get(), json(current).get(), unchanged);
}

std::vector<std::string> requests_of(const Plan& plan)
{
    std::vector<std::string> texts;
    for (const OwnedJson& request : plan.requests)
        texts.push_back(print(request.get()));
    return texts;
}

std::vector<std::string> texts_of(const std::vector<quarnctl::Fault>& faults)
{
    std::vector<std::string> texts;
    for (const quarnctl::Fault& fault : faults)
        texts.push_back(fault.key + ": " + fault.message);
    return texts;
}

using Texts = std::vector<std::string>;

} // namespace

TEST(quarnctl_plan, sends_what_differs_in_one_request_and_in_table_order)
{
    const Plan plan = plan_of(R"({"[RTSP]Port":555,"[NIC/eth0]MTU":1400,"[NTP]Enabled":true})",
                              R"({"[NTP]Enabled":true,"[NIC/eth0]MTU":1500,"[RTSP]Port":554})");
    EXPECT_EQ(requests_of(plan), Texts{R"({"[NIC/eth0]MTU":1400,"[RTSP]Port":555})"});
    EXPECT_EQ(print(quarnctl::changes_as_json(plan.changes).get()),
              R"([{"key":"[NIC/eth0]MTU","before":1500,"after":1400},)"
              R"({"key":"[RTSP]Port","before":554,"after":555}])");
}

TEST(quarnctl_plan, sends_nothing_when_all_is_there)
{
    const Plan plan =
        plan_of(R"({"[NIC/eth0]MTU":1500,"[Hostname]Domain":null})", R"({"[NIC/eth0]MTU":1500})");
    EXPECT_EQ(requests_of(plan), Texts{});
    EXPECT_TRUE(plan.changes.empty() && plan.left_alone.empty() && plan.faults.empty());
}

TEST(quarnctl_plan, sends_what_is_there_too_when_it_was_said_in_so_many_words)
{
    const Plan plan = plan_of(R"({"[NIC/eth0]MTU":1500})", R"({"[NIC/eth0]MTU":1500})", Unchanged::SENT);
    EXPECT_EQ(requests_of(plan), Texts{R"({"[NIC/eth0]MTU":1500})"});
    EXPECT_TRUE(plan.changes.empty());
}

TEST(quarnctl_plan, a_link_speed_goes_before_the_rate_limit_that_it_would_overwrite)
{
    const char* current = R"({"[NIC/eth0/Manual]LinkSpeed":100,"[TrafficShaping]AvgRateLimit":50000})";
    const Plan plan =
        plan_of(R"({"[TrafficShaping]AvgRateLimit":50000,"[NIC/eth0/Manual]LinkSpeed":1000})", current);
    EXPECT_EQ(requests_of(plan),
              Texts{R"({"[NIC/eth0/Manual]LinkSpeed":1000,"[TrafficShaping]AvgRateLimit":50000})"});
}

TEST(quarnctl_plan, takes_the_gateways_away_by_the_first_one_alone_and_then_null)
{
    const Plan plan =
        plan_of(R"({"[IPv4/Manual]Gateways":[],"[NIC/eth0]MTU":1400})",
                R"({"[IPv4/Manual]Gateways":["10.0.0.1","10.0.0.2"],"[IPv4/DHCP]Enabled":true})");
    EXPECT_EQ(requests_of(plan), (Texts{R"({"[IPv4/Manual]Gateways":["10.0.0.1"],"[NIC/eth0]MTU":1400})",
                                        R"({"[IPv4/Manual]DefaultGateway":null})"}));
}

TEST(quarnctl_plan, has_the_routes_set_anew_when_the_gateways_go_while_dhcp_is_off)
{
    const Plan plan = plan_of(R"({"[IPv4/Manual]Gateways":[]})",
                              R"({"[IPv4/Manual]Gateways":["10.0.0.1"],"[IPv4/DHCP]Enabled":false})");
    EXPECT_EQ(requests_of(plan),
              (Texts{R"({"[IPv4/Manual]Gateways":["10.0.0.1"]})",
                     R"({"[IPv4/DHCP]Enabled":false,"[IPv4/Manual]DefaultGateway":null})"}));
}

TEST(quarnctl_plan, gateways_that_are_not_there_need_not_be_taken_away)
{
    const char* wanted = R"({"[IPv4/Manual]Gateways":[],"[IPv4/Manual]DefaultGateway":null})";
    const char* current = R"({"[IPv4/Manual]Gateways":[],"[IPv4/Manual]DefaultGateway":null})";
    EXPECT_EQ(requests_of(plan_of(wanted, current, Unchanged::SENT)), Texts{});
}

TEST(quarnctl_plan, a_first_gateway_beside_the_list_says_nothing_new_and_must_not_say_something_else)
{
    const char* current =
        R"({"[IPv4/Manual]Gateways":["10.0.0.9"],"[IPv4/Manual]DefaultGateway":"10.0.0.9"})";
    EXPECT_EQ(
        requests_of(plan_of(
            R"({"[IPv4/Manual]Gateways":["10.0.0.1"],"[IPv4/Manual]DefaultGateway":"10.0.0.1"})", current)),
        Texts{R"({"[IPv4/Manual]Gateways":["10.0.0.1"]})"});
    const Plan wrong = plan_of(
        R"({"[IPv4/Manual]Gateways":["10.0.0.1"],"[IPv4/Manual]DefaultGateway":"10.0.0.2"})", current);
    EXPECT_EQ(
        texts_of(wrong.faults),
        Texts{"[IPv4/Manual]DefaultGateway: is not the first of [IPv4/Manual]Gateways, which it must be "
              "where both are given"});
}

TEST(quarnctl_plan, gateways_go_with_a_new_address_which_would_lose_their_routes)
{
    const Plan plan = plan_of(R"({"[IPv4/Manual]Address":"10.0.0.6"})",
                              R"({"[IPv4/Manual]Address":"10.0.0.5","[IPv4/Manual]Gateways":["10.0.0.1"]})");
    EXPECT_EQ(requests_of(plan),
              Texts{R"({"[IPv4/Manual]Address":"10.0.0.6","[IPv4/Manual]Gateways":["10.0.0.1"]})"});
    EXPECT_EQ(print(quarnctl::changes_as_json(plan.changes).get()),
              R"([{"key":"[IPv4/Manual]Address","before":"10.0.0.5","after":"10.0.0.6"}])");
}

TEST(quarnctl_plan, gateways_go_with_a_new_address_although_they_are_wanted_as_they_are)
{
    const Plan plan = plan_of(R"({"[IPv4/Manual]Address":"10.0.0.6","[IPv4/Manual]Gateways":["10.0.0.1"]})",
                              R"({"[IPv4/Manual]Address":"10.0.0.5","[IPv4/Manual]Gateways":["10.0.0.1"]})");
    EXPECT_EQ(requests_of(plan),
              Texts{R"({"[IPv4/Manual]Address":"10.0.0.6","[IPv4/Manual]Gateways":["10.0.0.1"]})"});
}

TEST(quarnctl_plan, ipv6_is_set_anew_once_the_mtu_is_large_enough_for_it_again)
{
    const auto requests = [](const char* wanted, const char* current) {
        return requests_of(plan_of(wanted, current));
    };
    EXPECT_EQ(requests(R"({"[NIC/eth0]MTU":1280})", R"({"[NIC/eth0]MTU":1279,"[IPv6]Enabled":true})"),
              (Texts{R"({"[NIC/eth0]MTU":1280})", R"({"[IPv6]Enabled":true})"}));
    EXPECT_EQ(requests(R"({"[NIC/eth0]MTU":1500})", R"({"[NIC/eth0]MTU":1279,"[IPv6]Enabled":false})"),
              Texts{R"({"[NIC/eth0]MTU":1500})"});
    EXPECT_EQ(requests(R"({"[NIC/eth0]MTU":1500})", R"({"[NIC/eth0]MTU":1280,"[IPv6]Enabled":true})"),
              Texts{R"({"[NIC/eth0]MTU":1500})"});
    EXPECT_EQ(requests(R"({"[NIC/eth0]MTU":1200})", R"({"[NIC/eth0]MTU":1250,"[IPv6]Enabled":true})"),
              Texts{R"({"[NIC/eth0]MTU":1200})"});
}

TEST(quarnctl_plan, what_cannot_be_taken_away_says_so_and_hinders_nothing)
{
    const Plan plan = plan_of(R"({"[NIC/eth0]MTU":1400,"[Hostname]Domain":null})",
                              R"({"[NIC/eth0]MTU":1500,"[Hostname]Domain":"lan"})");
    EXPECT_EQ(requests_of(plan), Texts{R"({"[NIC/eth0]MTU":1400})"});
    EXPECT_EQ(texts_of(plan.left_alone),
              Texts{"[Hostname]Domain: cannot be taken away, only changed; it stays lan"});
}

TEST(quarnctl_plan, who_asks_for_what_cannot_be_taken_away_is_refused)
{
    const Plan plan =
        plan_of(R"({"[Hostname]Domain":null})", R"({"[Hostname]Domain":"lan"})", Unchanged::SENT);
    EXPECT_EQ(texts_of(plan.faults),
              Texts{"[Hostname]Domain: cannot be taken away, only changed; it stays lan"});
}

TEST(quarnctl_plan, an_address_is_taken_away_by_null)
{
    EXPECT_EQ(
        requests_of(plan_of(R"({"[IPv4/Manual]Address":null})", R"({"[IPv4/Manual]Address":"10.0.0.5"})")),
        Texts{R"({"[IPv4/Manual]Address":null})"});
}

TEST(quarnctl_plan, reads_what_hangs_together_with_the_wanted_keys)
{
    EXPECT_EQ(quarnctl::keys_to_read(
                  json(R"({"[NIC/eth0/Manual]LinkSpeed":100,"[IPv4/Manual]Gateways":[]})").get()),
              (Texts{"[NIC/eth0/Manual]LinkSpeed", "[IPv4/Manual]Gateways", "[TrafficShaping]AvgRateLimit",
                     "[IPv4/Manual]DefaultGateway", "[IPv4/DHCP]Enabled"}));
}

TEST(quarnctl_plan, restores_the_keys_of_its_requests_and_what_they_change_beside)
{
    const OwnedJson current =
        json(R"({"[NIC/eth0/Manual]LinkSpeed":100,"[TrafficShaping]AvgRateLimit":50000,)"
             R"("[NIC/eth0]MTU":1500})");
    const Plan plan = quarnctl::make_plan(json(R"({"[NIC/eth0/Manual]LinkSpeed":1000})").get(), current.get(),
                                          ONLY_DIFFERENT);
    EXPECT_EQ(print(quarnctl::values_to_restore(plan, current.get()).get()),
              R"({"[NIC/eth0/Manual]LinkSpeed":100,"[TrafficShaping]AvgRateLimit":50000})");
}

TEST(quarnctl_plan, restoring_is_a_plan_back)
{
    const OwnedJson current = json(R"({"[IPv4/Manual]Gateways":["10.0.0.1","10.0.0.2"],)"
                                   R"("[IPv4/Manual]DefaultGateway":"10.0.0.1","[IPv4/DHCP]Enabled":false})");
    const Plan plan =
        quarnctl::make_plan(json(R"({"[IPv4/Manual]Gateways":[]})").get(), current.get(), ONLY_DIFFERENT);
    const OwnedJson restore = quarnctl::values_to_restore(plan, current.get());
    const OwnedJson after = json(R"({"[IPv4/Manual]Gateways":[],"[IPv4/Manual]DefaultGateway":null,)"
                                 R"("[IPv4/DHCP]Enabled":false})");
    EXPECT_EQ(requests_of(quarnctl::make_plan(restore.get(), after.get(), ONLY_DIFFERENT)),
              Texts{R"({"[IPv4/Manual]Gateways":["10.0.0.1","10.0.0.2"]})"});
}

// Files

TEST(quarnctl_configuration, each_fault_has_its_line)
{
    const quarnctl::ConfigurationFile file = quarnctl::parse_configuration(
        "{\n\"[A]B\": 1,\n\"[NIC/eth0]MTU\": 1400,\n\n\"[IPv4]Enabled\": true,\n"
        "\"[NIC/eth0]MTU\": 1300\n}\n");
    EXPECT_EQ(texts_of(file.faults),
              (Texts{"[A]B: line 2: Unknown key", "[IPv4]Enabled: line 5: is read-only",
                     "[NIC/eth0]MTU: line 6: is there twice"}));
}

TEST(quarnctl_configuration, a_text_that_is_no_json_is_refused_at_the_line_where_it_ends_to_be)
{
    EXPECT_EQ(texts_of(quarnctl::parse_configuration("{\n\"[NIC/eth0]MTU\": }").faults),
              Texts{": line 2: this is no JSON"});
    EXPECT_EQ(texts_of(quarnctl::parse_configuration("[]").faults),
              Texts{": the file is no JSON object of settings"});
    EXPECT_EQ(texts_of(quarnctl::parse_configuration("").faults), Texts{": line 1: this is no JSON"});
}

TEST(quarnctl_configuration, unknown_keys_are_skipped_when_asked_for_and_other_faults_are_not)
{
    quarnctl::ConfigurationFile file =
        quarnctl::parse_configuration(R"({"[A]B":1,"[NIC/eth0]MTU":1400,"[C]D":2,"[IPv4]Enabled":true})");
    quarnctl::skip_unknown_keys(file);
    EXPECT_EQ(file.skipped, (Texts{"[A]B", "[C]D"}));
    EXPECT_EQ(print(file.settings.get()), R"({"[NIC/eth0]MTU":1400,"[IPv4]Enabled":true})");
    EXPECT_EQ(texts_of(file.faults), Texts{"[IPv4]Enabled: line 1: is read-only"});
}

TEST(quarnctl_configuration, a_dotted_netmask_is_the_length_that_the_camera_keeps)
{
    const quarnctl::ConfigurationFile file =
        quarnctl::parse_configuration(R"({"[IPv4/Manual]Netmask":"255.255.0.0"})");
    EXPECT_EQ(print(file.settings.get()), R"({"[IPv4/Manual]Netmask":16})");
}

TEST(quarnctl_configuration, values_that_the_bus_or_json_cannot_carry_are_faults_of_their_line)
{
    const auto faults = [](const char* text) { return texts_of(quarnctl::parse_configuration(text).faults); };
    EXPECT_EQ(faults("{\n\"[NIC/eth0]MTU\":1e999}"), Texts{"[NIC/eth0]MTU: line 2: is no such value"});
    EXPECT_EQ(faults("{\n\"[Hostname]Name\":\"a\xff\"}"), Texts{": line 2: this is no UTF-8 text"});
    EXPECT_EQ(faults("{\n\n\"[Hostname]Name\":\"a\\u0000b\"}"), Texts{": line 3: a text holds a zero byte"});
}

// Words for the shell of another machine

TEST(quarnctl_remote, a_word_stays_one_word_in_a_shell)
{
    EXPECT_EQ(quarnctl::quoted_for_shell({"set", "[A]B=it's $(here); `x`\n"}),
              "'set' '[A]B=it'\\''s $(here); `x`\n'");
}

// The one screen

TEST(quarnctl_status, names_the_origin_of_each_address)
{
    const OwnedJson values = json(
        R"({"[IPv4/DHCP]Enabled":true,"[IPv4/DHCP]Address":"10.0.0.5","[IPv4/Actual]Address":"10.0.0.5",)"
        R"("[IPv4/Actual]Netmask":24,"[IPv6/Manual]Addresses":["2001:db8:0::5/64"],)"
        R"("[IPv6/Stateful]Addresses":["2001:db8::6/128"],"[IPv6/LocalLink]Address":"fe80::1/64",)"
        R"("[IPv6/Actual]Addresses":["2001:db8::5/64","2001:db8::6/128","2001:db8::7/64","fe80::1/64"]})");
    std::vector<std::string> texts;
    for (const quarnctl::ActualAddress& address : quarnctl::actual_addresses(values.get()))
        texts.push_back(address.text + " " + address.origin);
    EXPECT_EQ(texts, (Texts{"10.0.0.5/24 DHCP", "2001:db8::5/64 manual", "2001:db8::6/128 DHCPv6",
                            "2001:db8::7/64 router advertisement", "fe80::1/64 link-local"}));
}

TEST(quarnctl_status, an_address_of_an_old_lease_or_of_none_is_told_apart)
{
    const auto origin = [](const char* values) {
        const OwnedJson parsed = json(values);
        return std::string(quarnctl::actual_addresses(parsed.get()).at(0).origin);
    };
    EXPECT_EQ(origin(R"({"[IPv4/Actual]Address":"169.254.3.4","[IPv4/DHCP]Enabled":true})"), "link-local");
    EXPECT_EQ(origin(R"({"[IPv4/Actual]Address":"192.168.0.20","[IPv4/DHCP]Enabled":true})"), "fallback");
    EXPECT_EQ(origin(R"({"[IPv4/Actual]Address":"10.0.0.5","[IPv4/Manual]Address":"10.0.0.5"})"), "manual");
}

TEST(quarnctl_status, says_what_is_wrong)
{
    const OwnedJson bad = json(R"({"[Settings]Apply":true,"[IPv4/DHCP]Enabled":true,"[DNS]Enabled":true,)"
                               R"("[NTP]Enabled":false})");
    EXPECT_EQ(
        quarnctl::what_is_wrong(bad.get()),
        (Texts{"eth0 has no IPv4 address", "DHCP is on and no server has given an address",
               "there is no gateway: only the local network can be reached", "there is no name server"}));
    const OwnedJson good =
        json(R"({"[Settings]Apply":true,"[IPv4/DHCP]Enabled":false,"[IPv4/Manual]Address":"10.0.0.5",)"
             R"("[IPv4/Actual]Address":"10.0.0.5","[IPv4/Manual]Gateways":["10.0.0.1"],"[DNS]Enabled":true,)"
             R"("[DNS/Manual]Enabled":true,"[DNS/Manual]Servers":["10.0.0.1"],"[NTP]Enabled":false})");
    EXPECT_EQ(quarnctl::what_is_wrong(good.get()), Texts{});
}

TEST(quarnctl_status, does_not_read_what_may_probe_the_network)
{
    for (const std::string& key : quarnctl::status_keys())
        EXPECT_NE(key, "[IPv4/LocalLink]Address");
}
