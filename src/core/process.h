// core/process.h: the daemon as a Unix process.
#pragma once

// Sets the fixed search path, the bounds of name look-ups and the umask, and drops every environment variable
// that the daemon does not need, so that no caller's environment reaches the tools that it runs.
void prepare_process();

// Forks into the background: true in the child, which leads a session of its own, stands in the root
// directory with umask 0 and reads from /dev/null; false in the parent and when the fork fails. A daemon
// under a supervisor stays in the foreground and never calls it.
bool daemonize();
