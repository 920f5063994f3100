#include "core/console.h"

#include "core/log.h"
#include "core/owned.h"

#include <cstdarg>
#include <cstdio>

void print_console(const char* function, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const OwnedText text(g_strdup_vprintf(format, arguments));
    va_end(arguments);
    std::fprintf(stderr, "QUARN: %s\n", text.get());
    log_message(LEVEL_NOTICE, "%s: Console Output: %s", function, text.get());
}
