#include "core/log.h"

#include "trell_core.h"

#include <cstdarg>

namespace {

TrellLogging* logging = nullptr;

constexpr int PRIORITY_OF_LEVEL_CRITICAL = 2;

} // namespace

bool start_logging()
{
    return trell_core_logging_init("QUARN", &logging) == 0;
}

void stop_logging()
{
    if (logging != nullptr)
        trell_core_logging_deinit(logging);
    logging = nullptr;
}

void log_message(LogLevel level, const char* format, ...)
{
    if (logging == nullptr)
        return;
    va_list arguments;
    va_start(arguments, format);
    trell_core_logging_logv(logging, level + PRIORITY_OF_LEVEL_CRITICAL, format, arguments);
    va_end(arguments);
}
