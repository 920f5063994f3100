#include "settings/setting_store.h"

#include "core/log.h"
#include "trell_core.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <set>
#include <string>
#include <vector>

namespace {

constexpr char LINK_SPEED_KEY[] = "[NIC/eth0/AutoNegotiated]LinkSpeed";
constexpr double DEFAULT_LINK_SPEED = 100;
constexpr std::size_t SHORTEST_KEY = 4;

TrellSettings* settings = nullptr;
// Framework key to JSON text.
GHashTable* held_values = nullptr;

// What the open group has written, for the log in case it cannot be made durable.
struct GroupedSave {
    std::string framework_key;
    std::string json_text;
};
bool group_is_open = false;
// A write of the open group has failed: none of the group's later ones is tried, so that it is stored whole
// or not at all, and a store that keeps one waiting does so once.
bool group_has_failed = false;
std::vector<GroupedSave> grouped_saves;
// Framework keys whose last write to the store failed. They count as being changed until a write succeeds, so
// that a client that sends the same value again has it stored.
std::set<std::string> failed_saves;

OwnedText try_copy(const char* text)
{
    const std::size_t size = std::strlen(text) + 1;
    OwnedText copy(static_cast<char*>(g_try_malloc(size)));
    if (copy)
        std::memcpy(copy.get(), text, size);
    return copy;
}

GTree* new_setting_tree()
{
    GTree* tree = g_tree_new([](gconstpointer a, gconstpointer b) {
        return std::strcmp(static_cast<const char*>(a), static_cast<const char*>(b));
    });
    if (tree == nullptr)
        return nullptr;
    for (const SettingDef* row = SETTING_TABLE; row->key != nullptr; ++row)
        g_tree_insert(tree, const_cast<char*>(row->key), const_cast<SettingDef*>(row));
    return tree;
}

// The daemon's configuration may name another speed than the default.
double configured_link_speed(OwnedMallocText& text)
{
    TrellConfiguration* configuration = nullptr;
    if (trell_core_configuration_init("quarn", &configuration) != 0)
        return DEFAULT_LINK_SPEED;
    char* value = nullptr;
    const bool found =
        trell_core_configuration_get_string_value(configuration, "eth0_max_speed", &value) == 0;
    trell_core_configuration_deinit(configuration);
    if (!found)
        return DEFAULT_LINK_SPEED;
    text.reset(value);
    const OwnedJson parsed(cJSON_ParseWithOpts(value, nullptr, 1));
    if (!cJSON_IsNumber(parsed.get()) || !std::isfinite(parsed->valuedouble)) {
        text.reset();
        return DEFAULT_LINK_SPEED;
    }
    return parsed->valuedouble;
}

// Nothing is stored when the store could not even be opened.
int get_stored_text(const char* framework_key, OwnedMallocText& text)
{
    if (settings == nullptr)
        return TRELL_SETTINGS_NOT_STORED;
    char* stored = nullptr;
    const int result = trell_core_settings_get_json_value(settings, framework_key, &stored);
    text.reset(stored);
    return result;
}

bool store_text(const char* framework_key, const char* json_text)
{
    const bool written = settings != nullptr && !group_has_failed &&
                         trell_core_settings_set_json_value(settings, framework_key, json_text) == 0;
    if (written && group_is_open) {
        grouped_saves.push_back({framework_key, json_text});
        return true;
    }
    if (written && trell_core_settings_commit(settings) == 0) {
        failed_saves.erase(framework_key);
        return true;
    }
    group_has_failed = group_is_open;
    failed_saves.insert(framework_key);
    return false;
}

bool has_failed_to_be_saved(const char* key)
{
    OwnedText framework_key;
    return !failed_saves.empty() && get_trell_settings_key(key, framework_key) &&
           failed_saves.contains(framework_key.get());
}

} // namespace

void init_setting_storage()
{
    held_values = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free);
    if (trell_core_settings_init("quarn", &settings) != 0)
        log_message(LEVEL_CRITICAL, "%s:%d: Could not initialize trell settings", HERE);
}

