#include "api/json_response.h"
#include "api/setting_request.h"
#include "support.h"

#include <new>

namespace {

using setting_requests = QuarnTest;

using Lines = std::vector<std::string>;
using NewRequest = std::unique_ptr<SettingRequest> (*)(const char* text, JsonResponse* response);

bool no_memory_for_requests = false;

// What a text that must be refused leaves in the response.
std::string refused(NewRequest new_request, const char* text)
{
    const std::unique_ptr<JsonResponse> response = json_response_new();
    if (new_request(text, response.get()) != nullptr)
        return "accepted";
    return json_response_print(*response).get();
}

std::string malformed(const std::string& message)
{
    return R"({"success":false,"errors":[{"code":2,"msg":")" + message + R"("}]})";
}

std::unique_ptr<SettingRequest> new_set_request(const char* text)
{
    return json_set_request_new(text, json_response_new().get());
}

std::unique_ptr<SettingRequest> new_get_request(const char* text)
{
    return json_get_request_new(text, json_response_new().get());
}

// "name=value" of every member from the cursor on, a repeated one marked with "!".
Lines walk_items(SettingRequest& request)
{
    Lines items;
    while (json_request_has_next(request)) {
        const cJSON* item = json_request_next_item(request);
        items.push_back(std::string(item->string) + "=" + print(item) +
                        (json_request_is_repeated(request, item->string) ? "!" : ""));
    }
    return items;
}

Lines walk_keys(SettingRequest& request)
{
    Lines keys;
    while (const char* key = json_request_next_key(request))
        keys.push_back(std::string(key) + (json_request_is_repeated(request, key) ? "!" : ""));
    return keys;
}

std::string nested(int depth)
{
    return R"({"[A]B":)" + std::string(static_cast<std::size_t>(depth), '[') +
           std::string(static_cast<std::size_t>(depth), ']') + "}";
}

} // namespace

