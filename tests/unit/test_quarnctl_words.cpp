#include "nearest.h"
#include "support.h"
#include "values.h"
#include "words.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using quarnctl::Assignment;
using quarnctl::Operation;

namespace {

// The JSON that a word means for a key; "(none)" for a word that means none.
std::string value_for(const char* key, const std::string& word)
{
    const OwnedJson value = quarnctl::value_of_word(*quarnctl::find_setting(key), word);
    return value ? print(value.get()) : "(none)";
}

std::string items_for(const char* key, const std::string& word)
{
    const OwnedJson items = quarnctl::items_of_word(*quarnctl::find_setting(key), word);
    return items ? print(items.get()) : "(none)";
}

struct WordCase {
    const char* key;
    const char* word;
    const char* json;
};

std::string parsed(const char* text)
{
    Assignment assignment;
    if (!quarnctl::parse_assignment(text, assignment))
        return "(none)";
    const char* operation = assignment.operation == Operation::SET   ? " = "
                            : assignment.operation == Operation::ADD ? " += "
                                                                     : " -= ";
    return assignment.key + operation + assignment.word;
}

} // namespace

TEST(quarnctl_words, are_taken_by_the_type_of_the_setting)
{
    constexpr WordCase CASES[] = {
        {"[NTP]Enabled", "on", "true"},
        {"[NTP]Enabled", "no", "false"},
        {"[NTP]Enabled", "true", "true"},
        {"[NTP]Enabled", "maybe", "(none)"},
        {"[NTP]Enabled", "", "(none)"},
        {"[NIC/eth0]MTU", "1400", "1400"},
        {"[NIC/eth0]MTU", "abc", "(none)"},
        {"[NIC/eth0]MTU", "1.4e3", "1400"},
        {"[NIC/eth0]MTU", "1e999", "(none)"},
        {"[NIC/eth0]MTU", "[1e999]", "(none)"},
        {"[IPv4/Manual]Address", "10.0.0.5", "\"10.0.0.5\""},
        {"[IPv4/Manual]Address", "null", "null"},
        {"[IPv4/Manual]Address", "", "null"},
        {"[IPv4/Manual]Netmask", "24", "24"},
        {"[IPv4/Manual]Netmask", "/24", "24"},
        {"[IPv4/Manual]Netmask", "255.255.255.0", "24"},
        {"[IPv4/Manual]Netmask", "255.255.0.255", "\"255.255.0.255\""},
        {"[IPv4/Manual]Netmask", "wide", "(none)"},
        {"[IPv4/Manual]Netmask", "", "(none)"},
        {"[Hostname]Name", "camera1", "\"camera1\""},
        {"[Hostname]Name", "123", "\"123\""},
        {"[Hostname]Name", "true", "\"true\""},
        {"[Hostname]Name", "\"null\"", "\"null\""},
        {"[DNS/Manual]Servers", "10.0.0.1", "[\"10.0.0.1\"]"},
        {"[DNS/Manual]Servers", "10.0.0.1,2001:db8::1", "[\"10.0.0.1\",\"2001:db8::1\"]"},
        {"[DNS/Manual]Servers", "", "[]"},
        {"[DNS/Manual]Servers", "null", "null"},
        {"[DNS/Manual]Servers", "a,,b", "(none)"},
        {"[DNS/Manual]Servers", "[\"10.0.0.1\"]", "[\"10.0.0.1\"]"},
        {"[DNS/Manual]Servers", "\"10.0.0.1\"", "[\"10.0.0.1\"]"},
        {"[IPTables/Allow]TcpDestPorts", "22,7000-8000", "[22,[7000,8000]]"},
        {"[IPTables/Allow]TcpDestPorts", "22", "[22]"},
        {"[IPTables/Allow]TcpDestPorts", "[22,[7000,8000]]", "[22,[7000,8000]]"},
        {"[IPTables/Allow]TcpDestPorts", "7000-", "(none)"},
        {"[IPTables/Allow]TcpDestPorts", "-a", "(none)"},
        {"[IPTables/Allow]TcpDestPorts", "ssh", "(none)"},
    };
    for (const WordCase& word : CASES)
        EXPECT_EQ(value_for(word.key, word.word), word.json) << word.key << " " << word.word;
}

