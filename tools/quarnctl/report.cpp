#include "report.h"

#include "catalogue.h"
#include "nearest.h"
#include "values.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>

namespace quarnctl {

namespace {

constexpr std::size_t MOST_SUGGESTIONS = 100;

std::string text_without_suggestion(const Fault& fault)
{
    std::string text = fault.key.empty() ? "" : printable(fault.key) + ": ";
    text += printable(fault.message);
    const Setting* setting = find_setting(fault.key);
    if (setting != nullptr && fault.code != CODE_COMBINATION && fault.code != CODE_INTERNAL)
        text += std::string(" (accepted: ") + setting->accepts + ")";
    return text;
}

} // namespace

void print_line(std::string_view text)
{
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fputc('\n', stdout);
}

void complain(std::string_view text)
{
    std::fprintf(stderr, "quarnctl: %.*s\n", static_cast<int>(text.size()), text.data());
}

void show_progress(const std::string& text)
{
    winsize size{};
    const bool is_known = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    // A line that fills the last column would be continued on the next one, and never taken away again.
    const std::string shown = is_known ? text.substr(0, size.ws_col - 1U) : text;
    std::fprintf(stderr, "\r\033[K%s", shown.c_str());
}

void clear_progress()
{
    std::fputs("\r\033[K", stderr);
}

void print_json(const cJSON* value)
{
    print_line(json_text(value));
}

std::string fault_text(const Fault& fault)
{
    return text_without_suggestion(fault) + (fault.code == CODE_UNKNOWN_KEY ? suggestion_for(fault.key) : "");
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
        complain(printable(failure.message));
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
    // For the thousands of a file of something else the nearest keys would take minutes.
    std::size_t count = 0;
    for (const Fault& fault : faults)
        complain(++count <= MOST_SUGGESTIONS ? fault_text(fault) : text_without_suggestion(fault));
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