void deinit_setting_storage()
{
    if (settings != nullptr)
        trell_core_settings_deinit(settings);
    settings = nullptr;
    if (held_values != nullptr)
        g_hash_table_destroy(held_values);
    held_values = nullptr;
}

bool get_trell_settings_key(const char* key, OwnedText& framework_key)
{
    if (key == nullptr) {
        log_message(LEVEL_CRITICAL, "%s:%d: Passed NULL pointer for quarn setting name", HERE);
        return false;
    }
    if (key[0] != '[' || std::strlen(key) < SHORTEST_KEY) {
        log_message(LEVEL_WARNING, "%s: Quarn setting name '%s' is not able to be parsed", __func__, key);
        return false;
    }
    OwnedText copy = try_copy(key + 1);
    if (!copy) {
        log_message(LEVEL_CRITICAL, "%s:%d: Couldn't strdup string", HERE);
        return false;
    }
    for (char* at = copy.get(); *at != '\0'; ++at) {
        if (*at == ']' || *at == '/')
            *at = '.';
    }
    framework_key = std::move(copy);
    return true;
}

const SettingDef* find_setting(const char* key)
{
    static GTree* const tree = new_setting_tree();
    if (tree == nullptr) {
        log_message(LEVEL_CRITICAL, "%s:%d: Failure to get new setting tree", HERE);
        return nullptr;
    }
    return key == nullptr ? nullptr : static_cast<const SettingDef*>(g_tree_lookup(tree, key));
}

void for_each_setting(void (*visit)(const SettingDef* row, FILE* stream, const char* key), FILE* stream)
{
    for (const SettingDef* row = SETTING_TABLE; row->key != nullptr; ++row)
        visit(row, stream, row->key);
}

bool get_setting_not_default(const SettingDef* row, OwnedJson& value)
{
    OwnedText framework_key;
    if (row == nullptr || !get_trell_settings_key(row->key, framework_key))
        return false;
    OwnedMallocText stored;
    const char* text = nullptr;
    if (held_values != nullptr)
        text = static_cast<const char*>(g_hash_table_lookup(held_values, framework_key.get()));
    if (text == nullptr) {
        if (get_stored_text(framework_key.get(), stored) == TRELL_SETTINGS_NOT_STORED)
            return false;
        text = stored.get();
    }
    OwnedJson parsed(text != nullptr ? cJSON_Parse(text) : nullptr);
    if (!parsed) {
        log_message(LEVEL_ERROR, "%s: Invalid JSON for %s", __func__, row->key);
        return false;
    }
    value = std::move(parsed);
    return true;
}

bool read_setting(const SettingDef* row, OwnedJson& value)
{
    if (row == nullptr)
        return false;
    if (get_setting_not_default(row, value))
        return true;
    if (row->default_json != nullptr) {
        value.reset(cJSON_Parse(row->default_json));
        return value != nullptr;
    }
    if (std::strcmp(row->key, LINK_SPEED_KEY) != 0)
        return false;
    OwnedMallocText configured;
    value.reset(cJSON_CreateNumber(configured_link_speed(configured)));
    if (configured)
        log_message(LEVEL_NOTICE, "%s: DEFAULT kEth0MaxSpeed changed to %s", __func__, configured.get());
    return value != nullptr;
}

bool read_str_util_value(const char* key, OwnedText (*get_text)(), OwnedJson& value)
{
    const OwnedText text = get_text();
    if (!text) {
        log_message(LEVEL_ERROR, "%s: can't retrieve %s value", __func__, key);
        return false;
    }
    value.reset(cJSON_CreateString(text.get()));
    if (!value)
        log_message(LEVEL_CRITICAL, "%s:%d: Out of memory retrieving %s value", HERE, key);
    return value != nullptr;
}