TEST(quarnctl_words, json_of_another_type_is_left_to_the_daemon_to_refuse)
{
    EXPECT_EQ(value_for("[NIC/eth0]MTU", "\"1400\""), "\"1400\"");
    EXPECT_EQ(value_for("[NTP]Enabled", "7"), "7");
}

TEST(quarnctl_words, a_pair_of_ports_is_one_item_of_a_list_and_a_list_of_its_own)
{
    EXPECT_EQ(items_for("[IPTables/Allow]TcpDestPorts", "[7000,8000]"), "[[7000,8000]]");
    EXPECT_EQ(items_for("[IPTables/Allow]TcpDestPorts", "7000-8000"), "[[7000,8000]]");
    EXPECT_EQ(items_for("[IPTables/Allow]TcpDestPorts", "22,23"), "[22,23]");
    EXPECT_EQ(value_for("[IPTables/Allow]TcpDestPorts", "[7000,8000]"), "[7000,8000]");
}

TEST(quarnctl_words, null_is_no_item)
{
    EXPECT_EQ(items_for("[DNS/Manual]Servers", "null"), "(none)");
    EXPECT_EQ(items_for("[IPTables/Allow]TcpDestPorts", "null"), "(none)");
}

TEST(quarnctl_words, a_netmask_has_a_length_unless_it_has_gaps_or_takes_the_whole_address)
{
    EXPECT_EQ(quarnctl::length_of_netmask("128.0.0.0"), 1);
    EXPECT_EQ(quarnctl::length_of_netmask("255.255.255.254"), 31);
    for (const char* text : {"255.255.255.255", "255.0.255.0", "0.0.0.1", "24", "255.255.255", ""})
        EXPECT_EQ(quarnctl::length_of_netmask(text), std::nullopt) << text;
}

TEST(quarnctl_words, an_assignment_is_split_at_its_first_equals_sign)
{
    EXPECT_EQ(parsed("[A]B=c"), "[A]B = c");
    EXPECT_EQ(parsed("[A]B="), "[A]B = ");
    EXPECT_EQ(parsed("[A]B+=c=d"), "[A]B += c=d");
    EXPECT_EQ(parsed("[A]B-=-1"), "[A]B -= -1");
    EXPECT_EQ(parsed("[A]B"), "(none)");
    EXPECT_EQ(parsed("=c"), "(none)");
    EXPECT_EQ(parsed("+=c"), "(none)");
}

TEST(quarnctl_words, an_item_that_is_there_is_not_added_again)
{
    const OwnedJson list = json("[22,[7000,8000]]");
    quarnctl::add_items(list.get(), json("[[7000,8000],23,22,23]").get());
    EXPECT_EQ(print(list.get()), "[22,[7000,8000],23]");
}

TEST(quarnctl_words, an_item_is_removed_wherever_it_stands_and_not_missed_where_it_does_not)
{
    const OwnedJson list = json(R"(["a","b","a","c"])");
    quarnctl::remove_items(list.get(), json(R"(["a","d"])").get());
    EXPECT_EQ(print(list.get()), R"(["b","c"])");
}

// Values

TEST(quarnctl_values, json_is_one_value_and_nothing_after_it)
{
    EXPECT_EQ(quarnctl::parse_json("1 2"), nullptr);
    EXPECT_EQ(quarnctl::parse_json(std::string("1\0 2", 4)), nullptr);
    EXPECT_EQ(print(quarnctl::parse_json(" [1] ").get()), "[1]");
}

TEST(quarnctl_values, a_text_with_a_zero_byte_which_would_lose_its_rest_is_none)
{
    EXPECT_EQ(quarnctl::parse_json(R"({"a":"b\u0000c"})"), nullptr);
    EXPECT_EQ(print(quarnctl::parse_json(R"("b\u0001c")").get()), R"("b\u0001c")");
}

