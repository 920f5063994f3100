#include "api/json_response.h"
#include "services/packet_filter.h"
#include "support.h"

namespace {

using packet_filter = QuarnTest;

using Log = std::vector<std::string>;
using Verifier = bool (*)(cJSON* item, JsonResponse* response);

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

Outcome verify(Verifier verifier, const std::string& value)
{
    const OwnedJson item = setting("[A]b", value.c_str());
    const auto response = json_response_new();
    const bool accepted = verifier(item.get(), response.get());
    return {accepted, print(response->root.get())};
}

Outcome refused(int code, const std::string& message)
{
    return {false, R"({"success":false,"errors":[{"key":"[A]b","code":)" + std::to_string(code) +
                       R"(,"msg":")" + message + R"("}]})"};
}

std::string error_line(int code, const std::string& message)
{
    return "<5>json_response_add_error: For setting '[A]b', adding error " + std::to_string(code) +
           " to JSON response " + message;
}

std::string array_of(int count, const std::string& item)
{
    std::string array = "[";
    for (int i = 0; i < count; i++)
        array += (i == 0 ? "\"" : ",\"") + item + '"';
    return array + ']';
}

} // namespace

TEST_F(packet_filter, ipv4_prefixes_and_the_prefix_of_all_addresses_are_accepted)
{
    for (const char* list : {"[]", R"(["0.0.0.0/0"])", R"(["10.0.0.0/8", "192.0.2.7/32", "203.0.113.9/0"])"})
        EXPECT_EQ(verify(verify_ipv4_cidr_list, list), ACCEPTED) << list;
    EXPECT_EQ(take_log(), Log());
}

TEST_F(packet_filter, an_ipv4_item_without_a_prefix_length_is_refused)
{
    EXPECT_EQ(verify(verify_ipv4_cidr_list, R"(["10.0.0.1"])"),
              refused(5, "'10.0.0.1' doesn't include a prefix length"));
    EXPECT_EQ(take_log(), Log{error_line(5, "'10.0.0.1' doesn't include a prefix length")});
}

TEST_F(packet_filter, an_ipv4_item_without_a_unicast_address_is_refused)
{
    for (const std::string item : {"0.0.0.0/8", "0.0.0.0/32", "127.0.0.1/8", "240.0.0.0/4", "camera/24",
                                   "/24", "10.0.0/24", "0.0.0.0/00", "::1/128"})
        EXPECT_EQ(verify(verify_ipv4_cidr_list, "[\"" + item + "\"]").response,
                  refused(5, "'" + item + "' doesn't contain a valid ipv4 address").response)
            << item;
}

TEST_F(packet_filter, an_ipv4_item_with_a_prefix_length_beyond_32_or_of_other_form_is_refused)
{
    for (const std::string item :
         {"10.0.0.0/33", "10.0.0.0/-1", "10.0.0.0/", "10.0.0.0/x", "10.0.0.0/24.7", "10.0.0.0/2.4e1",
          "10.0.0.0/024", "10.0.0.0/ 24", "10.0.0.0/24 ", "10.0.0.0/24/8", "10.0.0.0/4294967304"})
        EXPECT_EQ(verify(verify_ipv4_cidr_list, "[\"" + item + "\"]"),
                  refused(5, "'" + item + "' doesn't contain a valid prefix length"))
            << item;
}

TEST_F(packet_filter, every_bad_ipv4_item_is_looked_at_and_one_entry_told)
{
    EXPECT_EQ(verify(verify_ipv4_cidr_list, R"(["10.0.0.1", "10.0.0.0/8", "x/y"])"),
              refused(5, "'10.0.0.1' doesn't include a prefix length"));
    EXPECT_EQ(take_log(), (Log{error_line(5, "'10.0.0.1' doesn't include a prefix length"),
                               error_line(5, "'x/y' doesn't contain a valid ipv4 address"),
                               error_line(5, "'x/y' doesn't contain a valid prefix length")}));
}