// Only a test can make the daemon's few guarded allocations fail.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    if (no_memory_for_requests)
        return nullptr;
    try {
        return ::operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

TEST_F(setting_requests, a_set_request_is_walked_in_its_own_order)
{
    const auto request = new_set_request(R"({"[B]b": false, "[A]a": [1, 2], "[C]c": null})");
    ASSERT_TRUE(request);
    EXPECT_EQ(walk_items(*request), (Lines{"[B]b=false", "[A]a=[1,2]", "[C]c=null"}));
    EXPECT_EQ(json_request_next_item(*request), nullptr);
}

TEST_F(setting_requests, a_get_request_is_walked_in_its_own_order)
{
    const auto request = new_get_request(R"({"settings": ["[B]b", "[A]a", ""]})");
    ASSERT_TRUE(request);
    EXPECT_EQ(walk_keys(*request), (Lines{"[B]b", "[A]a", ""}));
    EXPECT_EQ(json_request_next_key(*request), nullptr);
}

TEST_F(setting_requests, one_without_elements_has_no_next)
{
    const auto set = new_set_request("{}");
    ASSERT_TRUE(set);
    EXPECT_FALSE(json_request_has_next(*set));
    const auto get = new_get_request(R"({"settings": []})");
    ASSERT_TRUE(get);
    EXPECT_FALSE(json_request_has_next(*get));
}

TEST_F(setting_requests, a_rewound_one_is_walked_again)
{
    const auto request = new_set_request(R"({"[A]a": 1, "[B]b": 2, "[A]a": 3})");
    ASSERT_TRUE(request);
    const Lines walked{"[A]a=1", "[B]b=2", "[A]a=3!"};
    EXPECT_EQ(walk_items(*request), walked);
    json_request_rewind(*request);
    EXPECT_EQ(walk_items(*request), walked);
}

TEST_F(setting_requests, an_element_is_repeated_from_its_second_time_on)
{
    const auto request = new_get_request(R"({"settings": ["[A]a", "[a]a", "[A]a", "[B]b", "[A]a"]})");
    ASSERT_TRUE(request);
    EXPECT_EQ(walk_keys(*request), (Lines{"[A]a", "[a]a", "[A]a!", "[B]b", "[A]a!"}));
    json_request_rewind(*request);
    EXPECT_EQ(walk_keys(*request), (Lines{"[A]a", "[a]a", "[A]a!", "[B]b", "[A]a!"}));
}

TEST_F(setting_requests, keys_that_became_no_strings_are_passed_over)
{
    const auto request = new_get_request(R"({"settings": ["[A]a", "[B]b", "[C]c", "[D]d"]})");
    ASSERT_TRUE(request);
    cJSON* settings = cJSON_GetObjectItemCaseSensitive(request->root.get(), "settings");
    cJSON_ReplaceItemInArray(settings, 1, cJSON_CreateNumber(5));
    cJSON_ReplaceItemInArray(settings, 3, cJSON_CreateNull());
    EXPECT_EQ(walk_keys(*request), (Lines{"[A]a", "[C]c"}));
}

TEST_F(setting_requests, a_walk_of_the_other_kind_yields_nothing)
{
    const auto set = new_set_request(R"({"settings": ["[A]a"]})");
    const auto get = new_get_request(R"({"settings": ["[A]a"]})");
    ASSERT_TRUE(set && get);
    EXPECT_EQ(json_request_next_key(*set), nullptr);
    EXPECT_EQ(json_request_next_item(*get), nullptr);
}

TEST_F(setting_requests, the_member_found_is_the_one_that_will_stand)
{
    const auto request = new_set_request(R"({"[A]a": 1, "[B]b": 2, "[A]A": 3, "[A]a": 4})");
    ASSERT_TRUE(request);
    EXPECT_EQ(print(json_request_find(*request, "[A]a")), "4");
    EXPECT_EQ(print(json_request_find(*request, "[A]A")), "3");
    EXPECT_EQ(json_request_find(*request, "[a]a"), nullptr);
    EXPECT_EQ(json_request_find(*request, " [A]a"), nullptr);
}

TEST_F(setting_requests, a_set_text_that_is_no_request_is_refused)
{
    const std::string no_parse = malformed("The provided JSON didn't parse");
    const std::string no_object = malformed("The provided JSON was not an object");
    const struct {
        const char* text;
        std::string response;
    } cases[] = {
        {nullptr, malformed("No json text provided")},
        {"", no_parse},
        {"  ", no_parse},
        {"{", no_parse},
        {R"({"[A]a": })", no_parse},
        {R"({"[A]a": True})", no_parse},
        {R"({"[A]a": 1,})", no_parse},
        {R"({[A]a: 1})", no_parse},
        {R"({"[A]a": "\ud800"})", no_parse},
        {R"({"[A]a": 1} x)", no_parse},
        {R"({"[A]a": 1}{})", no_parse},
        {"[]", no_object},
        {R"("{}")", no_object},
        {"null", no_object},
        {"17", no_object},
    };
    for (const auto& [text, response] : cases)
        EXPECT_EQ(refused(json_set_request_new, text), response) << (text != nullptr ? text : "null");
}

TEST_F(setting_requests, a_get_text_that_is_no_request_is_refused)
{
    const std::string no_parse = malformed("The provided JSON didn't parse");
    const std::string no_object = malformed("The provided JSON was not an object");
    const std::string no_array = malformed("The provided JSON did not have a setting array");
    const std::string no_string = malformed("One of the setting keys was not a string");
    const struct {
        const char* text;
        std::string response;
    } cases[] = {
        {nullptr, malformed("Didn't get JSON text")},
        {"", no_parse},
        {R"({"settings": ["[A]a"})", no_parse},
        {R"({"settings": []} {"settings": []})", no_parse},
        {R"(["[A]a"])", no_object},
        {"false", no_object},
        {"{}", no_array},
        {R"({"Settings": []})", no_array},
        {R"({"settings": {}})", no_array},
        {R"({"settings": "[A]a"})", no_array},
        {R"({"settings": [1]})", no_string},
        {R"({"settings": ["[A]a", ["[B]b"]]})", no_string},
        {R"({"settings": ["[A]a", null, "[B]b"]})", no_string},
    };
    for (const auto& [text, response] : cases)
        EXPECT_EQ(refused(json_get_request_new, text), response) << (text != nullptr ? text : "null");
}

TEST_F(setting_requests, a_missing_get_text_is_logged)
{
    EXPECT_EQ(refused(json_get_request_new, nullptr), malformed("Didn't get JSON text"));
    EXPECT_EQ(take_log(),
              (Lines{"<2>json_get_request_new:LINE: JSON request text was null",
                     "<5>json_response_add_error: Adding error 2 to JSON response: Didn't get JSON text"}));
}

TEST_F(setting_requests, a_missing_response_is_logged)
{
    EXPECT_EQ(json_set_request_new("{}", nullptr), nullptr);
    EXPECT_EQ(json_get_request_new(R"({"settings": []})", nullptr), nullptr);
    EXPECT_EQ(take_log(), (Lines{"<3>json_set_request_new: json_response pointer was NULL",
                                 "<3>json_get_request_new: json_response pointer was NULL"}));
}

TEST_F(setting_requests, without_memory_there_is_none)
{
    const auto set_response = json_response_new();
    const auto get_response = json_response_new();
    no_memory_for_requests = true;
    const auto set = json_set_request_new("{}", set_response.get());
    const auto get = json_get_request_new(R"({"settings": []})", get_response.get());
    no_memory_for_requests = false;
    EXPECT_EQ(set, nullptr);
    EXPECT_EQ(get, nullptr);
    const std::string error =
        R"({"success":false,"errors":[{"code":1,"msg":"There was a malloc failure to create response object"}]})";
    EXPECT_EQ(json_response_print(*set_response).get(), error);
    EXPECT_EQ(json_response_print(*get_response).get(), error);
}

TEST_F(setting_requests, blanks_and_a_byte_order_mark_change_nothing)
{
    for (const char* text : {" \r\n\t{\"[A]a\": 1} \n", "\xEF\xBB\xBF{\"[A]a\": 1}"}) {
        const auto request = new_set_request(text);
        ASSERT_TRUE(request) << text;
        EXPECT_EQ(walk_items(*request), (Lines{"[A]a=1"}));
    }
}

TEST_F(setting_requests, nesting_beyond_the_parsers_bound_does_not_parse)
{
    EXPECT_TRUE(new_set_request(nested(999).c_str()));
    EXPECT_EQ(refused(json_set_request_new, nested(1000).c_str()),
              malformed("The provided JSON didn't parse"));
    EXPECT_EQ(refused(json_set_request_new, nested(1'000'000).c_str()),
              malformed("The provided JSON didn't parse"));
}

TEST_F(setting_requests, an_empty_member_name_is_a_name)
{
    const auto request = new_set_request(R"({"": 1, "": 2})");
    ASSERT_TRUE(request);
    EXPECT_EQ(walk_items(*request), (Lines{"=1", "=2!"}));
}

TEST_F(setting_requests, an_escaped_zero_byte_that_would_cut_a_text_does_not_parse)
{
    const std::string expected = malformed("The provided JSON didn't parse");
    EXPECT_EQ(refused(json_set_request_new, R"({"[NIC/eth0]MTU\u0000x":1400})"), expected);
    EXPECT_EQ(refused(json_get_request_new, R"({"settings":["[NIC/eth0]MTU\u0000"]})"), expected);
    // A backslash that is itself escaped begins no escape.
    EXPECT_EQ(walk_items(*new_set_request(R"({"a\\u0000":1})")), Lines{R"(a\u0000=1)"});
}
