#include "session.h"

#include "report.h"
#include "values.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <set>
#include <string_view>

namespace quarnctl {

namespace {

using Clock = std::chrono::steady_clock;
using OwnedSlot = std::unique_ptr<sd_bus_slot, Releaser<sd_bus_slot_unref>>;

constexpr std::uint64_t MICROSECONDS = 1'000'000;
constexpr char NOT_FOR_THE_BUS[] = "a text holds letters that cannot be sent over the bus";
constexpr char NO_PERMISSION[] = "not permitted: become root, or a member of the group 'quarn'";

// An error of a call, freed with it.
struct BusError {
    sd_bus_error error = {};

    BusError() = default;
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;
    ~BusError() { sd_bus_error_free(&error); }
};

std::string camera_name(const Session& session)
{
    return session.host.empty() ? "this machine" : session.host;
}

// A line that comes and goes, for a person who waits.
class Progress {
public:
    explicit Progress(const char* what)
        : what_(what), is_shown_(isatty(STDERR_FILENO) != 0), start_(Clock::now())
    {}
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress()
    {
        if (is_written_)
            clear_progress();
    }

    void show()
    {
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start_).count();
        if (!is_shown_ || seconds < 1)
            return;
        show_progress(std::string(what_) + " ... " + std::to_string(seconds) + " s");
        is_written_ = true;
    }

private:
    const char* what_;
    bool is_shown_;
    bool is_written_ = false;
    Clock::time_point start_;
};

int take_reply(sd_bus_message* message, void* reply, sd_bus_error*)
{
    static_cast<OwnedMessage*>(reply)->reset(sd_bus_message_ref(message));
    return 0;
}

// Turns the connection until the reply is there; a time-out comes as a reply too.
int wait_for(sd_bus* bus, const OwnedMessage& reply, Progress& progress)
{
    while (!reply) {
        int result = sd_bus_process(bus, nullptr);
        if (result == 0) {
            progress.show();
            result = sd_bus_wait(bus, MICROSECONDS);
        }
        if (result < 0 && result != -EINTR)
            return result;
    }
    return 0;
}

OwnedMessage new_call(sd_bus* bus, const char* method, const std::string& text)
{
    sd_bus_message* message = nullptr;
    if (sd_bus_message_new_method_call(bus, &message, DAEMON, DAEMON_PATH, DAEMON, method) < 0)
        return nullptr;
    OwnedMessage call(message);
    return sd_bus_message_append(message, "s", text.c_str()) < 0 ? nullptr : std::move(call);
}

bool call(Session& session, const char* method, const std::string& text, std::string& answer,
          Failure& failure)
{
    if (!connect(session, failure))
        return false;
    const OwnedMessage message = new_call(session.bus.get(), method, text);
    if (!message) {
        failure = {REFUSED, NOT_FOR_THE_BUS};
        return false;
    }
    OwnedMessage reply;
    sd_bus_slot* slot = nullptr;
    int result = sd_bus_call_async(session.bus.get(), &slot, message.get(), take_reply, &reply,
                                   session.timeout_seconds * MICROSECONDS);
    const OwnedSlot owned_slot(slot);
    if (result >= 0) {
        Progress progress(std::strcmp(method, "api_set") == 0 ? "applying" : "waiting for the daemon");
        result = wait_for(session.bus.get(), reply, progress);
    }
    if (result < 0) {
        failure = failure_of(session, {}, -result);
        return false;
    }
    if (const sd_bus_error* error = sd_bus_message_get_error(reply.get()); error != nullptr) {
        failure = failure_of(session, *error, sd_bus_message_get_errno(reply.get()));
        return false;
    }
    const char* content = nullptr;
    if (sd_bus_message_read(reply.get(), "s", &content) < 0) {
        failure = {REFUSED, "the daemon's answer is no text"};
        return false;
    }
    answer = content;
    return true;
}

bool parse_answer(const std::string& text, Answer& answer, Failure& failure)
{
    answer = {};
    answer.root = parse_json(text);
    if (!cJSON_IsObject(answer.root.get())) {
        failure = {REFUSED, "the daemon's answer is no JSON object"};
        return false;
    }
    answer.success = cJSON_IsTrue(member(answer.root.get(), "success"));
    const cJSON* errors = member(answer.root.get(), "errors");
    for (const cJSON* entry = errors != nullptr ? errors->child : nullptr; entry != nullptr;
         entry = entry->next) {
        const cJSON* code = member(entry, "code");
        answer.faults.push_back({text_member(entry, "key"), cJSON_IsNumber(code) ? code->valueint : 0,
                                 text_member(entry, "msg")});
    }
    return true;
}

} // namespace