TEST_F(packet_filter, sixteen_prefixes_are_accepted_and_seventeen_refused)
{
    const std::string message = "There are too many elements in the provided array.";
    EXPECT_EQ(verify(verify_ipv4_cidr_list, array_of(16, "10.0.0.0/8")), ACCEPTED);
    EXPECT_EQ(verify(verify_ipv4_cidr_list, array_of(17, "10.0.0.0/8")), refused(14, message));
    EXPECT_EQ(verify(verify_ipv6_prefix_list, array_of(16, "2001:db8::/32")), ACCEPTED);
    EXPECT_EQ(verify(verify_ipv6_prefix_list, array_of(17, "2001:db8::/32")), refused(14, message));
}

TEST_F(packet_filter, an_ipv4_list_that_is_no_array_of_strings_is_refused)
{
    EXPECT_EQ(verify(verify_ipv4_cidr_list, R"("10.0.0.0/8")"), refused(3, "Value wasn't a JSON array"));
    EXPECT_EQ(verify(verify_ipv4_cidr_list, R"(["10.0.0.0/8", 7])"),
              refused(3, "Found unexpected non-string in JSON array"));
}

TEST_F(packet_filter, ipv6_prefix_lengths_from_0_to_128_are_accepted)
{
    EXPECT_EQ(verify(verify_ipv6_prefix_list, R"(["::/0", "2001:db8::1/128", "fe80::/10"])"), ACCEPTED);
    EXPECT_EQ(verify(verify_ipv6_prefix_list, R"(["2001:db8::/129"])"),
              refused(6, "'2001:db8::/129' doesn't contain a valid prefix length"));
}

TEST_F(packet_filter, ports_and_ranges_up_to_65535_are_accepted)
{
    for (const char* list : {"[]", "[1]", "[65535]", "[[1, 65535]]", "[22, [7000, 8000], 30001]"})
        EXPECT_EQ(verify(verify_port_list, list), ACCEPTED) << list;
    EXPECT_EQ(take_log(), Log());
}

TEST_F(packet_filter, a_number_that_is_no_port_is_refused)
{
    for (const char* list : {"[0]", "[65536]", "[-1]", "[0.5]", "[1e999]", "[22, 4294967318]"})
        EXPECT_EQ(verify(verify_port_list, list),
                  refused(4, "JSON array had number which is invalid as a port"))
            << list;
}

TEST_F(packet_filter, a_range_that_does_not_rise_from_port_to_port_is_refused)
{
    for (const char* list : {"[[100, 90]]", "[[80, 80]]", "[[]]", "[[80]]", "[[80, 90, 100]]", "[[0, 80]]",
                             "[[80, 65536]]", R"([["80", 90]])", "[[80, [90, 91]]]", "[[80, null]]"})
        EXPECT_EQ(verify(verify_port_list, list),
                  refused(4, "JSON array had a value which wasn't a port range"))
            << list;
}

TEST_F(packet_filter, an_item_that_is_neither_port_nor_range_is_refused)
{
    for (const char* list : {R"(["22"])", R"([{"22": 22}])", "[true]", "[null]"})
        EXPECT_EQ(verify(verify_port_list, list), refused(3, "JSON array had a non-numeric (or range) value"))
            << list;
}

TEST_F(packet_filter, the_first_bad_port_ends_the_check)
{
    EXPECT_EQ(verify(verify_port_list, R"([22, 0, "x", [2, 1]])"),
              refused(4, "JSON array had number which is invalid as a port"));
    EXPECT_EQ(take_log(), Log{error_line(4, "JSON array had number which is invalid as a port")});
}

TEST_F(packet_filter, a_port_list_that_is_no_array_is_refused)
{
    for (const char* value : {"22", R"("22")", "{}", "null", "true"})
        EXPECT_EQ(verify(verify_port_list, value), refused(3, "Value wasn't a JSON array")) << value;
}

TEST_F(packet_filter, a_port_list_check_without_item_or_response_is_refused)
{
    const auto response = json_response_new();
    EXPECT_FALSE(verify_port_list(nullptr, response.get()));
    EXPECT_EQ(
        print(response->root.get()),
        R"({"success":false,"errors":[{"code":1,"msg":"Null value during string array verification"}]})");
    take_log();
    EXPECT_FALSE(verify_port_list(nullptr, nullptr));
    EXPECT_EQ(take_log(), Log{"<3>verify_port_list: Null value during string array verification"});
}
