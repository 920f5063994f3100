#include "api/json_response.h"
#include "api/verifiers.h"
#include "support.h"

#include <sys/stat.h>

namespace {

using verifiers = QuarnTest;

using Lines = std::vector<std::string>;
using Verifier = bool (*)(cJSON* item, JsonResponse* response);

// The result, the error list as JSON and what is left of the value.
struct Outcome {
    bool accepted;
    std::string errors;
    std::string value;

    bool operator==(const Outcome&) const = default;
};

void PrintTo(const Outcome& outcome, std::ostream* stream)
{
    *stream << (outcome.accepted ? "accepted " : "refused ") << outcome.value << " with " << outcome.errors;
}

template <typename Verify> Outcome verify(Verify verifier, const char* value_text)
{
    const OwnedJson item = setting("[A]b", value_text);
    const std::unique_ptr<JsonResponse> response = json_response_new();
    const bool accepted = verifier(item.get(), response.get());
    return {accepted, print(cJSON_GetObjectItemCaseSensitive(response->root.get(), "errors")),
            print(item.get())};
}

Outcome verify_servers(unsigned kinds, const char* value_text)
{
    return verify(
        [kinds](cJSON* item, JsonResponse* response) { return verify_server_list(item, response, kinds); },
        value_text);
}

// As the manual IPv6 addresses are checked.
Outcome verify_cidrs(const std::string& value_text)
{
    return verify(
        [](cJSON* item, JsonResponse* response) { return verify_ipv6_cidr_list(item, response, 1, 128, 16); },
        value_text.c_str());
}

std::string entry(int code, const std::string& message)
{
    return R"({"key":"[A]b","code":)" + std::to_string(code) + R"(,"msg":")" + message + R"("})";
}

std::string cidr_array(int count)
{
    std::string array = "[";
    for (int i = 1; i <= count; i++)
        array += (i == 1 ? "\"fe80::" : ",\"fe80::") + std::to_string(i) + "/64\"";
    return array + "]";
}

void expect_verdicts(Verifier verifier, std::initializer_list<const char*> accepted,
                     std::initializer_list<const char*> refused, const std::string& error)
{
    for (const char* value : accepted)
        EXPECT_EQ(verify(verifier, value), (Outcome{true, "[]", print(json(value).get())})) << value;
    for (const char* value : refused)
        EXPECT_EQ(verify(verifier, value), (Outcome{false, "[" + error + "]", print(json(value).get())}))
            << value;
}

} // namespace

TEST_F(verifiers, a_boolean_is_true_or_false)
{
    expect_verdicts(verify_is_bool, {"true", "false"}, {"null", "0", "1", "\"true\"", "[]", "[true]", "{}"},
                    entry(3, "Value wasn't a boolean"));
}

TEST_F(verifiers, a_string_may_be_null)
{
    expect_verdicts(verify_is_string, {"\"\"", "\"text\"", "null"}, {"true", "7", "[]", "[\"text\"]", "{}"},
                    entry(3, "Value wasn't a string"));
}

TEST_F(verifiers, a_number_is_finite)
{
    expect_verdicts(verify_is_number, {"0", "-1", "100.7", "1e300", "-1e300"},
                    {"null", "true", "\"7\"", "[]", "[7]", "{}", "1e999", "-1e999"},
                    entry(3, "Value wasn't a number"));
}

TEST_F(verifiers, a_string_array_holds_strings_only)
{
    expect_verdicts(verify_arr_strs, {"[]", "[\"\"]", "[\"a\", \"b\"]"},
                    {"null", "\"a\"", "7", "{\"a\":\"b\"}"}, entry(3, "Value wasn't a JSON array"));
    expect_verdicts(verify_arr_strs, {}, {"[1]", "[null]", "[\"a\", true, 2]", "[[\"a\"]]"},
                    entry(3, "Found unexpected non-string in JSON array"));
}

TEST_F(verifiers, a_percentage_in_range_passes_by_its_integer_value)
{
    for (const char* value : {"0", "1", "100", "100.7", "-0.5"})
        EXPECT_EQ(verify(verify_is_percentage, value), (Outcome{true, "[]", value}));
}

TEST_F(verifiers, a_percentage_out_of_range_adds_its_error_and_passes)
{
    for (const char* value : {"101", "-1", "2147483647", "-2147483648"})
        EXPECT_EQ(verify(verify_is_percentage, value),
                  (Outcome{true, "[" + entry(4, "Not a valid percentage value") + "]", value}));
}

