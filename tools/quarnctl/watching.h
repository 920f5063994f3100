// watching.h: the commands that go on until they are ended: monitor and watch.
#pragma once

#include "session.h"

#include <string>
#include <vector>

namespace quarnctl {

// The daemon's signals, and its coming and going, each with the time.
int run_monitor(Session& session);
// The values at first and whenever they change. They are read anew at every signal, and every so many
// milliseconds.
int run_watch(Session& session, const std::vector<std::string>& keys, unsigned interval);

} // namespace quarnctl
