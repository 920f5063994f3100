#include "api/json_response.h"
#include "support.h"

#include <new>

namespace {

using json_responses = QuarnTest;

using Lines = std::vector<std::string>;

std::string printed(const JsonResponse& response)
{
    const OwnedMallocText text = json_response_print(response);
    return text ? text.get() : "(none)";
}

// The print of a response that quotes one text.
std::string printed_value(const char* text)
{
    const std::unique_ptr<JsonResponse> response = json_response_new();
    json_response_add_value(*response, "value", OwnedJson(cJSON_CreateString(text)));
    return printed(*response);
}

} // namespace

TEST_F(json_responses, a_new_one_tells_of_no_success_and_no_errors)
{
    EXPECT_EQ(printed(*json_response_new()), R"({"success":false,"errors":[]})");
    EXPECT_EQ(take_log(), Lines());
}

TEST_F(json_responses, success_stays_the_first_member)
{
    const std::unique_ptr<JsonResponse> response = json_response_new();
    json_response_add_value(*response, "[NIC/eth0]MTU", json("1500"));
    json_response_set_success(*response);
    EXPECT_EQ(printed(*response), R"({"success":true,"errors":[],"[NIC/eth0]MTU":1500})");
}

TEST_F(json_responses, an_error_for_a_setting_names_it_first)
{
    const std::unique_ptr<JsonResponse> response = json_response_new();
    json_response_add_error(*response, ERROR_OUT_OF_RANGE, "[RTSP]Port", "Port out of range");
    EXPECT_EQ(printed(*response),
              R"({"success":false,"errors":[{"key":"[RTSP]Port","code":4,"msg":"Port out of range"}]})");
    EXPECT_EQ(take_log(),
              (Lines{"<5>json_response_add_error: For setting '[RTSP]Port', adding error 4 to JSON "
                     "response Port out of range"}));
}

TEST_F(json_responses, an_error_of_no_setting_has_no_key)
{
    const std::unique_ptr<JsonResponse> response = json_response_new();
    json_response_add_error(*response, ERROR_MALFORMED_REQUEST, nullptr, "No json text provided");
    EXPECT_EQ(printed(*response), R"({"success":false,"errors":[{"code":2,"msg":"No json text provided"}]})");
    EXPECT_EQ(take_log(),
              (Lines{"<5>json_response_add_error: Adding error 2 to JSON response: No json text provided"}));
}

TEST_F(json_responses, the_same_code_twice_for_one_key_is_one_entry_and_two_log_lines)
{
    const std::unique_ptr<JsonResponse> response = json_response_new();
    json_response_add_error(*response, ERROR_INVALID_IPV6, "[A]B", "first");
    json_response_add_error(*response, ERROR_INVALID_IPV6, "[A]B", "second");
    EXPECT_EQ(printed(*response), R"({"success":false,"errors":[{"key":"[A]B","code":6,"msg":"first"}]})");
    EXPECT_EQ(
        take_log(),
        (Lines{"<5>json_response_add_error: For setting '[A]B', adding error 6 to JSON response first",
               "<5>json_response_add_error: For setting '[A]B', adding error 6 to JSON response second"}));
}

TEST_F(json_responses, the_same_code_for_two_keys_is_two_entries)
{
    const std::unique_ptr<JsonResponse> response = json_response_new();
    json_response_add_error(*response, ERROR_WRONG_TYPE, "[A]B", "text");
    json_response_add_error(*response, ERROR_WRONG_TYPE, "[A]C", "text");
    json_response_add_error(*response, ERROR_WRONG_TYPE, "[a]B", "text");
    EXPECT_EQ(printed(*response),
              R"({"success":false,"errors":[{"key":"[A]B","code":3,"msg":"text"},)"
              R"({"key":"[A]C","code":3,"msg":"text"},{"key":"[a]B","code":3,"msg":"text"}]})");
}

TEST_F(json_responses, two_codes_for_one_key_are_two_entries)
{
    const std::unique_ptr<JsonResponse> response = json_response_new();
    json_response_add_error(*response, ERROR_INTERNAL, "4", "text");
    json_response_add_error(*response, ERROR_TOO_MANY, "", "text");
    json_response_add_error(*response, ERROR_TOO_MANY, "4", "text");
    EXPECT_EQ(printed(*response),
              R"({"success":false,"errors":[{"key":"4","code":1,"msg":"text"},)"
              R"({"key":"","code":14,"msg":"text"},{"key":"4","code":14,"msg":"text"}]})");
}

