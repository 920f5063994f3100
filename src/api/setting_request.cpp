#include "api/setting_request.h"

#include "api/json_response.h"
#include "core/log.h"

#include <cstring>
#include <new>

namespace {

// A text of ours ends at a zero byte: what a client wrote behind an escaped one would be lost without a word.
bool has_escaped_zero_byte(const char* text)
{
    for (const char* at = std::strchr(text, '\\'); at != nullptr && at[1] != '\0';
         at = std::strchr(at + 2, '\\')) {
        if (g_str_has_prefix(at, "\\u0000"))
            return true;
    }
    return false;
}

// Takes one JSON value and nothing behind it. Null, with an error in the response, for any other text.
std::unique_ptr<SettingRequest> parse_request(const char* text, RequestKind kind, JsonResponse& response)
{
    std::unique_ptr<SettingRequest> request(new (std::nothrow) SettingRequest);
    if (!request) {
        json_response_add_error(response, ERROR_INTERNAL, nullptr,
                                "There was a malloc failure to create response object");
        return nullptr;
    }
    request->kind = kind;
    if (!has_escaped_zero_byte(text))
        request->root.reset(cJSON_ParseWithOpts(text, nullptr, true));
    if (!request->root) {
        json_response_add_error(response, ERROR_MALFORMED_REQUEST, nullptr, "The provided JSON didn't parse");
        return nullptr;
    }
    if (!cJSON_IsObject(request->root.get())) {
        json_response_add_error(response, ERROR_MALFORMED_REQUEST, nullptr,
                                "The provided JSON was not an object");
        return nullptr;
    }
    json_request_rewind(*request);
    return request;
}

cJSON* settings_of(const SettingRequest& request)
{
    return cJSON_GetObjectItemCaseSensitive(request.root.get(), "settings");
}

// What names an element: the member name, or the key itself. Null for an element without a name.
const char* element_name(const SettingRequest& request, const cJSON* element)
{
    return request.kind == RequestKind::SET ? element->string : cJSON_GetStringValue(element);
}

void advance(SettingRequest& request)
{
    const char* passed = request.current != nullptr ? element_name(request, request.current) : nullptr;
    if (passed != nullptr)
        request.seen.insert(passed);
    request.current = request.next;
    request.next = request.next->next;
}

} // namespace

std::unique_ptr<SettingRequest> json_set_request_new(const char* text, JsonResponse* response)
{
    if (response == nullptr) {
        log_message(LEVEL_ERROR, "%s: json_response pointer was NULL", __func__);
        return nullptr;
    }
    if (text == nullptr) {
        json_response_add_error(*response, ERROR_MALFORMED_REQUEST, nullptr, "No json text provided");
        return nullptr;
    }
    return parse_request(text, RequestKind::SET, *response);
}

std::unique_ptr<SettingRequest> json_get_request_new(const char* text, JsonResponse* response)
{
    if (response == nullptr) {
        log_message(LEVEL_ERROR, "%s: json_response pointer was NULL", __func__);
        return nullptr;
    }
    if (text == nullptr) {
        log_message(LEVEL_CRITICAL, "%s:%d: JSON request text was null", HERE);
        json_response_add_error(*response, ERROR_MALFORMED_REQUEST, nullptr, "Didn't get JSON text");
        return nullptr;
    }
    std::unique_ptr<SettingRequest> request = parse_request(text, RequestKind::GET, *response);
    if (!request)
        return nullptr;
    const cJSON* settings = settings_of(*request);
    if (!cJSON_IsArray(settings)) {
        json_response_add_error(*response, ERROR_MALFORMED_REQUEST, nullptr,
                                "The provided JSON did not have a setting array");
        return nullptr;
    }
    const cJSON* element = nullptr;
    cJSON_ArrayForEach(element, settings)
    {
        if (!cJSON_IsString(element)) {
            json_response_add_error(*response, ERROR_MALFORMED_REQUEST, nullptr,
                                    "One of the setting keys was not a string");
            return nullptr;
        }
    }
    return request;
}

bool json_request_has_next(const SettingRequest& request)
{
    return request.next != nullptr;
}

cJSON* json_request_next_item(SettingRequest& request)
{
    if (request.kind != RequestKind::SET || request.next == nullptr)
        return nullptr;
    advance(request);
    return request.current;
}

const char* json_request_next_key(SettingRequest& request)
{
    while (request.kind == RequestKind::GET && request.next != nullptr) {
        advance(request);
        if (cJSON_IsString(request.current))
            return request.current->valuestring;
    }
    return nullptr;
}

bool json_request_is_repeated(const SettingRequest& request, const char* key)
{
    return request.seen.contains(key);
}

void json_request_rewind(SettingRequest& request)
{
    const cJSON* elements = request.kind == RequestKind::SET ? request.root.get() : settings_of(request);
    request.next = elements != nullptr ? elements->child : nullptr;
    request.current = nullptr;
    request.seen.clear();
}

cJSON* json_request_find(const SettingRequest& request, const char* key)
{
    cJSON* found = nullptr;
    cJSON* member = nullptr;
    cJSON_ArrayForEach(member, request.root.get())
    {
        if (member->string != nullptr && std::strcmp(member->string, key) == 0)
            found = member;
    }
    return found;
}
