// catalogue.h: what there is to set. The documents, the completion and every message about a setting are made
// of this table.
#pragma once

#include "core/owned.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace quarnctl {

enum class Type { BOOLEAN, NUMBER, NETMASK, TEXT, TEXT_LIST, PORT_LIST, OBJECT };

// Where a value is kept. MEMORY is gone when the daemon ends, LIVE is the system's state at the moment.
enum class Storage { STORE, MEMORY, BOOT_ENVIRONMENT, LIVE, READ_ONLY };

struct Setting {
    std::string_view key;
    Type type;
    Storage storage;
    // What values are accepted, for people.
    const char* accepts;
    // The daemon's apply flags (settings/setting_def.h).
    std::uint32_t apply_flags;
    // JSON text; null where the daemon's configuration decides.
    const char* default_json;
    const char* description;
};

// In table order.
std::span<const Setting> all_settings();
// Null for an unknown key. Byte-exact.
const Setting* find_setting(std::string_view key);

bool can_be_set(const Setting& setting);
// Whether null takes the value away.
bool can_be_null(const Setting& setting);
// Whether it survives a restart, and so belongs into an exported configuration.
bool is_configuration(const Setting& setting);
bool is_list(const Setting& setting);
OwnedJson default_of(const Setting& setting);

const char* name_of(Type type);
const char* name_of(Storage storage);
// What a change of it does, as a list in a sentence.
std::string effect_of(const Setting& setting);

} // namespace quarnctl
