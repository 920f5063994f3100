// carry_out.h: the way from a plan to its result, the same for every command that changes something.
#pragma once

#include "changing.h"

namespace quarnctl {

// Reads what is there, plans, sends and reports. Returns the exit status.
int carry_out(Session& session, const cJSON* wanted, Unchanged unchanged, const ChangeOptions& options);

// For people, before anything is changed; for programs it is in the result.
void tell_what_is_left_alone(const Session& session, const Plan& plan);

// Sends a plan's requests one after the other until one is refused or unanswered. False then, with the
// failure or the answer that says why; faults of requests that were saved all the same are collected there.
bool send_requests(Session& session, const Plan& plan, Answer& answer, Failure& failure);

} // namespace quarnctl
