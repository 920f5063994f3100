// platform_log.h: the platform's own way into the log.
#pragma once

enum PlatformPriority : int {
    PRIORITY_CRITICAL = 2,
    PRIORITY_ERROR = 3,
    PRIORITY_WARNING = 4,
    PRIORITY_NOTICE = 5,
    PRIORITY_INFO = 6,
    PRIORITY_DEBUG = 7,
};

// Goes to the logging that was opened last; before the first and after the last it does nothing.
void platform_log(PlatformPriority priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
