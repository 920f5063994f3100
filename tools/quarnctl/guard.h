// guard.h: the service that takes unconfirmed changes back. It lives on the camera, so that neither the
// connection nor the program that made a change needs to.
#pragma once

#include "change_record.h"
#include "session.h"

namespace quarnctl {

// Serves until there is no record any more, or for good. Returns the exit status.
enum class Stay { WHILE_NEEDED, FOR_GOOD };
int run_guard(const std::string& state_folder, Stay stay);

} // namespace quarnctl