bool connect(Session& session, Failure& failure)
{
    if (session.bus)
        return true;
    sd_bus* bus = nullptr;
    const int result = session.host.empty() ? sd_bus_open_system(&bus)
                                            : sd_bus_open_system_remote(&bus, session.host.c_str());
    session.bus.reset(bus);
    if (result >= 0)
        return true;
    failure = {NO_DAEMON, "no system bus on " + camera_name(session) + ": " + std::strerror(-result)};
    return false;
}

Failure failure_of(const Session& session, const sd_bus_error& error, int error_number)
{
    constexpr const char* ABSENT[] = {SD_BUS_ERROR_SERVICE_UNKNOWN, SD_BUS_ERROR_NAME_HAS_NO_OWNER};
    constexpr const char* SILENT[] = {SD_BUS_ERROR_NO_REPLY, SD_BUS_ERROR_TIMEOUT};
    for (const char* name : ABSENT) {
        if (sd_bus_error_has_name(&error, name))
            return {NO_DAEMON, "the daemon does not run on " + camera_name(session) +
                                   "; start it with: systemctl start quarn"};
    }
    if (sd_bus_error_has_name(&error, SD_BUS_ERROR_ACCESS_DENIED) || error_number == EACCES ||
        error_number == EPERM)
        return {REFUSED, NO_PERMISSION};
    // What was under way when the connection broke is answered with an error of the same name.
    const bool is_lost = (session.bus && sd_bus_is_open(session.bus.get()) <= 0) ||
                         (error.name == nullptr && error_number != ETIMEDOUT);
    if (is_lost && !session.host.empty())
        return {NO_DAEMON, "no bus on " + session.host + " over SSH: the connection is lost"};
    for (const char* name : SILENT) {
        if (!is_lost && sd_bus_error_has_name(&error, name))
            return {NO_DAEMON, "no answer: the daemon has ended, or needs longer than " +
                                   std::to_string(session.timeout_seconds) + " s (--timeout)"};
    }
    if (error_number == ETIMEDOUT)
        return {NO_DAEMON, "no answer within " + std::to_string(session.timeout_seconds) + " s (--timeout)"};
    if (error.message != nullptr)
        return {NO_DAEMON, printable(error.message)};
    return {NO_DAEMON, std::string("the connection to the bus is lost: ") + std::strerror(error_number)};
}

bool get_settings(Session& session, const std::vector<std::string>& keys, Answer& answer, Failure& failure)
{
    OwnedJson request = new_object();
    cJSON* list = cJSON_AddArrayToObject(request.get(), "settings");
    // The daemon refuses to read a key twice.
    std::set<std::string_view> asked;
    for (const std::string& key : keys) {
        if (asked.insert(key).second)
            cJSON_AddItemToArray(list, cJSON_CreateString(key.c_str()));
    }
    std::string text;
    return call(session, "api_get", json_text(request.get()), text, failure) &&
           parse_answer(text, answer, failure);
}

bool set_settings(Session& session, const cJSON* settings, Answer& answer, Failure& failure)
{
    std::string text;
    return call(session, "api_set", json_text(settings), text, failure) &&
           parse_answer(text, answer, failure);
}

bool send_settings(Session& session, const cJSON* settings, Failure& failure)
{
    if (!connect(session, failure))
        return false;
    const OwnedMessage message = new_call(session.bus.get(), "api_set", json_text(settings));
    if (!message) {
        failure = {REFUSED, NOT_FOR_THE_BUS};
        return false;
    }
    // What nobody waits for would otherwise be lost in silence.
    BusError error;
    int result =
        sd_bus_call_method(session.bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus", "GetNameOwner", &error.error, nullptr, "s", DAEMON);
    if (result >= 0) {
        result = sd_bus_message_set_expect_reply(message.get(), 0);
        if (result >= 0)
            result = sd_bus_send(session.bus.get(), message.get(), nullptr);
        if (result >= 0)
            result = sd_bus_flush(session.bus.get());
    }
    if (result < 0)
        failure = failure_of(session, error.error, -result);
    return result >= 0;
}

} // namespace quarnctl
