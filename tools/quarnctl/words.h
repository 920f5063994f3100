// words.h: what a person types as the value of a setting.
#pragma once

#include "catalogue.h"

#include <optional>
#include <string>
#include <string_view>

namespace quarnctl {

// The value that a word means for a setting: JSON as it is, else by the setting's type ("on", "22,7000-8000",
// "camera1"). Null when it means none.
OwnedJson value_of_word(const Setting& setting, const std::string& word);

// The prefix length that a dotted netmask stands for, which the daemon makes of it; nothing where it is none.
std::optional<int> length_of_netmask(const std::string& dotted);

// The items that a word means for a list setting, as a JSON array: for a list of ports "[7000,8000]" is one
// range here. Null when it means none.
OwnedJson items_of_word(const Setting& setting, const std::string& word);

enum class Operation { SET, ADD, REMOVE };

// "KEY=VALUE", "KEY+=ITEM" or "KEY-=ITEM" taken apart.
struct Assignment {
    std::string key;
    Operation operation = Operation::SET;
    std::string word;
};
// False for a text that is none of the three.
bool parse_assignment(std::string_view text, Assignment& assignment);

// Lists: an item that is there already is not added again, one that is not there is not missed.
void add_items(cJSON* list, const cJSON* items);
void remove_items(cJSON* list, const cJSON* items);

} // namespace quarnctl