TEST(quarnctl_values, a_number_beyond_all_bounds_is_found_wherever_it_stands)
{
    EXPECT_TRUE(quarnctl::has_endless_number(json(R"([1,{"a":-1e999}])").get()));
    EXPECT_FALSE(quarnctl::has_endless_number(json(R"([1e300,{"a":null}])").get()));
    EXPECT_FALSE(quarnctl::has_endless_number(nullptr));
}

TEST(quarnctl_values, the_first_byte_that_belongs_to_no_letter_is_found)
{
    EXPECT_EQ(quarnctl::find_bad_byte("a\u00e4\u20ac\U0001F600"), std::string::npos);
    EXPECT_EQ(quarnctl::find_bad_byte("ab\xff"), 2U);
    // Cut off, longer than need be, half of a pair, and beyond the last letter.
    for (const char* text : {"\xe2\x82", "\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\x80"})
        EXPECT_EQ(quarnctl::find_bad_byte(text), 0U) << text;
}

TEST(quarnctl_values, what_speaks_to_a_terminal_is_printed_as_escapes)
{
    EXPECT_EQ(quarnctl::printable("\u00e4\n\x7f"), "\u00e4\\x0a\\x7f");
    EXPECT_EQ(quarnctl::printable("a\u009b2J\u00a0"), "a\\xc2\\x9b2J\u00a0");
    EXPECT_EQ(quarnctl::printable("\xff\xe2\x82z"), "\\xff\\xe2\\x82z");
}

TEST(quarnctl_values, nothing_and_null_are_the_same)
{
    const OwnedJson null = json("null");
    const OwnedJson number = json("0");
    EXPECT_TRUE(quarnctl::are_same(nullptr, null.get()));
    EXPECT_FALSE(quarnctl::are_same(null.get(), number.get()));
    EXPECT_FALSE(quarnctl::are_same(json("[1,2]").get(), json("[2,1]").get()));
    EXPECT_TRUE(quarnctl::are_same(json("[1, 2]").get(), json("[1,2.0]").get()));
}

TEST(quarnctl_values, a_file_has_a_member_a_line)
{
    EXPECT_EQ(quarnctl::json_file(json(R"({"a":1,"b":["x",{"c":null}]})").get()),
              "{\n    \"a\": 1,\n    \"b\": [\"x\",{\"c\":null}]\n}\n");
    EXPECT_EQ(quarnctl::json_file(json("{}").get()), "{}\n");
}

// Nearest keys

TEST(quarnctl_nearest, counts_changed_missing_and_swapped_letters)
{
    EXPECT_EQ(quarnctl::edit_distance("", ""), 0U);
    EXPECT_EQ(quarnctl::edit_distance("abc", ""), 3U);
    EXPECT_EQ(quarnctl::edit_distance("kitten", "sitting"), 3U);
    EXPECT_EQ(quarnctl::edit_distance("Port", "Prot"), 1U);
    EXPECT_EQ(quarnctl::edit_distance("[nic/ETH0]mtu", "[NIC/eth0]MTU"), 0U);
}

TEST(quarnctl_nearest, the_nearest_key_comes_first)
{
    EXPECT_EQ(quarnctl::nearest_keys("[NIC/eth0]mtu"),
              (std::vector<std::string>{"[NIC/eth0]MTU", "[NIC/eth0]MAC"}));
    EXPECT_EQ(quarnctl::nearest_keys("[Hostnmae]Name").front(), "[Hostname]Name");
}

TEST(quarnctl_nearest, a_part_of_a_key_finds_it)
{
    EXPECT_EQ(quarnctl::nearest_keys("BurstTime"), std::vector<std::string>{"[TrafficShaping]BurstTime"});
}

TEST(quarnctl_nearest, what_is_far_from_everything_finds_nothing)
{
    EXPECT_EQ(quarnctl::suggestion_for("temperature"), "");
    EXPECT_EQ(quarnctl::suggestion_for(""), "");
    EXPECT_EQ(quarnctl::suggestion_for(std::string(100000, 'x')), "");
}
