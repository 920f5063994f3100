// settings/bootenv.h: the eight settings that also live in the boot loader's environment, where early boot
// sees them. The settings store is a cache in front of it: a stored or held value wins.
#pragma once

#include "settings/setting_def.h"

// One setting in the environment: how its text is fetched and put, and how text and JSON become each other.
struct BootenvVariable {
    const char* key;
    // Null when the environment holds no value.
    OwnedText (*get)();
    bool (*set)(const char* text);
    bool (*text_to_json)(const char* text, OwnedJson& value);
    // May succeed with no text.
    bool (*json_to_text)(const cJSON* item, OwnedText& text);
};

extern const BootenvVariable IPV4_DHCP_ENABLED;
extern const BootenvVariable IPV4_LINK_LOCAL_ENABLED;
extern const BootenvVariable IPV4_MANUAL_ADDRESS;
extern const BootenvVariable IPV4_MANUAL_NETMASK;
extern const BootenvVariable IPV4_MANUAL_DEFAULT_GATEWAY;
extern const BootenvVariable IPV6_ENABLED;
extern const BootenvVariable IPV6_MANUAL_ADDRESSES;
extern const BootenvVariable HOSTNAME_NAME;

// The cached value, else the environment's if the row's verifier accepts it, else the default; the last two
// are held. False only when the row or a usable default is missing.
bool read_bootenv_var(const SettingDef* row, OwnedJson& value, OwnedText (*get)(),
                      bool (*text_to_json)(const char* text, OwnedJson& value));
// Caches the value and writes it to the environment. True when it was written or when nothing changed.
bool save_bootenv_var(const cJSON* item, bool (*set)(const char* text),
                      bool (*json_to_text)(const cJSON* item, OwnedText& text));

// The reader and the saver of a row, bound to its variable: distinct functions from one template.
const SettingDef* find_bootenv_row(const BootenvVariable& variable);

template <const BootenvVariable& variable> bool read_bootenv_setting(const SettingDef*, OwnedJson& value)
{
    return read_bootenv_var(find_bootenv_row(variable), value, variable.get, variable.text_to_json);
}

template <const BootenvVariable& variable> bool save_bootenv_setting(const cJSON* item)
{
    return save_bootenv_var(item, variable.set, variable.json_to_text);
}