bool restore_setting_default(const char* key)
{
    const SettingDef* row = find_setting(key);
    if (row == nullptr) {
        log_message(LEVEL_ERROR, "%s: Could not get setting %s", __func__, key != nullptr ? key : "(null)");
        return false;
    }
    OwnedJson value(row->default_json != nullptr ? cJSON_Parse(row->default_json) : nullptr);
    if (!value) {
        log_message(LEVEL_ERROR, "%s: Could not parse default value '%s' of %s", __func__,
                    row->default_json != nullptr ? row->default_json : "(null)", key);
        return false;
    }
    return row->save != nullptr && row->save(with_key(std::move(value), key).get());
}

OwnedJson get_json_value(const char* key)
{
    OwnedJson value;
    const SettingDef* row = find_setting(key);
    if (row == nullptr)
        log_message(LEVEL_ERROR, "%s: unrecognized JSON key %s", __func__, key != nullptr ? key : "(null)");
    else if (row->read == nullptr)
        log_message(LEVEL_ERROR, "%s: JSON key %s has no read_func", __func__, key);
    else if (!row->read(row, value))
        log_message(LEVEL_ERROR, "%s: JSON key %s fails read_func", __func__, key);
    return value;
}

bool set_json_value(const cJSON* item)
{
    if (item == nullptr || item->string == nullptr) {
        log_message(LEVEL_CRITICAL, "%s:%d: Unable to set json value because of null pointer", HERE);
        return false;
    }
    const SettingDef* row = find_setting(item->string);
    if (row == nullptr) {
        log_message(LEVEL_ERROR, "%s: unrecognized JSON key %s", __func__, item->string);
        return false;
    }
    if (row->save == nullptr) {
        log_message(LEVEL_ERROR, "%s: JSON key %s has no save_func", __func__, item->string);
        return false;
    }
    if (!row->save(item)) {
        // Kept as it is: log filters in the field know this misspelling.
        log_message(LEVEL_ERROR, "%s: JSON key %s fails ave_func", __func__, item->string);
        return false;
    }
    return true;
}

bool setting_is_being_changed(const cJSON* item)
{
    if (item == nullptr) {
        log_message(LEVEL_ERROR, "%s: NULL setting pointer passed", __func__);
        return false;
    }
    if (item->string == nullptr) {
        log_message(LEVEL_ERROR, "%s: Setting object didn't contain setting key", __func__);
        return false;
    }
    const OwnedJson current = get_json_value(item->string);
    if (!current) {
        log_message(LEVEL_WARNING, "%s: Couldn't read the existing setting for %s", __func__, item->string);
        return true;
    }
    const OwnedMallocText current_text(cJSON_PrintUnformatted(current.get()));
    const OwnedMallocText proposed_text(cJSON_PrintUnformatted(item));
    return !current_text || !proposed_text || std::strcmp(current_text.get(), proposed_text.get()) != 0 ||
           has_failed_to_be_saved(item->string);
}

bool save_or_hold_setting(const cJSON* item, Keep keep, Unchanged unchanged)
{
    OwnedText framework_key;
    const char* key = item != nullptr ? item->string : nullptr;
    if (!get_trell_settings_key(key, framework_key))
        return false;
    if (unchanged == Unchanged::SKIPPED && !setting_is_being_changed(item)) {
        log_message(LEVEL_DEBUG, "%s:%d: The setting %s is not being changed", HERE, key);
        return false;
    }
    const OwnedMallocText json_text(cJSON_PrintUnformatted(item));
    if (!json_text)
        return false;
    if (keep == Keep::HELD) {
        if (held_values == nullptr)
            return false;
        g_hash_table_replace(held_values, framework_key.release(), g_strdup(json_text.get()));
        return true;
    }
    if (!store_text(framework_key.get(), json_text.get())) {
        log_message(LEVEL_ERROR, "%s: Could not set %s = %s to settings", __func__, framework_key.get(),
                    json_text.get());
        return false;
    }
    return true;
}

bool save_setting(const cJSON* item)
{
    return save_or_hold_setting(item, Keep::STORED, Unchanged::SKIPPED);
}

bool hold_setting(const cJSON* item)
{
    return save_or_hold_setting(item, Keep::HELD, Unchanged::SKIPPED);
}

