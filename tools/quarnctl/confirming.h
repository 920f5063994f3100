// confirming.h: changes that are taken back unless they are confirmed in time.
#pragma once

#include "session.h"

namespace quarnctl {

// Has the change watched by the guard, then sends it, and shows the countdown on a terminal. Returns the exit
// status: a change that is not watched is not sent.
int change_until_confirmed(Session& session, Plan plan, const cJSON* restore, unsigned seconds);

int run_confirm(const Session& session);
// Has the guard restore what was, and waits for it.
int run_rollback(const Session& session);

} // namespace quarnctl
