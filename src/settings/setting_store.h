// settings/setting_store.h: one way to read and write settings by key. A value is looked for among the held
// values (in memory, gone when the daemon ends), then in the framework's settings store, then in the row's
// default.
#pragma once

#include "settings/setting_def.h"

#include <cstddef>
#include <cstdio>

// Opens the framework's store and the table of held values; deinit closes both.
void init_setting_storage();
void deinit_setting_storage();

// "[IPv4/DHCP]Enabled" to "IPv4.DHCP.Enabled". False, and `framework_key` untouched, for what is no setting
// key.
bool get_trell_settings_key(const char* key, OwnedText& framework_key);

// The row of a key, null for an unknown one.
const SettingDef* find_setting(const char* key);
// In table order.
void for_each_setting(void (*visit)(const SettingDef* row, FILE* stream, const char* key), FILE* stream);

// Held or stored value only; false when there is neither.
bool get_setting_not_default(const SettingDef* row, OwnedJson& value);
// Held value, stored value or default: the reader of most rows.
bool read_setting(const SettingDef* row, OwnedJson& value);
// A JSON string of what `get_text` gives; false when it gives nothing.
bool read_str_util_value(const char* key, OwnedText (*get_text)(), OwnedJson& value);

// Saves the row's default through its own save function.
bool restore_setting_default(const char* key);

// The current value through the row's reader, or null.
OwnedJson get_json_value(const char* key);
// Saves through the row's save function; true when that stored something.
bool set_json_value(const cJSON* item);

// Whether the item (its key attached) differs from the current value; an unreadable one counts as different.
bool setting_is_being_changed(const cJSON* item);

enum class Keep { HELD, STORED };
enum class Unchanged { SKIPPED, WRITTEN };
// True when the value was put where `keep` says. A value that is not being changed is not written unless
// asked for.
bool save_or_hold_setting(const cJSON* item, Keep keep, Unchanged unchanged);
// The savers of most rows. Saving does not take away a held value, which shadows the stored one.
bool save_setting(const cJSON* item);
bool hold_setting(const cJSON* item);
// Stores one text, or null for JSON null, under a key.
bool save_text_setting(const char* key, const char* text, Unchanged unchanged);

// The item with a key attached, as savers and verifiers take it.
OwnedJson with_key(OwnedJson item, const char* key);

// Typed getters. A value of another type is logged and counts as absent, false or 0.
OwnedText get_string(const char* key);
bool get_bool(const char* key);
int get_int(const char* key);
// Null for an empty array.
OwnedStringArray get_string_array(const char* key);

// Between begin_save_group and end_save_group all saves are one transaction of the store; outside, each save
// is durable by itself. end_save_group makes the group durable; when that fails it logs every key of the
// group, takes all back and returns false.
void begin_save_group();
bool end_save_group();
// How many values the open group has written to the store so far.
std::size_t saves_in_group();
