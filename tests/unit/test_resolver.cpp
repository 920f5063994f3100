#include "services/resolver.h"
#include "verdict.h"

namespace {

using resolver = QuarnTest;

constexpr char SERVERS[] = "[DNS/Manual]Servers";
constexpr char SEARCH[] = "[DNS/Manual]Search";
constexpr int TOO_MANY = 14;

// An array of `count` texts: the numbers from 1 on behind `beginning`.
std::string array_of(const std::string& beginning, int count)
{
    std::string array = "[";
    for (int number = 1; number <= count; ++number)
        array += (number == 1 ? "\"" : ",\"") + beginning + std::to_string(number) + '"';
    return array + "]";
}

// An array of domains of these lengths.
std::string domains(const std::vector<std::size_t>& lengths)
{
    std::string array;
    for (const std::size_t length : lengths)
        array += (array.empty() ? "[\"" : ",\"") + std::string(length, 'd') + '"';
    return array + "]";
}

struct ServerCase {
    bool (*verifier)(cJSON* item, JsonResponse* response);
    const char* text;
    bool is_accepted;
};

} // namespace

TEST_F(resolver, four_manual_servers_are_refused_and_three_accepted)
{
    const std::string three = array_of("192.0.2.", 3);
    EXPECT_EQ(verdict_of(verify_dns_servers, SERVERS, three), accepted(three));
    const std::string four = array_of("192.0.2.", 4);
    EXPECT_EQ(verdict_of(verify_dns_servers, SERVERS, four),
              refused(SERVERS, TOO_MANY, "Too many DNS servers provided in array", four));
}

TEST_F(resolver, four_servers_of_dhcpv6_are_refused_and_three_accepted)
{
    constexpr char KEY[] = "[DNS/IPv6/DHCP]Servers";
    const std::string three = array_of("2001:db8::", 3);
    EXPECT_EQ(verdict_of(verify_dns_servers_ipv6, KEY, three), accepted(three));
    const std::string four = array_of("2001:db8::", 4);
    EXPECT_EQ(verdict_of(verify_dns_servers_ipv6, KEY, four),
              refused(KEY, TOO_MANY, "Too many DNS servers provided in array", four));
}

TEST_F(resolver, any_number_of_servers_of_dhcpv4_is_accepted)
{
    const std::string many = array_of("192.0.2.", 200);
    EXPECT_EQ(verdict_of(verify_dns_servers_dhcpv4, "[DNS/IPv4/DHCP]Servers", many), accepted(many));
    EXPECT_EQ(verdict_of(verify_dns_servers_dhcpv4, "[DNS/IPv4/DHCP]Servers", "[]"), accepted("[]"));
}

TEST_F(resolver, each_source_takes_the_kinds_of_servers_that_it_can_name)
{
    const ServerCase cases[] = {
        {verify_dns_servers, "192.0.2.1", true},
        {verify_dns_servers, "2001:db8::1", true},
        {verify_dns_servers, "ns.example.net", false},
        {verify_dns_servers_ipv6, "192.0.2.1", false},
        {verify_dns_servers_ipv6, "fe80::1", true},
        {verify_dns_servers_ipv6, "ns.example.net", false},
        {verify_dns_servers_dhcpv4, "192.0.2.1", true},
        {verify_dns_servers_dhcpv4, "2001:db8::1", false},
        {verify_dns_servers_dhcpv4, "ns.example.net", false},
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

TEST_F(resolver, the_kind_before_a_server_is_taken_off)
{
    EXPECT_EQ(verdict_of(verify_dns_servers, SERVERS, R"(["ipv4:192.0.2.1","ipv6:fe80::1"])"),
              accepted(R"(["192.0.2.1","fe80::1"])"));
}

// No text that long is an address: the list check refuses it first, and counts nothing more.
TEST_F(resolver, an_overlong_server_is_no_server)
{
    const std::string name(245, '1');
    const std::string array = "[\"" + name + "\"]";
    EXPECT_EQ(verdict_of(verify_dns_servers_dhcpv4, SERVERS, array),
              refused(SERVERS, 3, "'" + name + "' isn't a valid server name or ip", array));
}

TEST_F(resolver, what_is_no_list_of_texts_is_refused_before_it_is_counted)
{
    EXPECT_EQ(verdict_of(verify_dns_servers, SERVERS, "null"),
              refused(SERVERS, 3, "Value wasn't a JSON array", "null"));
    EXPECT_EQ(verdict_of(verify_dns_search, SEARCH, "[1,2,3,4,5,6,7]"),
              refused(SEARCH, 3, "Found unexpected non-string in JSON array", "[1,2,3,4,5,6,7]"));
}

TEST_F(resolver, seven_search_domains_are_refused_with_the_text_of_servers_and_six_accepted)
{
    const std::string six = array_of("d", 6);
    EXPECT_EQ(verdict_of(verify_dns_search, SEARCH, six), accepted(six));
    const std::string seven = array_of("d", 7);
    EXPECT_EQ(verdict_of(verify_dns_search, SEARCH, seven),
              refused(SEARCH, TOO_MANY, "Too many DNS servers provided in array", seven));
}

TEST_F(resolver, search_domains_of_248_characters_together_are_accepted_and_of_249_refused)
{
    const std::string longest = domains({63, 63, 63, 59});
    EXPECT_EQ(verdict_of(verify_dns_search, SEARCH, longest), accepted(longest));
    const std::string too_long = domains({63, 63, 63, 60});
    EXPECT_EQ(verdict_of(verify_dns_search, SEARCH, too_long),
              refused(SEARCH, TOO_MANY, "Search domains are too long", too_long));
}

// Both faults have one code and one key, and a response has one entry for these.
TEST_F(resolver, of_too_many_and_too_long_the_first_fault_is_told)
{
    const std::string both = domains({60, 60, 60, 60, 60, 60, 60});
    EXPECT_EQ(verdict_of(verify_dns_search, SEARCH, both),
              refused(SEARCH, TOO_MANY, "Too many DNS servers provided in array", both));
}

TEST_F(resolver, a_search_domain_is_a_host_name)
{
    EXPECT_EQ(verdict_of(verify_dns_search, SEARCH, R"(["host:lab.example.net"])"),
              accepted(R"(["lab.example.net"])"));
    EXPECT_EQ(verdict_of(verify_dns_search, SEARCH, R"(["192.0.2.1"])"),
              refused(SEARCH, 3, "'192.0.2.1' isn't a valid server name or ip", R"(["192.0.2.1"])"));
}
