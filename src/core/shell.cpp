#include "core/shell.h"

#include "core/log.h"
#include "core/owned.h"

#include <csignal>
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
    const OwnedText text(unsafe == nullptr ? g_strdup_vprintf(format, arguments) : nullptr);
    if (text)
        text_ = text.get();
    else if (unsafe != nullptr)
        log_message(LEVEL_ERROR, "%s: Refused to run '%s' with the value '%s'", __func__, format, unsafe);
    va_end(arguments);
}

void ShellCommand::append(const char* text)
{
    if (!refused())
        text_ += text;
}

void ShellCommand::append_quoted(const char* value)
{
    constexpr char UNQUOTED_BYTES[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
    if (value[std::strspn(value, UNQUOTED_BYTES)] == '\0')
        append(value);
    else
        append(OwnedText(g_shell_quote(value)).get());
}

bool start_in_background(const ShellCommand& command)
{
    return !command.refused() && g_spawn_command_line_async(command.text(), nullptr);
}

int run_shell(const ShellCommand& command)
{
    if (command.refused())
        return REFUSED_STATUS << 8;
    // While a command runs, `system` ignores SIGINT; blocked, it waits instead, and then ends the daemon as
    // any other does. The commands inherit that: what is typed at a terminal must not end a probe as if
    // nobody had answered.
    sigset_t interrupt;
    sigset_t before;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    sigprocmask(SIG_BLOCK, &interrupt, &before);
    const int raw_status = std::system(command.text());
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return raw_status;
}

int exit_status(int raw_status)
{
    return (raw_status >> 8) & 0xFF;
}
