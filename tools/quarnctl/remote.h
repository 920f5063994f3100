// remote.h: commands whose record lies on the camera itself are run there.
#pragma once

#include "session.h"

#include <string>
#include <vector>

namespace quarnctl {

// The words as one command line of a shell, each of them one word there whatever it holds.
std::string quoted_for_shell(const std::vector<std::string>& words);

// Runs quarnctl with these arguments on the session's host over SSH, with a terminal where there is one here.
// `input_file`, where it is not empty, becomes its standard input. Returns its exit status, which is
// NO_DAEMON when it could not be run there.
int run_on_camera(const Session& session, const std::vector<std::string>& arguments,
                  const std::string& input_file);

} // namespace quarnctl
