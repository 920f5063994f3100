// bench-system-sequence: what an apply run costs without the daemon.
//
// usage: bench-system-sequence FILE
//
// Runs the commands of the file and prints their exit statuses.
#include "commands.h"

int main(int argc, char** argv)
{
    const char* const statuses = argc == 2 ? run_commands(argv[1]) : nullptr;
    return statuses != nullptr && std::puts(statuses) >= 0 ? 0 : 1;
}
