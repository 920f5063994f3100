#include "confirming.h"

#include "carry_out.h"
#include "change_record.h"
#include "report.h"
#include "values.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace quarnctl {

namespace {

// How long the guard may take to start.
constexpr std::uint64_t LONGEST_START = 10000;
constexpr char GUARD_AT_WORK[] = "the guard has not taken the change back yet";
constexpr char GUARD_AWAY[] =
    "nobody takes the change back yet; start the guard with: systemctl start quarnctl-guard.path";
constexpr char GUARD_MISSING[] =
    "the change is not made: nobody would take it back; start the guard with: systemctl start "
    "quarnctl-guard.path";

std::string problem_of_folder(int error)
{
    if (error == EEXIST)
        return "another change waits for its confirm: 'quarnctl confirm' keeps it, 'quarnctl rollback' takes "
               "it back";
    if (error == EACCES || error == EPERM)
        return std::string("not permitted to write in ") + STATE_FOLDER +
               ": become root, or a member of the group 'quarn'";
    return std::string(STATE_FOLDER) + ": " + std::strerror(error);
}

bool wait_until_watched(const ChangeFolder& folder, const FolderWatch& watch, const ChangeRecord& record)
{
    constexpr int STEP = 200;
    const std::uint64_t end = milliseconds_since_boot() + LONGEST_START;
    while (!folder.is_watched(record)) {
        if (milliseconds_since_boot() >= end)
            return false;
        watch.wait(STEP);
    }
    return true;
}

// How a change ended: the result that the guard or a confirm wrote for it, empty when there is none.
std::string outcome_of(const ChangeFolder& folder, const std::string& id)
{
    const OwnedJson last = folder.last_outcome();
    return text_member(last.get(), "id") == id ? text_member(last.get(), "result") : "";
}

bool is_waiting(const ChangeFolder& folder, const ChangeRecord& record)
{
    const std::optional<ChangeRecord> pending = folder.read(PENDING);
    return pending && pending->id == record.id;
}

// Empty when there is none within the time, or nobody who could bring it about.
std::string wait_for_outcome(const ChangeFolder& folder, const FolderWatch& watch, const std::string& id,
                             unsigned seconds)
{
    constexpr std::uint64_t SECOND = 1000;
    const bool is_shown = isatty(STDERR_FILENO) != 0;
    const std::uint64_t start = milliseconds_since_boot();
    std::uint64_t passed = 0;
    bool is_guarded = false;
    while (outcome_of(folder, id).empty() && passed < seconds * SECOND) {
        is_guarded = is_guarded || folder.is_guarded();
        if (!is_guarded && passed >= LONGEST_START)
            break;
        if (is_shown && passed >= SECOND)
            show_progress("taking back ... " + std::to_string(passed / SECOND) + " s");
        watch.wait(static_cast<int>(SECOND));
        passed = milliseconds_since_boot() - start;
    }
    if (is_shown && passed >= SECOND)
        clear_progress();
    return outcome_of(folder, id);
}

int report_outcome(const Session& session, const std::string& result, bool is_good)
{
    if (session.json) {
        const OwnedJson object = new_object();
        cJSON_AddBoolToObject(object.get(), "success", is_good);
        put(object.get(), "errors", OwnedJson(cJSON_CreateArray()));
        put_text(object.get(), "result", result);
        print_json(object.get());
    } else {
        print_line("the change is " + result);
    }
    return is_good ? DONE : REFUSED;
}

// Enter confirms, as long as there is a keyboard; where there is none only another quarnctl does.
bool is_enter_pressed(bool& has_keyboard, int milliseconds, const FolderWatch& watch)
{
    pollfd watched[] = {{watch.descriptor(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    poll(watched, has_keyboard ? 2 : 1, milliseconds);
    watch.wait(0);
    if (!has_keyboard || watched[1].revents == 0)
        return false;
    char line[256];
    const bool is_pressed = read(STDIN_FILENO, line, sizeof line) > 0;
    // The end of a terminal is no key.
    has_keyboard = is_pressed;
    return is_pressed;
}

bool confirm(const ChangeFolder& folder, const std::string& id)
{
    if (!folder.keep_change())
        return false;
    folder.write_outcome(id, "confirmed", nullptr);
    return true;
}

int count_down(const Session& session, const ChangeFolder& folder, const FolderWatch& watch,
               const ChangeRecord& record, std::uint64_t deadline)
{
    constexpr int STEP = 200;
    constexpr unsigned TIME_TO_RESTORE = 5;
    // A program in the background would be stopped by a touch of the keyboard.
    bool has_keyboard = isatty(STDIN_FILENO) != 0 && tcgetpgrp(STDIN_FILENO) == getpgrp();
    // What was typed before the result was there confirms nothing.
    if (has_keyboard)
        tcflush(STDIN_FILENO, TCIFLUSH);
    while (is_waiting(folder, record)) {
        const std::uint64_t now = milliseconds_since_boot();
        const std::uint64_t rest = now < deadline ? deadline - now : 0;
        show_progress("taken back in " + std::to_string((rest + 999) / 1000) +
                      " s; Enter or 'quarnctl confirm' keeps it ");
        if (is_enter_pressed(has_keyboard, STEP, watch) && confirm(folder, record.id))
            break;
    }
    clear_progress();
    const std::string result =
        wait_for_outcome(folder, watch, record.id, session.timeout_seconds + TIME_TO_RESTORE);
    return report_outcome(session, result.empty() ? "being taken back" : result, result == "confirmed");
}

// Some values had none before, and cannot be without one again.
void add_what_stays(Plan& plan, const cJSON* restore)
{
    const OwnedJson after = new_object();
    for (const Change& change : plan.changes)
        put(after.get(), change.key, copy_of(change.after.get()));
    for (const Fault& fault : make_plan(restore, after.get(), Unchanged::LEFT_OUT).left_alone)
        plan.left_alone.push_back({fault.key, fault.code, "cannot be taken back to having no value"});
}

void tell_deadline(const Session& session, const Plan& plan, const Answer& answer, unsigned seconds)
{
    if (session.json) {
        const OwnedJson object = new_object();
        cJSON_AddTrueToObject(object.get(), "success");
        put(object.get(), "errors", faults_as_json(answer.faults));
        put(object.get(), "changes", changes_as_json(plan.changes));
        put(object.get(), "left_alone", faults_as_json(plan.left_alone));
        cJSON_AddNumberToObject(object.get(), "confirm_within", seconds);
        print_json(object.get());
        return;
    }
    print_changes(plan.changes);
    for (const Fault& fault : answer.faults)
        complain(fault_text(fault));
    print_line("taken back in " + std::to_string(seconds) +
               " s unless 'quarnctl confirm' comes before; 'quarnctl rollback' takes it back at once");
}

// A refused first request has changed nothing. After a later one, or without an answer, nobody knows, and
// the guard restores.
int report_failed_change(const Session& session, const ChangeFolder& folder, const Plan& plan,
                         const Answer& answer, const Failure& failure)
{
    const bool is_unchanged = failure.exit_status == DONE && plan.requests.size() == 1;
    const bool is_gone = is_unchanged ? folder.keep_change() : folder.begin_restoring();
    if (!is_gone && errno != ENOENT)
        complain(problem_of_folder(errno));
    return failure.exit_status != DONE ? report_failure(session, failure) : report_refusal(session, answer);
}

int report_nothing_pending(const Session& session, const ChangeFolder& folder)
{
    std::string message = "no change waits for a confirm";
    const std::string last = text_member(folder.last_outcome().get(), "result");
    if (folder.read(RESTORING))
        message = "too late: the change is being taken back";
    else if (!last.empty())
        message += "; the last one was " + last;
    return report_failure(session, {REFUSED, message});
}

} // namespace

int change_until_confirmed(Session& session, Plan plan, const cJSON* restore, unsigned seconds)
{
    const ChangeFolder folder(STATE_FOLDER);
    const FolderWatch watch(STATE_FOLDER);
    if (!folder.is_open() || !watch.is_open())
        return report_failure(session, {REFUSED, problem_of_folder(errno)});
    const ChangeRecord record = new_record(restore, seconds);
    OwnedDescriptor under_way = folder.add(record);
    if (!under_way.is_open())
        return report_failure(session, {REFUSED, problem_of_folder(errno)});
    if (!wait_until_watched(folder, watch, record)) {
        folder.keep_change();
        return report_failure(session, {REFUSED, GUARD_MISSING});
    }
    add_what_stays(plan, restore);
    tell_what_is_left_alone(session, plan);
    Answer answer;
    Failure failure;
    if (!send_requests(session, plan, answer, failure))
        return report_failed_change(session, folder, plan, answer, failure);
    const std::uint64_t deadline = milliseconds_since_boot() + std::uint64_t{seconds} * 1000;
    // Where this fails the earlier deadline stands, which is the safe one.
    folder.mark_answered(record, deadline);
    under_way = OwnedDescriptor();
    tell_deadline(session, plan, answer, seconds);
    if (!session.json && isatty(STDERR_FILENO) != 0 && isatty(STDOUT_FILENO) != 0)
        return count_down(session, folder, watch, record, deadline);
    return answer.faults.empty() ? DONE : REFUSED;
}

int run_confirm(const Session& session)
{
    const ChangeFolder folder(STATE_FOLDER);
    if (!folder.is_open())
        return report_failure(session, {REFUSED, problem_of_folder(errno)});
    const std::optional<ChangeRecord> record = folder.read(PENDING);
    if (record && confirm(folder, record->id))
        return report_outcome(session, "confirmed", true);
    if (record && errno != ENOENT)
        return report_failure(session, {REFUSED, problem_of_folder(errno)});
    return report_nothing_pending(session, folder);
}

int run_rollback(const Session& session)
{
    const ChangeFolder folder(STATE_FOLDER);
    const FolderWatch watch(STATE_FOLDER);
    if (!folder.is_open() || !watch.is_open())
        return report_failure(session, {REFUSED, problem_of_folder(errno)});
    const std::optional<ChangeRecord> record = folder.read(PENDING);
    if (!record)
        return report_nothing_pending(session, folder);
    if (!folder.begin_restoring())
        return errno == ENOENT ? report_nothing_pending(session, folder)
                               : report_failure(session, {REFUSED, problem_of_folder(errno)});
    const std::string result = wait_for_outcome(folder, watch, record->id, session.timeout_seconds);
    if (result.empty())
        return report_failure(session, {REFUSED, folder.is_guarded() ? GUARD_AT_WORK : GUARD_AWAY});
    return report_outcome(session, result, result == "taken back");
}

} // namespace quarnctl
