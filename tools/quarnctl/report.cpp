#include "report.h"

#include "catalogue.h"
#include "nearest.h"
#include "values.h"

#include <cstdio>

namespace quarnctl {

void print_line(std::string_view text)
{
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fputc('\n', stdout);
}

void complain(std::string_view text)
{
    std::fprintf(stderr, "quarnctl: %.*s\n", static_cast<int>(text.size()), text.data());
}

void print_json(const cJSON* value)
{
    print_line(json_text(value));
}

std::string fault_text(const Fault& fault)
{
    std::string text = fault.key.empty() ? "" : printable(fault.key) + ": ";
    text += printable(fault.message);
    const Setting* setting = find_setting(fault.key);
    if (setting != nullptr && fault.code != CODE_COMBINATION && fault.code != CODE_INTERNAL)
        text += std::string(" (accepted: ") + setting->accepts + ")";
    if (fault.code == CODE_UNKNOWN_KEY)
        text += suggestion_for(fault.key);
    return text;
}

OwnedJson faults_as_json(const std::vector<Fault>& faults)
{
    OwnedJson list(cJSON_CreateArray());
    for (const Fault& fault : faults) {
        OwnedJson entry = new_object();
        if (!fault.key.empty())
            put_text(entry.get(), "key", fault.key);
        cJSON_AddNumberToObject(entry.get(), "code", fault.code);
        put_text(entry.get(), "msg", fault.message);
        cJSON_AddItemToArray(list.get(), entry.release());
    }
    return list;
}

int report_failure(const Session& session, const Failure& failure)
{
    if (session.json)
        (void)report_faults(session, {{"", CODE_INTERNAL, failure.message}});
    else
        complain(failure.message);
    return failure.exit_status;
}

int report_faults(const Session& session, const std::vector<Fault>& faults)
{
    if (session.json) {
        OwnedJson object = new_object();
        cJSON_AddFalseToObject(object.get(), "success");
        put(object.get(), "errors", faults_as_json(faults));
        print_json(object.get());
        return REFUSED;
    }
    for (const Fault& fault : faults)
        complain(fault_text(fault));
    return REFUSED;
}

int report_refusal(const Session& session, const Answer& answer)
{
    if (!answer.faults.empty())
        return report_faults(session, answer.faults);
    return report_faults(session, {{"", CODE_INTERNAL, "the daemon refused the request; its log says why"}});
}

std::vector<Fault> unknown_keys(const std::vector<std::string>& keys)
{
    std::vector<Fault> faults;
    for (const std::string& key : keys) {
        if (find_setting(key) == nullptr)
            faults.push_back({key, CODE_UNKNOWN_KEY, "Unknown key"});
    }
    return faults;
}

void print_changes(const std::vector<Change>& changes)
{
    for (const Change& change : changes)
        print_line(change.key + ": " + plain_text(change.before.get()) + " -> " +
                   plain_text(change.after.get()));
}

OwnedJson changes_as_json(const std::vector<Change>& changes)
{
    OwnedJson list(cJSON_CreateArray());
    for (const Change& change : changes) {
        OwnedJson entry = new_object();
        put_text(entry.get(), "key", change.key);
        put(entry.get(), "before", copy_of(change.before.get()));
        put(entry.get(), "after", copy_of(change.after.get()));
        cJSON_AddItemToArray(list.get(), entry.release());
    }
    return list;
}

} // namespace quarnctl
