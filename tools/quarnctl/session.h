// session.h: a connection to a camera's daemon, and what went wrong with it.
#pragma once

#include "daemon_bus.h"
#include "plan.h"

#include <string>
#include <vector>

namespace quarnctl {

// How quarnctl ends.
inline constexpr int DONE = 0;
inline constexpr int REFUSED = 1;
inline constexpr int USAGE = 2;
inline constexpr int NO_DAEMON = 3;

struct Session {
    // "user@host": a camera reached over SSH; empty: this one.
    std::string host;
    // An apply run may probe hundreds of addresses, two seconds each.
    unsigned timeout_seconds = 900;
    bool json = false;
    bool no_wait = false;
    OwnedBus bus;
};

// Why there is no answer: what to tell the person, and how to end.
struct Failure {
    int exit_status = DONE;
    std::string message;
};

// An answer of the daemon taken apart.
struct Answer {
    bool success = false;
    std::vector<Fault> faults;
    // The whole object; of a get it holds the values by key.
    OwnedJson root;
};

// Connects the session unless it is connected. False with a failure.
bool connect(Session& session, Failure& failure);
// What an error of the bus means; `error` may be unset.
Failure failure_of(const Session& session, const sd_bus_error& error, int error_number);

// One call each, with the session's time-out; a line on the terminal tells of a wait of more than a second.
// False with a failure when there was no answer.
bool get_settings(Session& session, const std::vector<std::string>& keys, Answer& answer, Failure& failure);
bool set_settings(Session& session, const cJSON* settings, Answer& answer, Failure& failure);
// Sends and does not wait for the answer; false when it could not be sent.
bool send_settings(Session& session, const cJSON* settings, Failure& failure);

} // namespace quarnctl
