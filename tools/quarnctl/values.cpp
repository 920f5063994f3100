#include "values.h"

#include <cstring>

namespace quarnctl {

OwnedJson parse_json(const std::string& text)
{
    const char* end = nullptr;
    OwnedJson value(cJSON_ParseWithOpts(text.c_str(), &end, 1));
    // A text with a zero byte inside would be read only up to there.
    if (value && std::strlen(text.c_str()) != text.size())
        value.reset();
    return value;
}

OwnedJson copy_of(const cJSON* value)
{
    return OwnedJson(value != nullptr ? cJSON_Duplicate(value, true) : cJSON_CreateNull());
}

OwnedJson new_object()
{
    return OwnedJson(cJSON_CreateObject());
}

void put(cJSON* object, std::string_view key, OwnedJson value)
{
    const std::string name(key);
    if (cJSON_GetObjectItemCaseSensitive(object, name.c_str()) != nullptr)
        cJSON_ReplaceItemInObjectCaseSensitive(object, name.c_str(), value.release());
    else if (cJSON_AddItemToObject(object, name.c_str(), value.get()))
        (void)value.release();
}

void put_text(cJSON* object, std::string_view key, std::string_view text)
{
    put(object, key, OwnedJson(cJSON_CreateString(std::string(text).c_str())));
}

const cJSON* member(const cJSON* object, std::string_view key)
{
    return cJSON_GetObjectItemCaseSensitive(object, std::string(key).c_str());
}

std::string text_member(const cJSON* object, std::string_view key)
{
    const cJSON* item = member(object, key);
    return cJSON_IsString(item) ? item->valuestring : "";
}

bool is_nothing(const cJSON* value)
{
    return value == nullptr || cJSON_IsNull(value);
}

bool are_same(const cJSON* first, const cJSON* second)
{
    if (is_nothing(first) || is_nothing(second))
        return is_nothing(first) && is_nothing(second);
    return cJSON_Compare(first, second, true) != 0;
}

std::string json_text(const cJSON* value)
{
    const OwnedMallocText text(value != nullptr ? cJSON_PrintUnformatted(value) : nullptr);
    return text ? text.get() : "null";
}

std::string plain_text(const cJSON* value)
{
    return cJSON_IsString(value) ? printable(value->valuestring) : json_text(value);
}

std::string json_file(const cJSON* object)
{
    std::string text = "{";
    for (const cJSON* item = object->child; item != nullptr; item = item->next) {
        const OwnedJson name(cJSON_CreateString(item->string));
        text += "\n    " + json_text(name.get()) + ": " + json_text(item);
        text += item->next != nullptr ? "," : "\n";
    }
    return text + "}\n";
}

std::string printable(std::string_view text)
{
    constexpr char DIGITS[] = "0123456789abcdef";
    constexpr unsigned char DELETE = 0x7F;
    std::string result;
    for (const char letter : text) {
        const auto byte = static_cast<unsigned char>(letter);
        if (byte >= ' ' && byte != DELETE) {
            result += letter;
            continue;
        }
        result += "\\x";
        result += DIGITS[byte >> 4U];
        result += DIGITS[byte & 0xFU];
    }
    return result;
}

} // namespace quarnctl
