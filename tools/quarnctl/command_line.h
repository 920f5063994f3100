// command_line.h: the words of the command line, and what each command does with them.
#pragma once

namespace quarnctl {

// Returns the exit status.
int run_command_line(int argc, char** argv);

} // namespace quarnctl
