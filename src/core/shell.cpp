#include "core/shell.h"

#include "core/log.h"
#include "core/owned.h"

#include <cstdarg>
#include <cstdlib>
#include <cstring>

namespace {

constexpr char PLAIN_ARGUMENT_BYTES[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._:/%@+-";

bool is_plain_argument(const char* value)
{
    return value != nullptr && *value != '\0' && *value != '-' &&
           value[std::strspn(value, PLAIN_ARGUMENT_BYTES)] == '\0';
}

// The first inserted text that is no plain argument, or null when all are. Walks the arguments as printf
// does.
const char* find_unsafe_text(const char* format, va_list arguments)
{
    for (const char* at = std::strchr(format, '%'); at != nullptr; at = std::strchr(at + 1, '%')) {
        at += std::strspn(at + 1, "h") + 1;
        if (*at == '%')
            continue;
        if (*at != 's') {
            (void)va_arg(arguments, int);
            continue;
        }
        const char* value = va_arg(arguments, const char*);
        if (!is_plain_argument(value))
            return value != nullptr ? value : "(null)";
    }
    return nullptr;
}

} // namespace

ShellCommand::ShellCommand(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    va_list copy;
    va_copy(copy, arguments);
    const char* unsafe = find_unsafe_text(format, copy);
    va_end(copy);
    if (unsafe == nullptr)
        text_ = OwnedText(g_strdup_vprintf(format, arguments)).get();
    else
        log_message(LEVEL_ERROR, "%s: Refused to run '%s' with the value '%s'", __func__, format, unsafe);
    va_end(arguments);
}

int run_shell(const ShellCommand& command)
{
    if (command.refused())
        return REFUSED_STATUS << 8;
    // The shell's status is the result; the commands' own output goes where the daemon's goes.
    return std::system(command.text());
}

int exit_status(int raw_status)
{
    return (raw_status >> 8) & 0xFF;
}
