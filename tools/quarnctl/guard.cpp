#include "guard.h"

#include "carry_out.h"
#include "report.h"
#include "values.h"

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <optional>

namespace quarnctl {

namespace {

constexpr unsigned APPLY_TIMEOUT = 900;

void log_line(const char* priority, const std::string& text)
{
    std::fprintf(stderr, "%s%s\n", priority, printable(text).c_str());
}

void pause_a_second()
{
    const timespec second = {1, 0};
    nanosleep(&second, nullptr);
}

struct Attempt {
    // False: the daemon does not answer, and must be asked again.
    bool is_answered = false;
    std::vector<Fault> faults;
};

// Key by key, when the daemon refuses all of it: what can go back goes back.
Attempt restore_one_by_one(Session& session, const cJSON* wanted)
{
    Attempt attempt{true, {}};
    for (const cJSON* item = wanted->child; item != nullptr && attempt.is_answered; item = item->next) {
        Answer answer;
        Failure failure;
        const OwnedJson request = new_object();
        put(request.get(), item->string, copy_of(item));
        attempt.is_answered = set_settings(session, request.get(), answer, failure);
        attempt.faults.insert(attempt.faults.end(), answer.faults.begin(), answer.faults.end());
    }
    return attempt;
}

enum class Way { AS_ONE, ONE_BY_ONE };

Attempt restore_once(Session& session, const cJSON* restore, Way way)
{
    Answer current;
    Failure failure;
    if (!get_settings(session, keys_to_read(restore), current, failure)) {
        session.bus.reset();
        return {};
    }
    const Plan plan = make_plan(restore, current.root.get(), Unchanged::LEFT_OUT);
    Attempt attempt{true, plan.left_alone};
    if (plan.requests.empty())
        return attempt;
    if (way == Way::ONE_BY_ONE) {
        Attempt pieces = restore_one_by_one(session, plan.requests.front().get());
        attempt.is_answered = pieces.is_answered;
        attempt.faults.insert(attempt.faults.end(), pieces.faults.begin(), pieces.faults.end());
        return attempt;
    }
    Answer answer;
    const bool is_sent = send_requests(session, plan, answer, failure);
    attempt.is_answered = is_sent || failure.exit_status == DONE;
    attempt.faults.insert(attempt.faults.end(), answer.faults.begin(), answer.faults.end());
    if (!attempt.is_answered)
        session.bus.reset();
    return attempt;
}

// The keys that still differ; nothing when the daemon does not answer.
std::optional<std::vector<std::string>> differences(Session& session, const cJSON* restore)
{
    Answer current;
    Failure failure;
    if (!get_settings(session, keys_to_read(restore), current, failure))
        return std::nullopt;
    const Plan plan = make_plan(restore, current.root.get(), Unchanged::LEFT_OUT);
    std::vector<std::string> keys;
    for (const Change& change : plan.changes)
        keys.push_back(change.key);
    for (const Fault& fault : plan.left_alone)
        keys.push_back(fault.key);
    return keys;
}

// A daemon that starts, restarts or is at work answers later: it is asked until it does. What it refuses may
// be in its way for a moment only, such as a port that is taken.
void restore(const ChangeFolder& folder, const ChangeRecord& record)
{
    constexpr int ATTEMPTS = 10;
    Session session;
    session.timeout_seconds = APPLY_TIMEOUT;
    Attempt attempt;
    std::optional<std::vector<std::string>> left;
    for (int i = 0; i < ATTEMPTS;) {
        const Way way = i + 1 < ATTEMPTS ? Way::AS_ONE : Way::ONE_BY_ONE;
        attempt = restore_once(session, record.restore.get(), way);
        left = attempt.is_answered ? differences(session, record.restore.get()) : std::nullopt;
        if (left && left->empty())
            break;
        i += left ? 1 : 0;
        if (i < ATTEMPTS)
            pause_a_second();
    }
    for (const Fault& fault : attempt.faults)
        log_line(SD_WARNING, fault_text(fault));
    const bool is_whole = left->empty();
    for (const std::string& key : *left)
        log_line(SD_ERR, key + " could not be taken back");
    log_line(SD_NOTICE, is_whole ? "the change is taken back" : "the change is taken back in part");
    folder.write_outcome(record.id, is_whole ? "taken back" : "taken back in part",
                         faults_as_json(attempt.faults));
    if (!folder.end_restoring())
        log_line(SD_ERR, std::string(STATE_FOLDER) + ": " + std::strerror(errno));
}

// A record that is damaged or no record at all must not keep the guard, or later changes, from their work.
void set_aside(const ChangeFolder& folder, const char* name)
{
    log_line(SD_ERR, std::string(name) + " is no record and is set aside: nothing can be taken back");
    if (folder.set_aside(name))
        return;
    log_line(SD_ERR, std::string(name) + ": " + std::strerror(errno));
    pause_a_second();
}

// Milliseconds until the record is due, 0 when it is.
std::uint64_t time_left(const ChangeFolder& folder, const ChangeRecord& record)
{
    constexpr std::uint64_t SECOND = 1000;
    const std::uint64_t now = milliseconds_since_boot();
    const std::uint64_t deadline = folder.deadline_of(record);
    // A time further off than the whole of it is one of another boot's clock.
    if (folder.is_of_earlier_boot(record) || deadline > now + record.milliseconds)
        return 0;
    if (now < deadline)
        return deadline - now;
    // The countdown begins with the daemon's answer, as long as somebody waits for that.
    const bool may_be_under_way = now < record.deadline + std::uint64_t{APPLY_TIMEOUT} * SECOND;
    return may_be_under_way && folder.is_under_way() ? SECOND : 0;
}

void watch_pending(const ChangeFolder& folder, const FolderWatch& watch, const ChangeRecord& record)
{
    if (!folder.is_watched(record) && !folder.mark_watched(record)) {
        log_line(SD_ERR, std::string(STATE_FOLDER) + ": " + std::strerror(errno));
        // The attempt itself has changed the folder, and would be followed by the next one at once.
        pause_a_second();
    }
    const std::uint64_t left = time_left(folder, record);
    if (left > 0) {
        watch.wait(static_cast<int>(std::min<std::uint64_t>(left, INT_MAX)));
        return;
    }
    log_line(SD_NOTICE, !folder.is_of_earlier_boot(record)
                            ? "no confirm came: taking the change back"
                            : "the machine went down before a confirm: taking the change "
                              "back");
    if (!folder.begin_restoring() && errno != ENOENT) {
        log_line(SD_ERR, std::string(STATE_FOLDER) + ": " + std::strerror(errno));
        pause_a_second();
    }
}

// False when there is nothing to do.
bool serve_once(const ChangeFolder& folder, const FolderWatch& watch)
{
    for (const char* name : {RESTORING, PENDING}) {
        const std::optional<ChangeRecord> record = folder.read(name);
        if (!record && errno == ENOENT)
            continue;
        if (!record)
            set_aside(folder, name);
        else if (name == RESTORING)
            restore(folder, *record);
        else
            watch_pending(folder, watch, *record);
        return true;
    }
    return false;
}

} // namespace

int run_guard(const std::string& state_folder, Stay stay)
{
    const ChangeFolder folder(state_folder);
    const FolderWatch watch(state_folder);
    if (!folder.is_open() || !watch.is_open()) {
        log_line(SD_ERR, state_folder + ": " + std::strerror(errno));
        return REFUSED;
    }
    if (!folder.lock_for_guard()) {
        log_line(SD_NOTICE, "another guard watches " + state_folder);
        return DONE;
    }
    for (;;) {
        if (serve_once(folder, watch))
            continue;
        if (stay == Stay::WHILE_NEEDED)
            return DONE;
        watch.wait(-1);
    }
}

} // namespace quarnctl
