// net/client_processes.h: DHCP client processes, found by what they are and not only by their pid files: a
// client may not have written its file yet, an ending one may have taken its successor's with it, and a stale
// file may name a stranger.
#pragma once

#include <sys/types.h>

#include <vector>

struct ClientProgram {
    // Base name of the program.
    const char* name;
    // Arguments that every client of ours has: its interface and its pid file.
    const char* interface;
    const char* pid_file;
};

// The running processes of this program that are ours.
std::vector<pid_t> find_client_processes(const ClientProgram& program);

// Removes a pid file that names no client of ours, so that nobody else is killed by it.
void remove_stale_pid_file(const ClientProgram& program);

// Ends what still runs: SIGTERM, and SIGKILL after a second. Returns when all are gone.
void end_client_processes(const ClientProgram& program);
