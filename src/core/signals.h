// core/signals.h: the four signals that the daemon answers. Their handler only notes the number in a pipe;
// what follows is done by the main loop, so nothing can deadlock in a handler.
#pragma once

#include <glib.h>

// SIGINT, SIGTERM, SIGABRT, SIGUSR1. False when the pipe or a handler cannot be had.
bool install_signal_handlers();

// Serves the noted signals from the loop's context: each prints its line on standard output; SIGUSR1 then
// writes the settings dump, every other one quits the loop. Signals that came before are served as soon as
// the loop runs.
void serve_signals(GMainLoop* loop);

// True once a signal has come that ends the daemon: work that could take long gives up.
bool termination_requested();

// Writes every row that can be read, in table order, to /tmp/.quarn/current_settings.txt.
void dump_settings();
