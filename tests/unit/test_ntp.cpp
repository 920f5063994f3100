#include "services/ntp.h"
#include "verdict.h"

namespace {

using ntp = QuarnTest;

constexpr char SERVERS[] = "[NTP/Manual]Servers";

std::string servers(int count)
{
    std::string array = "[\"pool1.example\"";
    for (int number = 2; number <= count; ++number)
        array += ",\"pool" + std::to_string(number) + ".example\"";
    return array + "]";
}

struct ServerCase {
    bool (*verifier)(cJSON* item, JsonResponse* response);
    const char* text;
    bool is_accepted;
};

} // namespace

TEST_F(ntp, eight_servers_are_refused_and_seven_accepted)
{
    for (bool (*verifier)(cJSON*, JsonResponse*) :
         {verify_ntp_servers, verify_ntp_servers_dhcpv4, verify_ntp_servers_dhcpv6}) {
        EXPECT_EQ(verdict_of(verifier, SERVERS, servers(7)), accepted(servers(7)));
        EXPECT_EQ(verdict_of(verifier, SERVERS, servers(8)),
                  refused(SERVERS, 14, "Too many NTP servers provided in array", servers(8)));
    }
}

TEST_F(ntp, each_source_takes_the_kinds_of_servers_that_it_can_name)
{
    const ServerCase cases[] = {
        {verify_ntp_servers, "192.0.2.1", true},
        {verify_ntp_servers, "fe80::1", true},
        {verify_ntp_servers, "time.example.net", true},
        {verify_ntp_servers, "time..example.net", false},
        {verify_ntp_servers, "", false},
        {verify_ntp_servers, "time.example.net iburst", false},
        {verify_ntp_servers_dhcpv4, "192.0.2.1", true},
        {verify_ntp_servers_dhcpv4, "2001:db8::1", false},
        {verify_ntp_servers_dhcpv4, "time.example.net", true},
        {verify_ntp_servers_dhcpv6, "192.0.2.1", false},
        {verify_ntp_servers_dhcpv6, "2001:db8::1", true},
        {verify_ntp_servers_dhcpv6, "time.example.net", true},
    };
    for (const ServerCase& one : cases) {
        const std::string array = "[\"" + std::string(one.text) + "\"]";
        EXPECT_EQ(verdict_of(one.verifier, SERVERS, array),
                  one.is_accepted
                      ? accepted(array)
                      : refused(SERVERS, 3, "'" + std::string(one.text) + "' isn't a valid server name or ip",
                                array));
    }
}

TEST_F(ntp, a_faulty_server_is_told_before_they_are_counted)
{
    std::string nine = servers(8);
    nine.back() = ',';
    nine += "\"-\"]";
    EXPECT_EQ(verdict_of(verify_ntp_servers, SERVERS, nine),
              refused(SERVERS, 3, "'-' isn't a valid server name or ip", nine));
}

TEST_F(ntp, the_supervisor_is_sent_its_signal)
{
    EXPECT_TRUE(reload_ntp_keeper());
    EXPECT_EQ(recorded_shell.commands, std::vector<std::string>{"kill -USR2 $(pidof -s ntp-keeper)"});
    EXPECT_EQ(take_log(), std::vector<std::string>{});
}

TEST_F(ntp, a_supervisor_that_cannot_be_told_is_a_failure)
{
    recorded_shell.statuses = {{"pidof", 2}};
    EXPECT_FALSE(reload_ntp_keeper());
    EXPECT_EQ(take_log(), std::vector<std::string>{
                              "<3>reload_ntp_keeper: Call to 'kill -USR2 $(pidof -s ntp-keeper)' had rc=2"});
}