bool save_text_setting(const char* key, const char* text, Unchanged unchanged)
{
    const OwnedJson item =
        with_key(OwnedJson(text != nullptr ? cJSON_CreateString(text) : cJSON_CreateNull()), key);
    return save_or_hold_setting(item.get(), Keep::STORED, unchanged);
}

OwnedJson with_key(OwnedJson item, const char* key)
{
    const OwnedJson object(cJSON_CreateObject());
    cJSON* const named = item.release();
    if (!cJSON_AddItemToObject(object.get(), key, named))
        return OwnedJson(named);
    return OwnedJson(cJSON_DetachItemViaPointer(object.get(), named));
}

OwnedText get_string(const char* key)
{
    const OwnedJson value = get_json_value(key);
    if (!value || cJSON_IsNull(value.get()))
        return nullptr;
    if (!cJSON_IsString(value.get())) {
        log_message(LEVEL_ERROR, "%s: %s value is not a JSON string or NULL", __func__, key);
        return nullptr;
    }
    OwnedText text = try_copy(value->valuestring);
    if (!text)
        log_message(LEVEL_CRITICAL, "%s:%d: out of memory", HERE);
    return text;
}

bool get_bool(const char* key)
{
    const OwnedJson value = get_json_value(key);
    if (!value)
        return false;
    if (!cJSON_IsBool(value.get())) {
        log_message(LEVEL_ERROR, "%s: %s value is not a JSON boolean; returning FALSE", __func__, key);
        return false;
    }
    return cJSON_IsTrue(value.get());
}

int get_int(const char* key)
{
    const OwnedJson value = get_json_value(key);
    if (!value)
        return 0;
    if (cJSON_IsNull(value.get())) {
        log_message(LEVEL_NOTICE, "%s: %s value is JSON NULL, returning 0", __func__, key);
        return 0;
    }
    if (!cJSON_IsNumber(value.get())) {
        log_message(LEVEL_ERROR, "%s: %s value is not a JSON number; returning 0", __func__, key);
        return 0;
    }
    return value->valueint;
}

OwnedStringArray get_string_array(const char* key)
{
    const OwnedJson value = get_json_value(key);
    if (!value)
        return nullptr;
    const bool strings_only = cJSON_IsArray(value.get()) && [&] {
        for (const cJSON* element = value->child; element != nullptr; element = element->next) {
            if (!cJSON_IsString(element))
                return false;
        }
        return true;
    }();
    if (!strings_only) {
        log_message(LEVEL_ERROR, "%s: %s value is not a JSON string array", __func__, key);
        return nullptr;
    }
    const int count = cJSON_GetArraySize(value.get());
    if (count == 0)
        return nullptr;
    OwnedStringArray texts(g_new0(char*, static_cast<std::size_t>(count) + 2));
    char** next = texts.get();
    for (const cJSON* element = value->child; element != nullptr; element = element->next) {
        OwnedText copy = try_copy(element->valuestring);
        if (!copy) {
            log_message(LEVEL_CRITICAL, "%s:%d: out of memory", HERE);
            continue;
        }
        *next++ = copy.release();
    }
    return texts;
}

void begin_save_group()
{
    group_is_open = true;
    group_has_failed = false;
    grouped_saves.clear();
}

bool end_save_group()
{
    group_is_open = false;
    group_has_failed = false;
    const std::vector<GroupedSave> saves = std::exchange(grouped_saves, {});
    const bool durable = saves.empty() || trell_core_settings_commit(settings) == 0;
    for (const GroupedSave& save : saves) {
        if (durable) {
            failed_saves.erase(save.framework_key);
            continue;
        }
        log_message(LEVEL_ERROR, "%s: Could not set %s = %s to settings", __func__,
                    save.framework_key.c_str(), save.json_text.c_str());
        failed_saves.insert(save.framework_key);
        // What rows of the boot environment hold beside the store: it is not what is stored, and is not
        // applied.
        g_hash_table_remove(held_values, save.framework_key.c_str());
    }
    return durable;
}

std::size_t saves_in_group()
{
    return grouped_saves.size();
}
