#include "values.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <iterator>

namespace quarnctl {

namespace {

// How many bytes the first letter takes; 0 where it is none.
std::size_t letter_size(std::string_view text)
{
    // By the number of bytes: the bits that mark it, and the smallest letter that needs so many.
    struct Form {
        unsigned mask;
        unsigned mark;
        std::uint32_t smallest;
    };
    constexpr Form FORMS[] = {{0x80, 0, 0}, {0xE0, 0xC0, 0x80}, {0xF0, 0xE0, 0x800}, {0xF8, 0xF0, 0x10000}};
    constexpr std::uint32_t LARGEST = 0x10FFFF;
    const auto first = static_cast<unsigned char>(text[0]);
    for (std::size_t size = 1; size <= std::size(FORMS) && size <= text.size(); ++size) {
        const Form& form = FORMS[size - 1];
        if ((first & form.mask) != form.mark)
            continue;
        std::uint32_t letter = first & ~form.mask;
        for (const char next : text.substr(1, size - 1)) {
            if ((static_cast<unsigned char>(next) & 0xC0U) != 0x80U)
                return 0;
            letter = letter << 6U | (static_cast<unsigned char>(next) & 0x3FU);
        }
        const bool is_surrogate = letter >= 0xD800 && letter <= 0xDFFF;
        return letter >= form.smallest && letter <= LARGEST && !is_surrogate ? size : 0;
    }
    return 0;
}

bool is_control_letter(std::string_view letter)
{
    constexpr unsigned char DELETE = 0x7F;
    const auto first = static_cast<unsigned char>(letter[0]);
    // U+0080 to U+009F: terminals take them for escape sequences.
    const bool is_long_one =
        letter.size() == 2 && first == 0xC2 && static_cast<unsigned char>(letter[1]) < 0xA0;
    return first < ' ' || first == DELETE || is_long_one;
}

} // namespace

OwnedJson parse_json(const std::string& text)
{
    const char* end = nullptr;
    OwnedJson value(cJSON_ParseWithOpts(text.c_str(), &end, 1));
    // A text with a zero byte inside would be read only up to there.
    if (value && (std::strlen(text.c_str()) != text.size() || text.find("\\u0000") != std::string::npos))
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

bool has_endless_number(const cJSON* value)
{
    if (cJSON_IsNumber(value))
        return !std::isfinite(value->valuedouble);
    for (const cJSON* item = value != nullptr ? value->child : nullptr; item != nullptr; item = item->next) {
        if (has_endless_number(item))
            return true;
    }
    return false;
}

std::size_t find_bad_byte(std::string_view text)
{
    for (std::size_t offset = 0; offset < text.size();) {
        const std::size_t size = letter_size(text.substr(offset));
        if (size == 0)
            return offset;
        offset += size;
    }
    return std::string_view::npos;
}

std::string printable(std::string_view text)
{
    constexpr char DIGITS[] = "0123456789abcdef";
    std::string result;
    while (!text.empty()) {
        const std::size_t size = letter_size(text);
        const std::string_view letter = text.substr(0, size > 0 ? size : 1);
        text.remove_prefix(letter.size());
        if (size > 0 && !is_control_letter(letter)) {
            result += letter;
            continue;
        }
        for (const char part : letter) {
            const auto byte = static_cast<unsigned char>(part);
            result += "\\x";
            result += DIGITS[byte >> 4U];
            result += DIGITS[byte & 0xFU];
        }
    }
    return result;
}

} // namespace quarnctl
