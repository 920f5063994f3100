#include "watching.h"

#include "report.h"
#include "values.h"

#include <sys/time.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>

namespace quarnctl {

namespace {

constexpr char OWNER_RULE[] = "type='signal',sender='org.freedesktop.DBus',"
                              "interface='org.freedesktop.DBus',member='NameOwnerChanged',"
                              "arg0='com.vesko.networkingV2'";

// "2026-11-21T14:05:01.123+00:00"
std::string time_stamp()
{
    timeval now{};
    gettimeofday(&now, nullptr);
    std::tm local{};
    localtime_r(&now.tv_sec, &local);
    std::array<char, 32> day{};
    std::array<char, 16> zone{};
    std::array<char, 80> text{};
    std::strftime(day.data(), day.size(), "%Y-%m-%dT%H:%M:%S", &local);
    std::strftime(zone.data(), zone.size(), "%z", &local);
    const std::string offset(zone.data());
    std::snprintf(text.data(), text.size(), "%s.%03ld%s:%s", day.data(),
                  static_cast<long>(now.tv_usec / 1000), offset.substr(0, 3).c_str(),
                  offset.substr(3).c_str());
    return text.data();
}

// A line an event, there at once even in a pipe.
void print_event(const Session& session, const char* kind, const std::string& name, const cJSON* value)
{
    if (session.json) {
        const OwnedJson event = new_object();
        put_text(event.get(), "time", time_stamp());
        put_text(event.get(), kind, name);
        put(event.get(), "value", copy_of(value));
        print_json(event.get());
    } else {
        print_line(time_stamp() + " " + name + (is_nothing(value) ? "" : " " + plain_text(value)));
    }
    std::fflush(stdout);
}

OwnedJson argument_of(sd_bus_message* message)
{
    const char* text = nullptr;
    std::int32_t number = 0;
    if (sd_bus_message_has_signature(message, "s") != 0 && sd_bus_message_read(message, "s", &text) > 0)
        return OwnedJson(cJSON_CreateString(text));
    if (sd_bus_message_has_signature(message, "i") != 0 && sd_bus_message_read(message, "i", &number) > 0)
        return OwnedJson(cJSON_CreateNumber(number));
    return OwnedJson(cJSON_CreateNull());
}

int print_signal(sd_bus_message* message, void* session, sd_bus_error*)
{
    print_event(*static_cast<Session*>(session), "signal", sd_bus_message_get_member(message),
                argument_of(message).get());
    return 0;
}

int print_owner(sd_bus_message* message, void* session, sd_bus_error*)
{
    const char* name = nullptr;
    const char* before = nullptr;
    const char* after = nullptr;
    if (sd_bus_message_read(message, "sss", &name, &before, &after) >= 0)
        print_event(*static_cast<Session*>(session), "signal",
                    *after != '\0' ? "the daemon has started" : "the daemon has ended", nullptr);
    return 0;
}

// What a signal tells is read from the daemon anyway.
int wake_up(sd_bus_message*, void*, sd_bus_error*)
{
    return 0;
}

int listen_for_ever(Session& session)
{
    // What cannot be written is told at the end of the program.
    while (std::ferror(stdout) == 0) {
        int result = sd_bus_process(session.bus.get(), nullptr);
        if (result == 0)
            result = sd_bus_wait(session.bus.get(), UINT64_MAX);
        if (result < 0 && result != -EINTR)
            return report_failure(session, failure_of(session, {}, -result));
    }
    return REFUSED;
}

// Turns the connection for a while, or until a signal came. False when the connection is lost.
bool wait_for_signal(Session& session, unsigned milliseconds)
{
    constexpr std::uint64_t MICROSECONDS = 1000;
    int result = sd_bus_wait(session.bus.get(), milliseconds * MICROSECONDS);
    while (result >= 0 || result == -EINTR) {
        result = sd_bus_process(session.bus.get(), nullptr);
        if (result == 0)
            return true;
    }
    return false;
}

void print_changed(const Session& session, const std::vector<std::string>& keys, const cJSON* values,
                   cJSON* last)
{
    for (const std::string& key : keys) {
        const cJSON* value = member(values, key);
        const cJSON* before = member(last, key);
        if (before != nullptr && are_same(before, value))
            continue;
        print_event(session, "key", key, is_nothing(value) && !session.json ? nullptr : value);
        put(last, key, copy_of(value));
    }
}

} // namespace

int run_monitor(Session& session)
{
    Failure failure;
    Answer answer;
    // Whoever may not call may not listen either, and would wait in silence: a call tells.
    if (!get_settings(session, {"[IPv4]Enabled"}, answer, failure))
        return report_failure(session, failure);
    int result = sd_bus_match_signal(session.bus.get(), nullptr, DAEMON, DAEMON_PATH, DAEMON, nullptr,
                                     print_signal, &session);
    if (result >= 0)
        result = sd_bus_add_match(session.bus.get(), nullptr, OWNER_RULE, print_owner, &session);
    if (result < 0)
        return report_failure(session, failure_of(session, {}, -result));
    return listen_for_ever(session);
}

int run_watch(Session& session, const std::vector<std::string>& keys, unsigned interval)
{
    Failure failure;
    Answer answer;
    if (const std::vector<Fault> faults = unknown_keys(keys); !faults.empty())
        return report_faults(session, faults);
    if (!get_settings(session, keys, answer, failure))
        return report_failure(session, failure);
    const int result = sd_bus_match_signal(session.bus.get(), nullptr, DAEMON, DAEMON_PATH, DAEMON, nullptr,
                                           wake_up, nullptr);
    if (result < 0)
        return report_failure(session, failure_of(session, {}, -result));
    const OwnedJson last = new_object();
    while (std::ferror(stdout) == 0) {
        print_changed(session, keys, answer.root.get(), last.get());
        if (!wait_for_signal(session, interval))
            return report_failure(session, {NO_DAEMON, "the connection to the bus is lost"});
        // A daemon that restarts is waited for; what it last said stands meanwhile.
        Answer next;
        if (get_settings(session, keys, next, failure))
            answer = std::move(next);
        else if (!session.bus || sd_bus_is_open(session.bus.get()) <= 0)
            return report_failure(session, failure);
    }
    return REFUSED;
}

} // namespace quarnctl
