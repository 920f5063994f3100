// values.h: JSON values of settings: reading, comparing and printing them.
#pragma once

#include "core/owned.h"

#include <string>
#include <string_view>

namespace quarnctl {

// One JSON value and nothing but blanks after it; null when it is none, or when one of its texts holds a zero
// byte, behind which the rest would be lost.
OwnedJson parse_json(const std::string& text);
OwnedJson copy_of(const cJSON* value);
OwnedJson new_object();
// Takes the place of a member of that name.
void put(cJSON* object, std::string_view key, OwnedJson value);
void put_text(cJSON* object, std::string_view key, std::string_view text);
// Null when there is none. Byte-exact.
const cJSON* member(const cJSON* object, std::string_view key);
// The text of a string member; empty when there is none.
std::string text_member(const cJSON* object, std::string_view key);

// Whether two values are the same; nothing and null are.
bool are_same(const cJSON* first, const cJSON* second);
bool is_nothing(const cJSON* value);

// Compact JSON.
std::string json_text(const cJSON* value);
// As people read it: a string without its quotes, else compact JSON.
std::string plain_text(const cJSON* value);
// An object with a member a line, as it lies well in version control.
std::string json_file(const cJSON* object);

// Whether a number in it is too large to be one: JSON has no word for it.
bool has_endless_number(const cJSON* value);

// Where the first byte is that belongs to no UTF-8 letter; npos where all do. Nothing else goes over the bus.
std::size_t find_bad_byte(std::string_view text);
// Control letters and bad bytes as escapes, so that no value forges a line or speaks to the terminal.
std::string printable(std::string_view text);

} // namespace quarnctl
