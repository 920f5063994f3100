#include "api/json_response.h"

#include "core/log.h"

#include <cstdarg>
#include <cstring>
#include <new>

namespace {

// What tells an entry from another: its code, and its key where it has one.
std::string entry_identity(int code, const char* key)
{
    std::string identity = std::to_string(code);
    if (key != nullptr)
        identity.append(" ").append(key);
    return identity;
}

bool json_response_has_error(const JsonResponse& response, const cJSON* errors, int code, const char* key)
{
    if (errors == nullptr) {
        log_message(LEVEL_ERROR, "%s: Passed in error array pointer was NULL", __func__);
        return false;
    }
    return response.reported.contains(entry_identity(code, key));
}

OwnedJson new_entry(int code, const char* key, const char* message)
{
    OwnedJson entry(cJSON_CreateObject());
    if (key != nullptr)
        cJSON_AddStringToObject(entry.get(), "key", key);
    cJSON_AddNumberToObject(entry.get(), "code", code);
    cJSON_AddStringToObject(entry.get(), "msg", message);
    return entry;
}

// The noncharacters: JSON and UTF-8 know them, the message bus does not carry them.
bool is_refused_by_bus(gunichar character)
{
    const bool is_last_of_plane = (character & 0xFFFE) == 0xFFFE;
    return is_last_of_plane || (character >= 0xFDD0 && character <= 0xFDEF);
}

void append_json_escape(std::string& text, gunichar character)
{
    constexpr gunichar FIRST_PAIR = 0x10000;
    if (character >= FIRST_PAIR) {
        append_json_escape(text, 0xD800 + ((character - FIRST_PAIR) >> 10));
        append_json_escape(text, 0xDC00 + ((character - FIRST_PAIR) & 0x3FF));
        return;
    }
    text += OwnedText(g_strdup_printf("\\u%04x", character)).get();
}

// Whatever is not ASCII stands inside a JSON string, where an escape means the same character.
std::string carried_by_bus(const char* json_text)
{
    std::string carried;
    for (const char* at = json_text; *at != '\0';) {
        const gunichar character = g_utf8_get_char_validated(at, -1);
        const bool is_character = character <= 0x10FFFF;
        const char* end = is_character ? g_utf8_next_char(at) : at + 1;
        if (!is_character)
            append_json_escape(carried, 0xFFFD);
        else if (is_refused_by_bus(character))
            append_json_escape(carried, character);
        else
            carried.append(at, end);
        at = end;
    }
    return carried;
}

} // namespace

std::unique_ptr<JsonResponse> json_response_new()
{
    OwnedJson root(cJSON_CreateObject());
    if (cJSON_AddFalseToObject(root.get(), "success") == nullptr ||
        cJSON_AddArrayToObject(root.get(), "errors") == nullptr)
        return nullptr;
    std::unique_ptr<JsonResponse> response(new (std::nothrow) JsonResponse);
    if (response)
        response->root = std::move(root);
    return response;
}

void json_response_set_success(JsonResponse& response)
{
    cJSON_ReplaceItemInObjectCaseSensitive(response.root.get(), "success", cJSON_CreateTrue());
}

void json_response_add_error(JsonResponse& response, int code, const char* key, const char* message)
{
    if (key != nullptr)
        log_message(LEVEL_NOTICE, "%s: For setting '%s', adding error %d to JSON response %s", __func__, key,
                    code, message);
    else
        log_message(LEVEL_NOTICE, "%s: Adding error %d to JSON response: %s", __func__, code, message);
    cJSON* errors = cJSON_GetObjectItemCaseSensitive(response.root.get(), "errors");
    if (json_response_has_error(response, errors, code, key))
        return;
    OwnedJson entry = new_entry(code, key, message);
    if (!cJSON_AddItemToArray(errors, entry.get()))
        return;
    (void)entry.release();
    response.reported.insert(entry_identity(code, key));
    // An entry without a key is dropped beside any entry of its code.
    response.reported.insert(entry_identity(code, nullptr));
}

void json_response_add_error_text(JsonResponse& response, int code, const char* key, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const OwnedText message(g_strdup_vprintf(format, arguments));
    va_end(arguments);
    json_response_add_error(response, code, key, message.get());
}

void json_response_add_value(JsonResponse& response, const char* key, OwnedJson value)
{
    if (cJSON_AddItemToObject(response.root.get(), key, value.get()))
        (void)value.release();
}

OwnedMallocText json_response_print(const JsonResponse& response)
{
    OwnedMallocText printed(cJSON_PrintUnformatted(response.root.get()));
    if (!printed || g_str_is_ascii(printed.get()))
        return printed;
    return OwnedMallocText(strdup(carried_by_bus(printed.get()).c_str()));
}
