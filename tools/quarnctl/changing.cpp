#include "changing.h"

#include "carry_out.h"
#include "catalogue.h"
#include "configuration_file.h"
#include "report.h"
#include "values.h"
#include "words.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace quarnctl {

namespace {

std::vector<Fault> faults_of_settings(const std::vector<std::string>& keys)
{
    std::vector<Fault> faults = unknown_keys(keys);
    for (const std::string& key : keys) {
        const Setting* setting = find_setting(key);
        if (setting != nullptr && !can_be_set(*setting))
            faults.push_back({key, CODE_WRONG_FORM, "is read-only"});
    }
    return faults;
}

// Puts what the assignment makes of the setting into `wanted`. Empty when it went well.
std::string assign(const Setting& setting, const Assignment& assignment, const cJSON* current, cJSON* wanted)
{
    if (assignment.operation == Operation::SET) {
        OwnedJson value = value_of_word(setting, assignment.word);
        if (!value)
            return "'" + assignment.word + "' is no such value";
        put(wanted, setting.key, std::move(value));
        return {};
    }
    if (!is_list(setting))
        return "is no list, so there is no += and -=";
    const OwnedJson items = items_of_word(setting, assignment.word);
    if (!items)
        return "'" + assignment.word + "' is no such item";
    // Several words for one list work on the result of those before.
    const cJSON* before = member(wanted, setting.key);
    OwnedJson list = copy_of(before != nullptr ? before : member(current, setting.key));
    if (!cJSON_IsArray(list.get()))
        list.reset(cJSON_CreateArray());
    if (assignment.operation == Operation::ADD)
        add_items(list.get(), items.get());
    else
        remove_items(list.get(), items.get());
    put(wanted, setting.key, std::move(list));
    return {};
}

// What lists hold now that are to be added to or taken from.
bool read_lists(Session& session, const std::vector<Assignment>& assignments, Answer& answer,
                Failure& failure)
{
    std::vector<std::string> keys;
    for (const Assignment& assignment : assignments) {
        const bool is_known = std::ranges::find(keys, assignment.key) != keys.end();
        if (assignment.operation != Operation::SET && !is_known)
            keys.push_back(assignment.key);
    }
    return keys.empty() || get_settings(session, keys, answer, failure);
}

bool is_confirmed_by_person(const Session& session)
{
    std::fprintf(stderr,
                 "Every stored setting of %s goes back to its default; it may be reachable no more.\n"
                 "Go on? [y/N] ",
                 session.host.empty() ? "this camera" : session.host.c_str());
    char reply[16] = {};
    const bool is_read = std::fgets(reply, sizeof reply, stdin) != nullptr;
    return is_read && (reply[0] == 'y' || reply[0] == 'Y');
}

} // namespace

int run_set(Session& session, const std::vector<std::string>& words, const ChangeOptions& options)
{
    std::vector<Assignment> assignments(words.size());
    std::vector<std::string> keys;
    for (std::size_t i = 0; i < words.size(); ++i) {
        if (!parse_assignment(words[i], assignments[i])) {
            complain("'" + printable(words[i]) + "' is not of the form KEY=VALUE, KEY+=ITEM or KEY-=ITEM");
            return USAGE;
        }
        keys.push_back(assignments[i].key);
    }
    std::vector<Fault> faults = faults_of_settings(keys);
    if (!faults.empty())
        return report_faults(session, faults);
    Answer current;
    Failure failure;
    if (!read_lists(session, assignments, current, failure))
        return report_failure(session, failure);
    // A list that cannot be read must not be taken for an empty one.
    if (!current.faults.empty())
        return report_refusal(session, current);
    const OwnedJson wanted = new_object();
    for (const Assignment& assignment : assignments) {
        const std::string fault =
            assign(*find_setting(assignment.key), assignment, current.root.get(), wanted.get());
        if (!fault.empty())
            faults.push_back({assignment.key, CODE_WRONG_FORM, fault});
    }
    if (!faults.empty())
        return report_faults(session, faults);
    return carry_out(session, wanted.get(), Unchanged::SENT, options);
}

int run_reset(Session& session, const std::vector<std::string>& keys, const ChangeOptions& options)
{
    if (const std::vector<Fault> faults = faults_of_settings(keys); !faults.empty())
        return report_faults(session, faults);
    const OwnedJson wanted = new_object();
    for (const std::string& key : keys)
        put(wanted.get(), key, default_of(*find_setting(key)));
    return carry_out(session, wanted.get(), Unchanged::LEFT_OUT, options);
}

int run_reset_all(Session& session, Question question, const ChangeOptions& options)
{
    if (question == Question::ASKED && isatty(STDIN_FILENO) == 0) {
        complain("reset --all asks first, and there is no terminal to ask: add --yes");
        return USAGE;
    }
    if (question == Question::ASKED && !is_confirmed_by_person(session))
        return report_failure(session, {REFUSED, "nothing is reset"});
    const OwnedJson wanted = new_object();
    for (const Setting& setting : all_settings()) {
        if (is_configuration(setting))
            put(wanted.get(), setting.key, default_of(setting));
    }
    return carry_out(session, wanted.get(), Unchanged::LEFT_OUT, options);
}

int run_apply(Session& session, const std::string& file, UnknownKeys unknown, const ChangeOptions& options)
{
    Failure failure;
    std::string text;
    if (!read_configuration_file(file, text, failure))
        return report_failure(session, failure);
    ConfigurationFile configuration = parse_configuration(text);
    if (unknown == UnknownKeys::ARE_SKIPPED)
        skip_unknown_keys(configuration);
    if (!configuration.faults.empty())
        return report_faults(session, configuration.faults);
    ChangeOptions change = options;
    for (const std::string& key : configuration.skipped)
        change.left_out.push_back({key, CODE_UNKNOWN_KEY, "skipped, there is no such setting here"});
    return carry_out(session, configuration.settings.get(), Unchanged::LEFT_OUT, change);
}

} // namespace quarnctl
