#include "words.h"

#include "values.h"

#include <arpa/inet.h>

#include <array>
#include <bit>
#include <charconv>
#include <cstdint>
#include <vector>

namespace quarnctl {

namespace {

struct BooleanWord {
    std::string_view word;
    bool value;
};
constexpr BooleanWord BOOLEAN_WORDS[] = {
    {"true", true}, {"false", false}, {"on", true}, {"off", false}, {"yes", true}, {"no", false},
};

OwnedJson boolean_of(std::string_view word)
{
    for (const BooleanWord& known : BOOLEAN_WORDS) {
        if (word == known.word)
            return OwnedJson(cJSON_CreateBool(known.value));
    }
    return nullptr;
}

std::optional<int> digits_of(std::string_view word)
{
    int number = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    const bool is_number = error == std::errc() && end == word.data() + word.size() && word[0] != '-';
    return is_number ? std::optional<int>(number) : std::nullopt;
}

// "24", "/24" or a dotted netmask. What only looks like one is for the daemon to refuse.
OwnedJson netmask_of(std::string_view word)
{
    const std::string_view digits = word.starts_with('/') ? word.substr(1) : word;
    if (digits.find('.') != std::string_view::npos && digits == word) {
        const std::string text(word);
        const std::optional<int> dotted = length_of_netmask(text);
        return OwnedJson(dotted ? cJSON_CreateNumber(*dotted) : cJSON_CreateString(text.c_str()));
    }
    const std::optional<int> length = digits.empty() ? std::nullopt : digits_of(digits);
    return OwnedJson(length ? cJSON_CreateNumber(*length) : nullptr);
}

// "22" or "7000-8000".
OwnedJson ports_of(std::string_view word)
{
    const std::size_t dash = word.find('-');
    const std::optional<int> first = word.empty() ? std::nullopt : digits_of(word.substr(0, dash));
    if (!first || dash == std::string_view::npos)
        return OwnedJson(first ? cJSON_CreateNumber(*first) : nullptr);
    const std::string_view rest = word.substr(dash + 1);
    const std::optional<int> last = rest.empty() ? std::nullopt : digits_of(rest);
    const std::array<int, 2> range = {*first, last.value_or(0)};
    return OwnedJson(last ? cJSON_CreateIntArray(range.data(), range.size()) : nullptr);
}

std::vector<std::string_view> split_at_commas(std::string_view text)
{
    std::vector<std::string_view> pieces;
    while (!text.empty()) {
        const std::size_t comma = text.find(',');
        pieces.push_back(text.substr(0, comma));
        text.remove_prefix(comma == std::string_view::npos ? text.size() : comma + 1);
    }
    return pieces;
}

OwnedJson list_of(Type type, std::string_view word)
{
    OwnedJson list(cJSON_CreateArray());
    for (const std::string_view piece : split_at_commas(word)) {
        OwnedJson item = type == Type::PORT_LIST ? ports_of(piece)
                                                 : OwnedJson(cJSON_CreateString(std::string(piece).c_str()));
        if (piece.empty() || !item)
            return nullptr;
        cJSON_AddItemToArray(list.get(), item.release());
    }
    return list;
}

int index_of(const cJSON* list, const cJSON* item)
{
    int index = 0;
    for (const cJSON* present = list->child; present != nullptr; present = present->next, ++index) {
        if (are_same(present, item))
            return index;
    }
    return -1;
}

bool is_item(Type type, const cJSON* json)
{
    return type == Type::PORT_LIST ? cJSON_IsNumber(json) : cJSON_IsString(json);
}

bool is_port_range(const cJSON* json)
{
    return cJSON_GetArraySize(json) == 2 && cJSON_IsNumber(json->child) && cJSON_IsNumber(json->child->next);
}

OwnedJson list_with(OwnedJson item)
{
    OwnedJson list(cJSON_CreateArray());
    cJSON_AddItemToArray(list.get(), item.release());
    return list;
}

OwnedJson json_of_word(const std::string& word)
{
    OwnedJson json = parse_json(word);
    return has_endless_number(json.get()) ? nullptr : std::move(json);
}

OwnedJson list_value(Type type, const std::string& word)
{
    OwnedJson json = json_of_word(word);
    if (cJSON_IsArray(json.get()) || cJSON_IsNull(json.get()))
        return json;
    return is_item(type, json.get()) ? list_with(std::move(json)) : list_of(type, word);
}

// A text in quotes and null are JSON; anything else is a text as it stands: a host may be called "123".
OwnedJson text_value(const std::string& word)
{
    OwnedJson json = parse_json(word);
    if (cJSON_IsString(json.get()) || cJSON_IsNull(json.get()))
        return json;
    return OwnedJson(word.empty() ? cJSON_CreateNull() : cJSON_CreateString(word.c_str()));
}

} // namespace

std::optional<int> length_of_netmask(const std::string& dotted)
{
    constexpr int BITS = 32;
    in_addr mask{};
    if (inet_pton(AF_INET, dotted.c_str(), &mask) != 1)
        return std::nullopt;
    const std::uint32_t bits = ntohl(mask.s_addr);
    const int length = std::countl_one(bits);
    const bool has_gap = std::popcount(bits) != length;
    return has_gap || length == BITS ? std::nullopt : std::optional<int>(length);
}

OwnedJson value_of_word(const Setting& setting, const std::string& word)
{
    if (setting.type == Type::TEXT)
        return text_value(word);
    if (is_list(setting))
        return list_value(setting.type, word);
    OwnedJson json = json_of_word(word);
    if (json)
        return json;
    if (setting.type == Type::BOOLEAN)
        return boolean_of(word);
    return setting.type == Type::NETMASK ? netmask_of(word) : nullptr;
}

OwnedJson items_of_word(const Setting& setting, const std::string& word)
{
    OwnedJson json = json_of_word(word);
    if (setting.type == Type::PORT_LIST && is_port_range(json.get()))
        return list_with(std::move(json));
    OwnedJson items = list_value(setting.type, word);
    return cJSON_IsArray(items.get()) ? std::move(items) : nullptr;
}

bool parse_assignment(std::string_view text, Assignment& assignment)
{
    const std::size_t equals = text.find('=');
    if (equals == std::string_view::npos || equals == 0)
        return false;
    std::string_view key = text.substr(0, equals);
    Operation operation = Operation::SET;
    if (key.ends_with('+') || key.ends_with('-')) {
        operation = key.ends_with('+') ? Operation::ADD : Operation::REMOVE;
        key.remove_suffix(1);
    }
    if (key.empty())
        return false;
    assignment = {std::string(key), operation, std::string(text.substr(equals + 1))};
    return true;
}

void add_items(cJSON* list, const cJSON* items)
{
    for (const cJSON* item = items->child; item != nullptr; item = item->next) {
        if (index_of(list, item) < 0)
            cJSON_AddItemToArray(list, copy_of(item).release());
    }
}

void remove_items(cJSON* list, const cJSON* items)
{
    for (const cJSON* item = items->child; item != nullptr; item = item->next) {
        for (int index = index_of(list, item); index >= 0; index = index_of(list, item))
            cJSON_DeleteItemFromArray(list, index);
    }
}

} // namespace quarnctl