TEST_F(json_responses, an_error_without_a_key_is_dropped_beside_any_of_its_code_but_not_the_other_way)
{
    const std::unique_ptr<JsonResponse> response = json_response_new();
    json_response_add_error(*response, ERROR_INTERNAL, "[A]B", "of a setting");
    json_response_add_error(*response, ERROR_INTERNAL, nullptr, "dropped");
    json_response_add_error(*response, ERROR_MALFORMED_REQUEST, nullptr, "of none");
    json_response_add_error(*response, ERROR_MALFORMED_REQUEST, "[A]B", "kept");
    EXPECT_EQ(printed(*response),
              R"({"success":false,"errors":[{"key":"[A]B","code":1,"msg":"of a setting"},)"
              R"({"code":2,"msg":"of none"},{"key":"[A]B","code":2,"msg":"kept"}]})");
}

TEST_F(json_responses, a_missing_error_array_is_logged)
{
    const std::unique_ptr<JsonResponse> response = json_response_new();
    cJSON_DeleteItemFromObjectCaseSensitive(response->root.get(), "errors");
    json_response_add_error(*response, ERROR_INTERNAL, "[A]B", "text");
    EXPECT_EQ(printed(*response), R"({"success":false})");
    EXPECT_EQ(take_log(),
              (Lines{"<5>json_response_add_error: For setting '[A]B', adding error 1 to JSON response text",
                     "<3>json_response_has_error: Passed in error array pointer was NULL"}));
}

TEST_F(json_responses, a_long_quoted_element_is_kept_whole)
{
    const std::unique_ptr<JsonResponse> response = json_response_new();
    std::string element;
    for (int i = 0; i < 100'000; i++)
        element += "ü";
    json_response_add_error_text(*response, ERROR_INVALID_IPV4, "[A]B", "'%s' isn't a valid ipv4 address",
                                 element.c_str());
    EXPECT_EQ(printed(*response), R"({"success":false,"errors":[{"key":"[A]B","code":5,"msg":"')" + element +
                                      R"(' isn't a valid ipv4 address"}]})");
}

TEST_F(json_responses, characters_that_the_bus_refuses_are_printed_as_escapes)
{
    const struct {
        const char* text;
        const char* in_json;
    } cases[] = {
        {"plain \"quoted\" \\ \n", R"(plain \"quoted\" \\ \n)"},
        {"ü € 😀", "ü € 😀"},
        {"\uFDCF \uFDF0 \uFFFD", "\uFDCF \uFDF0 \uFFFD"},
        {"\uFDD0", R"(\ufdd0)"},
        {"a\uFDEFb", R"(a\ufdefb)"},
        {"\uFFFE\uFFFF", R"(\ufffe\uffff)"},
        {"\U0001FFFE", R"(\ud83f\udffe)"},
        {"\U0010FFFD\U0010FFFF", "\U0010FFFD"
                                 R"(\udbff\udfff)"},
        {"cut \xe2\x82", R"(cut \ufffd\ufffd)"},
        {"\xff\xc0\x80", R"(\ufffd\ufffd\ufffd)"},
        {"\xed\xa0\x80", R"(\ufffd\ufffd\ufffd)"},
        {"\xf4\x90\x80\x80", R"(\ufffd\ufffd\ufffd\ufffd)"},
    };
    for (const auto& [text, in_json] : cases) {
        const std::string response = printed_value(text);
        EXPECT_EQ(response, std::string(R"({"success":false,"errors":[],"value":")") + in_json + "\"}");
        EXPECT_TRUE(g_utf8_validate(response.c_str(), -1, nullptr));
    }
}

TEST_F(json_responses, an_escaped_character_reads_as_itself)
{
    const OwnedJson response = json(printed_value("\uFFFF\U0010FFFF").c_str());
    EXPECT_STREQ(cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(response.get(), "value")),
                 "\uFFFF\U0010FFFF");
}

TEST_F(json_responses, without_memory_there_is_none)
{
    cJSON_Hooks no_memory{[](size_t) -> void* { return nullptr; }, std::free};
    cJSON_InitHooks(&no_memory);
    const std::unique_ptr<JsonResponse> response = json_response_new();
    cJSON_InitHooks(nullptr);
    EXPECT_EQ(response, nullptr);
}
