// reading.h: the commands that look at settings: get, list, describe, diff, export.
#pragma once

#include "session.h"

#include <string>
#include <vector>

namespace quarnctl {

// Each returns the exit status.
int run_get(Session& session, const std::vector<std::string>& keys);
// All settings, or those whose key matches a shell pattern or holds it as a part.
int run_list(Session& session, const std::string& pattern);
int run_describe(Session& session, const std::vector<std::string>& keys);
// The stored settings that differ from their defaults.
int run_diff(Session& session);
// The whole stored configuration, as apply takes it.
int run_export(Session& session);

} // namespace quarnctl
