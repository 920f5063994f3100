// core/log.h: the one way into the camera's log.
#pragma once

// Most texts begin "%s: " or "%s:%d: ": the name of the function that logs and, with the second, its line.
#define HERE __func__, __LINE__

enum LogLevel : int {
    LEVEL_CRITICAL = 0,
    LEVEL_ERROR = 1,
    LEVEL_WARNING = 2,
    LEVEL_NOTICE = 3,
    LEVEL_INFO = 4,
    LEVEL_DEBUG = 5,
};

// Opens the framework's log as "QUARN"; false when it cannot be had. Until then log_message does nothing.
bool start_logging();
void stop_logging();

// Passes one line to the framework's log with priority level + 2.
void log_message(LogLevel level, const char* format, ...) __attribute__((format(printf, 2, 3)));
