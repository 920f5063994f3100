#include "reading.h"

#include "catalogue.h"
#include "report.h"
#include "values.h"

#include <fnmatch.h>

#include <algorithm>
#include <functional>

namespace quarnctl {

namespace {

// Reading it may search the network for seconds, so only who names it reads it.
constexpr char SLOW_KEY[] = "[IPv4/LocalLink]Address";

std::vector<const Setting*> settings_where(const std::function<bool(const Setting&)>& is_wanted)
{
    std::vector<const Setting*> chosen;
    for (const Setting& setting : all_settings()) {
        if (is_wanted(setting))
            chosen.push_back(&setting);
    }
    return chosen;
}

// A part of the key in any case, or a pattern over all of it. The brackets of keys are themselves, so that
// "[IPv4*" needs no escapes.
bool matches(const Setting& setting, const std::string& pattern)
{
    std::string escaped;
    for (const char letter : pattern) {
        escaped += letter == '[' || letter == ']' ? "\\" : "";
        escaped += letter;
    }
    const std::string key(setting.key);
    const bool is_part = fnmatch(("*" + escaped + "*").c_str(), key.c_str(), FNM_CASEFOLD) == 0;
    return pattern.empty() || is_part;
}

bool read_values(Session& session, const std::vector<const Setting*>& settings, Answer& answer,
                 Failure& failure)
{
    std::vector<std::string> keys;
    keys.reserve(settings.size());
    for (const Setting* setting : settings)
        keys.emplace_back(setting->key);
    return get_settings(session, keys, answer, failure);
}

bool is_default(const Setting& setting, const cJSON* value)
{
    return are_same(value, default_of(setting).get());
}

OwnedJson setting_as_json(const Setting& setting, const cJSON* value)
{
    OwnedJson object = new_object();
    put_text(object.get(), "key", setting.key);
    put(object.get(), "value", copy_of(value));
    put(object.get(), "default", default_of(setting));
    cJSON_AddBoolToObject(object.get(), "is_default", is_default(setting, value));
    put_text(object.get(), "storage", name_of(setting.storage));
    return object;
}

OwnedJson description_as_json(const Setting& setting)
{
    OwnedJson object = new_object();
    put_text(object.get(), "key", setting.key);
    put_text(object.get(), "type", name_of(setting.type));
    cJSON_AddBoolToObject(object.get(), "settable", can_be_set(setting));
    put_text(object.get(), "accepts", setting.accepts);
    put(object.get(), "default", default_of(setting));
    put_text(object.get(), "storage", name_of(setting.storage));
    put_text(object.get(), "effect", effect_of(setting));
    put_text(object.get(), "description", setting.description);
    return object;
}

void print_table(const std::vector<const Setting*>& settings, const cJSON* values)
{
    std::size_t key_width = 0;
    std::size_t storage_width = 0;
    for (const Setting* setting : settings) {
        key_width = std::max(key_width, setting->key.size());
        storage_width = std::max(storage_width, std::string_view(name_of(setting->storage)).size());
    }
    for (const Setting* setting : settings) {
        const cJSON* value = member(values, setting->key);
        const std::string_view storage = name_of(setting->storage);
        std::string line(setting->key);
        line.append(key_width - line.size() + 2, ' ').append(storage);
        line.append(storage_width - storage.size() + 2, ' ');
        line += is_default(*setting, value) ? "default  " : "set      ";
        // Last, since nothing is ever cut off.
        print_line(line + plain_text(value));
    }
}

int print_as_list(const std::vector<const Setting*>& settings, const cJSON* values)
{
    OwnedJson list(cJSON_CreateArray());
    for (const Setting* setting : settings)
        cJSON_AddItemToArray(list.get(), setting_as_json(*setting, member(values, setting->key)).release());
    print_json(list.get());
    return DONE;
}

} // namespace

int run_get(Session& session, const std::vector<std::string>& keys)
{
    Answer answer;
    Failure failure;
    if (!get_settings(session, keys, answer, failure))
        return report_failure(session, failure);
    if (!answer.faults.empty() || !answer.success)
        return report_refusal(session, answer);
    if (keys.size() == 1 && !session.json) {
        print_line(plain_text(member(answer.root.get(), keys[0])));
        return DONE;
    }
    OwnedJson values = new_object();
    for (const std::string& key : keys) {
        const cJSON* value = member(answer.root.get(), key);
        put(values.get(), key, copy_of(value));
        if (!session.json)
            print_line(key + "=" + plain_text(value));
    }
    if (session.json)
        print_json(values.get());
    return DONE;
}

int run_list(Session& session, const std::string& pattern)
{
    const std::vector<const Setting*> settings = settings_where([&](const Setting& setting) {
        return matches(setting, pattern) && (setting.key != SLOW_KEY || pattern == SLOW_KEY);
    });
    if (settings.empty())
        return report_faults(session, {{pattern, CODE_UNKNOWN_KEY, "no key matches"}});
    Answer answer;
    Failure failure;
    // What cannot be read now, such as the address of a link without one, is listed as null.
    if (!read_values(session, settings, answer, failure))
        return report_failure(session, failure);
    if (session.json)
        return print_as_list(settings, answer.root.get());
    print_table(settings, answer.root.get());
    return DONE;
}

int run_describe(Session& session, const std::vector<std::string>& keys)
{
    if (const std::vector<Fault> faults = unknown_keys(keys); !faults.empty())
        return report_faults(session, faults);
    OwnedJson list(cJSON_CreateArray());
    for (const std::string& key : keys) {
        const Setting& setting = *find_setting(key);
        cJSON_AddItemToArray(list.get(), description_as_json(setting).release());
        if (session.json)
            continue;
        const std::string default_text = json_text(default_of(setting).get());
        print_line(key + "\n    " + setting.description);
        print_line(std::string("    type:     ") + name_of(setting.type));
        print_line(std::string("    accepts:  ") + setting.accepts);
        print_line("    default:  " + default_text +
                   (setting.default_json == nullptr ? ", or eth0_max_speed of quarn.conf" : ""));
        print_line(std::string("    kept in:  ") + name_of(setting.storage));
        if (can_be_set(setting))
            print_line("    a change: " + effect_of(setting));
    }
    if (session.json)
        print_json(list.get());
    return DONE;
}

int run_diff(Session& session)
{
    std::vector<const Setting*> settings = settings_where(is_configuration);
    Answer answer;
    Failure failure;
    if (!read_values(session, settings, answer, failure))
        return report_failure(session, failure);
    std::erase_if(settings, [&](const Setting* setting) {
        return is_default(*setting, member(answer.root.get(), setting->key));
    });
    if (session.json)
        return print_as_list(settings, answer.root.get());
    for (const Setting* setting : settings)
        print_line(std::string(setting->key) + ": " + plain_text(default_of(*setting).get()) + " -> " +
                   plain_text(member(answer.root.get(), setting->key)));
    return DONE;
}

int run_export(Session& session)
{
    const std::vector<const Setting*> settings = settings_where(is_configuration);
    Answer answer;
    Failure failure;
    if (!read_values(session, settings, answer, failure))
        return report_failure(session, failure);
    // A configuration with holes would undo nothing when it is applied, and nobody would see it.
    if (!answer.success || !answer.faults.empty())
        return report_refusal(session, answer);
    OwnedJson values = new_object();
    for (const Setting* setting : settings)
        put(values.get(), setting->key, copy_of(member(answer.root.get(), setting->key)));
    const std::string text = json_file(values.get());
    print_line(std::string_view(text).substr(0, text.size() - 1));
    return DONE;
}

} // namespace quarnctl