TEST_F(verifiers, a_percentage_that_is_no_number_is_refused)
{
    for (const char* value : {"\"50\"", "null", "true", "[]"})
        EXPECT_EQ(verify(verify_is_percentage, value),
                  (Outcome{false, "[" + entry(3, "Value wasn't a number") + "]", value}));
    EXPECT_EQ(verify(verify_is_percentage, "1e999"),
              (Outcome{false, "[" + entry(3, "Value wasn't a number") + "]", "null"}));
}

TEST_F(verifiers, a_file_is_null_or_the_path_of_a_regular_file)
{
    const std::filesystem::path file = scratch / "certificate.pem";
    const std::filesystem::path pipe = scratch / "pipe";
    const std::filesystem::path link = scratch / "link";
    write_text(file, "text");
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    std::filesystem::create_symlink(file, link);

    for (const std::string& path : {file.string(), link.string()})
        EXPECT_EQ(verify(verify_is_file, ("\"" + path + "\"").c_str()),
                  (Outcome{true, "[]", "\"" + path + "\""}));
    EXPECT_EQ(verify(verify_is_file, "null"), (Outcome{true, "[]", "null"}));
    for (const std::string& path :
         {scratch.string(), pipe.string(), file.string() + "/", (scratch / "none").string(),
          std::string("/dev/null"), std::string(), std::string(100'000, 'x')})
        EXPECT_EQ(verify(verify_is_file, ("\"" + path + "\"").c_str()),
                  (Outcome{false, "[" + entry(4, "Not a file") + "]", "\"" + path + "\""}));
    for (const char* value : {"true", "7", "[]", "{}"})
        EXPECT_EQ(verify(verify_is_file, value),
                  (Outcome{false, "[" + entry(3, "Value isn't a string") + "]", value}));
}

TEST_F(verifiers, a_file_needs_no_response)
{
    const std::filesystem::path file = scratch / "certificate.pem";
    write_text(file, "text");
    const OwnedJson there = setting("[A]b", ("\"" + file.string() + "\"").c_str());
    const OwnedJson missing = setting("[A]b", "\"/nowhere\"");
    const OwnedJson number = setting("[A]b", "7");
    EXPECT_TRUE(verify_is_file(there.get(), nullptr));
    EXPECT_FALSE(verify_is_file(missing.get(), nullptr));
    EXPECT_FALSE(verify_is_file(number.get(), nullptr));
    EXPECT_EQ(take_log(), Lines());
}

TEST_F(verifiers, a_null_response_is_logged_and_refused)
{
    const OwnedJson item = setting("[A]b", "true");
    const struct {
        Verifier verifier;
        Lines log;
    } cases[] = {
        {verify_is_bool, {"<3>verify_is_bool: Null value during boolean verification"}},
        {verify_is_string, {"<3>verify_is_string: Null value during string verification"}},
        {verify_is_number, {"<3>verify_is_number: Null value during string verification"}},
        {verify_is_percentage, {"<3>verify_is_number: Null value during string verification"}},
        {verify_arr_strs, {"<3>verify_arr_strs: Null value during string array verification"}},
        {verify_server_list_any, {"<3>verify_arr_strs: Null value during string array verification"}},
    };
    for (const auto& [verifier, log] : cases) {
        EXPECT_FALSE(verifier(item.get(), nullptr));
        EXPECT_EQ(take_log(), log);
        EXPECT_FALSE(verifier(nullptr, nullptr));
        EXPECT_EQ(take_log(), log);
    }
    EXPECT_FALSE(verify_is_file(nullptr, nullptr));
    EXPECT_EQ(take_log(), (Lines{"<3>verify_is_file: Null value during file verification"}));
    EXPECT_FALSE(verify_ipv6_cidr_list(item.get(), nullptr, 1, 128, 16));
    EXPECT_EQ(take_log(), (Lines{"<3>verify_arr_strs: Null value during string array verification"}));
}

TEST_F(verifiers, a_null_item_adds_an_error_without_a_key)
{
    const struct {
        Verifier verifier;
        const char* message;
    } cases[] = {
        {verify_is_bool, "Null value during boolean verification"},
        {verify_is_string, "Null value during string verification"},
        {verify_is_number, "Null value during string verification"},
        {verify_is_percentage, "Null value during string verification"},
        {verify_arr_strs, "Null value during string array verification"},
        {verify_server_list_any, "Null value during string array verification"},
        {verify_server_list_host_or_ipv4, "Null value during string array verification"},
        {verify_server_list_host_or_ipv6, "Null value during string array verification"},
        {verify_is_file, "Null value during file verification"},
    };
    for (const auto& [verifier, message] : cases) {
        const std::unique_ptr<JsonResponse> response = json_response_new();
        EXPECT_FALSE(verifier(nullptr, response.get()));
        EXPECT_EQ(print(response->root.get()),
                  std::string(R"({"success":false,"errors":[{"code":1,"msg":")") + message + R"("}]})");
    }
}

TEST_F(verifiers, an_ordinary_refusal_logs_only_the_error_entry)
{
    verify(verify_is_bool, "7");
    EXPECT_EQ(take_log(),
              (Lines{"<5>json_response_add_error: For setting '[A]b', adding error 3 to JSON response "
                     "Value wasn't a boolean"}));
}

TEST_F(verifiers, a_server_list_takes_the_prefixes_of_allowed_kinds_off)
{
    EXPECT_EQ(verify_servers(SERVER_IPV4, R"(["ipv4:10.1.2.3"])"), (Outcome{true, "[]", R"(["10.1.2.3"])"}));
    EXPECT_EQ(verify_servers(SERVER_IPV6, R"(["ipv6:fe80::1"])"), (Outcome{true, "[]", R"(["fe80::1"])"}));
    EXPECT_EQ(verify_servers(SERVER_HOST, R"(["host:camera.example"])"),
              (Outcome{true, "[]", R"(["camera.example"])"}));
    EXPECT_EQ(verify_servers(SERVER_ANY, R"(["host:a", "ipv6:::1", "ipv4:1.2.3.4", "b", "::2", "5.6.7.8"])"),
              (Outcome{true, "[]", R"(["a","::1","1.2.3.4","b","::2","5.6.7.8"])"}));
    EXPECT_EQ(verify_servers(SERVER_ANY, "[]"), (Outcome{true, "[]", "[]"}));
}

TEST_F(verifiers, a_server_is_judged_by_the_kind_that_its_prefix_tells)
{
    const struct {
        unsigned kinds;
        const char* servers;
        Outcome outcome;
    } cases[] = {
        {SERVER_ANY,
         R"(["ipv4:127.0.0.1"])",
         {false, entry(5, "'127.0.0.1' isn't a valid ipv4 address"), R"(["127.0.0.1"])"}},
        {SERVER_ANY, R"(["ipv4:"])", {false, entry(5, "'' isn't a valid ipv4 address"), R"([""])"}},
        {SERVER_ANY,
         R"(["ipv4:camera"])",
         {false, entry(5, "'camera' isn't a valid ipv4 address"), R"(["camera"])"}},
        {SERVER_ANY,
         R"(["ipv4:ipv4:1.2.3.4"])",
         {false, entry(5, "'ipv4:1.2.3.4' isn't a valid ipv4 address"), R"(["ipv4:1.2.3.4"])"}},
        {SERVER_ANY,
         R"(["ipv6:1.2.3.4"])",
         {false, entry(6, "'1.2.3.4' isn't a valid ipv6 address"), R"(["1.2.3.4"])"}},
        {SERVER_ANY,
         R"(["host:1.2.3.4"])",
         {false, entry(3, "'1.2.3.4' isn't a valid server name"), R"(["1.2.3.4"])"}},
        {SERVER_ANY, R"(["host:::1"])", {false, entry(3, "'::1' isn't a valid server name"), R"(["::1"])"}},
        {SERVER_ANY,
         R"(["IPV4:1.2.3.4"])",
         {false, entry(3, "'IPV4:1.2.3.4' isn't a valid server name or ip"), R"(["IPV4:1.2.3.4"])"}},
        {SERVER_ANY,
         R"([" ipv4:1.2.3.4"])",
         {false, entry(3, "' ipv4:1.2.3.4' isn't a valid server name or ip"), R"([" ipv4:1.2.3.4"])"}},
        {SERVER_HOST | SERVER_IPV4,
         R"(["ipv6:fe80::1"])",
         {false, entry(3, "'ipv6:fe80::1' isn't a valid server name or ip"), R"(["ipv6:fe80::1"])"}},
        {SERVER_HOST | SERVER_IPV6,
         R"(["ipv4:1.2.3.4"])",
         {false, entry(3, "'ipv4:1.2.3.4' isn't a valid server name or ip"), R"(["ipv4:1.2.3.4"])"}},
        {SERVER_IPV4 | SERVER_IPV6,
         R"(["host:camera"])",
         {false, entry(3, "'host:camera' isn't a valid server name or ip"), R"(["host:camera"])"}},
        {SERVER_IPV4,
         R"(["camera"])",
         {false, entry(3, "'camera' isn't a valid server name or ip"), R"(["camera"])"}},
        {SERVER_HOST | SERVER_IPV4,
         R"(["999.1.1.1"])",
         {false, entry(3, "'999.1.1.1' isn't a valid server name or ip"), R"(["999.1.1.1"])"}},
        {SERVER_HOST | SERVER_IPV4,
         R"(["::1"])",
         {false, entry(3, "'::1' isn't a valid server name or ip"), R"(["::1"])"}},
        {SERVER_HOST | SERVER_IPV6,
         R"(["1.2.3.4"])",
         {false, entry(3, "'1.2.3.4' isn't a valid server name or ip"), R"(["1.2.3.4"])"}},
        {SERVER_ANY, R"([""])", {false, entry(3, "'' isn't a valid server name or ip"), R"([""])"}},
        {SERVER_ANY,
         R"(["a;reboot"])",
         {false, entry(3, "'a;reboot' isn't a valid server name or ip"), R"(["a;reboot"])"}},
    };
    for (const auto& [kinds, servers, outcome] : cases)
        EXPECT_EQ(verify_servers(kinds, servers),
                  (Outcome{outcome.accepted, "[" + outcome.errors + "]", outcome.value}));
}

TEST_F(verifiers, a_bare_ipv4_server_passes_though_it_is_no_host_name)
{
    EXPECT_EQ(verify(verify_server_list_host_or_ipv4, R"(["1.2.3.4"])"),
              (Outcome{true, "[]", R"(["1.2.3.4"])"}));
}

TEST_F(verifiers, all_servers_are_judged_after_one_failed)
{
    EXPECT_EQ(verify_servers(SERVER_ANY, R"(["a b", "ipv4:0.0.0.0", "ipv6:x", "ipv4:1.2.3.4"])"),
              (Outcome{false,
                       "[" + entry(3, "'a b' isn't a valid server name or ip") + "," +
                           entry(5, "'0.0.0.0' isn't a valid ipv4 address") + "," +
                           entry(6, "'x' isn't a valid ipv6 address") + "]",
                       R"(["a b","0.0.0.0","x","1.2.3.4"])"}));
}

TEST_F(verifiers, the_fixed_server_lists_take_their_kinds)
{
    const struct {
        Verifier verifier;
        const char* server;
        bool accepted;
    } cases[] = {
        {verify_server_list_any, R"(["host:a"])", true},
        {verify_server_list_any, R"(["ipv4:1.2.3.4"])", true},
        {verify_server_list_any, R"(["ipv6:::1"])", true},
        {verify_server_list_host_or_ipv4, R"(["host:a"])", true},
        {verify_server_list_host_or_ipv4, R"(["1.2.3.4"])", true},
        {verify_server_list_host_or_ipv4, R"(["::1"])", false},
        {verify_server_list_host_or_ipv6, R"(["host:a"])", true},
        {verify_server_list_host_or_ipv6, R"(["1.2.3.4"])", false},
        {verify_server_list_host_or_ipv6, R"(["::1"])", true},
    };
    for (const auto& [verifier, server, accepted] : cases)
        EXPECT_EQ(verify(verifier, server).accepted, accepted) << server;
}

TEST_F(verifiers, a_list_of_no_strings_is_refused_before_its_elements_are_judged)
{
    EXPECT_EQ(verify_servers(SERVER_ANY, R"(["ipv4:1.2.3.4", 7])"),
              (Outcome{false, "[" + entry(3, "Found unexpected non-string in JSON array") + "]",
                       R"(["ipv4:1.2.3.4",7])"}));
    EXPECT_EQ(verify_cidrs("null"),
              (Outcome{false, "[" + entry(3, "Value wasn't a JSON array") + "]", "null"}));
}

TEST_F(verifiers, a_cidr_is_an_address_with_a_prefix_length)
{
    for (const char* value : {"[]", R"(["fe80::1/64"])", R"(["::/1","2001:db8::2/128"])"})
        EXPECT_EQ(verify_cidrs(value), (Outcome{true, "[]", value}));

    const struct {
        std::string element;
        std::string message;
    } cases[] = {
        {"fe80::1", "'fe80::1' doesn't include a prefix length"},
        {"", "'' doesn't include a prefix length"},
        {"fe80::1/0", "'fe80::1/0' doesn't contain a valid prefix length"},
        {"fe80::1/129", "'fe80::1/129' doesn't contain a valid prefix length"},
        {"fe80::1/-1", "'fe80::1/-1' doesn't contain a valid prefix length"},
        {"fe80::1/", "'fe80::1/' doesn't contain a valid prefix length"},
        {"fe80::1/64/64", "'fe80::1/64/64' doesn't contain a valid prefix length"},
        {"fe80::1/64.0", "'fe80::1/64.0' doesn't contain a valid prefix length"},
        {"fe80::1/6.4e1", "'fe80::1/6.4e1' doesn't contain a valid prefix length"},
        {"fe80::1/064", "'fe80::1/064' doesn't contain a valid prefix length"},
        {"fe80::1/ 64", "'fe80::1/ 64' doesn't contain a valid prefix length"},
        {"fe80::1/64;reboot", "'fe80::1/64;reboot' doesn't contain a valid prefix length"},
        {"zz/64", "'zz/64' doesn't contain a valid ipv6 address"},
        {"/64", "'/64' doesn't contain a valid ipv6 address"},
        {"1.2.3.4/24", "'1.2.3.4/24' doesn't contain a valid ipv6 address"},
        // Of two errors of one code and key the first stands.
        {"zz/0", "'zz/0' doesn't contain a valid ipv6 address"},
    };
    for (const auto& [element, message] : cases)
        EXPECT_EQ(verify_cidrs("[\"" + element + "\"]"),
                  (Outcome{false, "[" + entry(6, message) + "]", "[\"" + element + "\"]"}));
}

TEST_F(verifiers, both_faults_of_one_cidr_are_reported)
{
    verify_cidrs(R"(["zz/0"])");
    EXPECT_EQ(take_log(),
              (Lines{"<5>json_response_add_error: For setting '[A]b', adding error 6 to JSON response "
                     "'zz/0' doesn't contain a valid ipv6 address",
                     "<5>json_response_add_error: For setting '[A]b', adding error 6 to JSON response "
                     "'zz/0' doesn't contain a valid prefix length"}));
}

TEST_F(verifiers, a_cidr_list_may_have_as_many_elements_as_its_bound)
{
    EXPECT_EQ(verify_cidrs(cidr_array(16)), (Outcome{true, "[]", cidr_array(16)}));
    EXPECT_EQ(verify_cidrs(cidr_array(17)),
              (Outcome{false, "[" + entry(14, "There are too many elements in the provided array.") + "]",
                       cidr_array(17)}));
}

TEST_F(verifiers, elements_beyond_the_bound_of_a_cidr_list_are_not_looked_at)
{
    const auto two_at_most = [](cJSON* item, JsonResponse* response) {
        return verify_ipv6_cidr_list(item, response, 1, 128, 2);
    };
    EXPECT_EQ(verify(two_at_most, R"(["::1/64","bad","also bad"])"),
              (Outcome{false,
                       "[" + entry(6, "'bad' doesn't include a prefix length") + "," +
                           entry(14, "There are too many elements in the provided array.") + "]",
                       R"(["::1/64","bad","also bad"])"}));
    EXPECT_EQ(verify(two_at_most, R"(["::1/64","::2/64","bad"])"),
              (Outcome{false, "[" + entry(14, "There are too many elements in the provided array.") + "]",
                       R"(["::1/64","::2/64","bad"])"}));
}

TEST_F(verifiers, a_cidr_list_of_none_takes_only_an_empty_array)
{
    const auto none = [](cJSON* item, JsonResponse* response) {
        return verify_ipv6_cidr_list(item, response, 1, 128, 0);
    };
    EXPECT_EQ(verify(none, "[]"), (Outcome{true, "[]", "[]"}));
    EXPECT_EQ(verify(none, R"(["bad"])"),
              (Outcome{false, "[" + entry(14, "There are too many elements in the provided array.") + "]",
                       R"(["bad"])"}));
}
