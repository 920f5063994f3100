#include "platform_log.h"
#include "trell_core.h"

// The fields of a message's source come from its text, not from this file.
#define SD_JOURNAL_SUPPRESS_LOCATION

#include <sys/uio.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

struct TrellLogging {
    std::string identifier;
    int last_priority;
    bool journal;
};

namespace {

constexpr char JOURNAL_SOCKET[] = "/run/systemd/journal/socket";

TrellLogging* last_opened = nullptr;

constexpr std::array<std::string_view, 6> LEVEL_NAMES = {"critical", "error", "warning",
                                                         "notice",   "info",  "debug"};

int last_priority_passed_on()
{
    const char* const level = std::getenv("QUARN_LOG_LEVEL");
    const auto* const name = std::ranges::find(LEVEL_NAMES, level != nullptr ? level : "info");
    return name == LEVEL_NAMES.end() ? PRIORITY_INFO
                                     : PRIORITY_CRITICAL + static_cast<int>(name - LEVEL_NAMES.begin());
}

bool is_digit(char byte)
{
    return byte >= '0' && byte <= '9';
}

bool is_name_byte(char byte)
{
    return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || is_digit(byte);
}

std::string_view leading(std::string_view text, bool (*belongs)(char))
{
    return text.substr(0, static_cast<std::size_t>(std::ranges::find_if_not(text, belongs) - text.begin()));
}

struct Origin {
    std::string_view function;
    std::string_view line;
};

// "function: text" or "function:123: text"; empty where the message begins otherwise.
Origin origin_of(std::string_view message)
{
    const std::string_view function =
        leading(message, [](char byte) { return is_name_byte(byte) || byte == '_'; });
    const std::string_view rest = message.substr(function.size());
    if (function.empty() || !rest.starts_with(':'))
        return {};
    const std::string_view line = leading(rest.substr(1), is_digit);
    if (!rest.substr(1 + line.size()).starts_with(line.empty() ? " " : ": "))
        return {};
    return {function, line};
}

// The first "[Group/Sub]Name" in the message, or nothing.
std::string_view setting_in(std::string_view message)
{
    const auto belongs = [](char byte) { return is_name_byte(byte) || byte == '/'; };
    for (std::size_t start = message.find('['); start != std::string_view::npos;
         start = message.find('[', start + 1)) {
        const std::string_view group = leading(message.substr(start + 1), belongs);
        const std::string_view rest = message.substr(start + 1 + group.size());
        if (group.empty() || !rest.starts_with(']'))
            continue;
        const std::string_view name = leading(rest.substr(1), belongs);
        if (!name.empty())
            return message.substr(start, 2 + group.size() + name.size());
    }
    return {};
}

bool send_to_journal(const std::string& identifier, int priority, std::string_view message)
{
    const Origin origin = origin_of(message);
    const std::string_view setting = setting_in(message);
    std::array<std::string, 6> fields = {"PRIORITY=" + std::to_string(priority),
                                         "SYSLOG_IDENTIFIER=" + identifier,
                                         "MESSAGE=" + std::string(message)};
    std::size_t count = 3;
    const auto add = [&](const char* name, std::string_view value) {
        if (!value.empty())
            fields[count++] = name + std::string(value);
    };
    add("CODE_FUNC=", origin.function);
    add("CODE_LINE=", origin.line);
    add("QUARN_SETTING=", setting);
    std::array<iovec, fields.size()> parts;
    for (std::size_t i = 0; i < count; i++)
        parts[i] = {fields[i].data(), fields[i].size()};
    return sd_journal_sendv(parts.data(), static_cast<int>(count)) >= 0;
}

// The C0 bytes, and the second byte of a C1 character: a terminal takes either for a command.
bool is_control(unsigned char previous, unsigned char byte)
{
    return byte < 0x20 || byte == 0x7f || (previous == 0xc2 && byte >= 0x80 && byte < 0xa0);
}

// One message is one line and one write: no client's text can forge a second line.
void write_to_standard_error(int priority, std::string_view message)
{
    static constexpr char HEXADECIMAL[] = "0123456789abcdef";
    std::string line = "<" + std::to_string(priority) + ">";
    line.reserve(line.size() + message.size() + 1);
    unsigned char previous = 0;
    for (const char character : message) {
        const auto byte = static_cast<unsigned char>(character);
        if (!is_control(previous, byte)) {
            line += character;
        } else {
            line += "\\x";
            line += HEXADECIMAL[byte >> 4];
            line += HEXADECIMAL[byte & 0xf];
        }
        previous = byte;
    }
    line += '\n';
    while (write(STDERR_FILENO, line.data(), line.size()) < 0 && errno == EINTR) {
    }
}

void pass_on(const TrellLogging& logging, int priority, std::string_view message)
{
    if (!logging.journal || !send_to_journal(logging.identifier, priority, message))
        write_to_standard_error(priority, message);
}

} // namespace

int trell_core_logging_init(const char* identifier, TrellLogging** logging)
{
    // sd-journal reports success where no journal listens, so its socket is looked for.
    last_opened = new TrellLogging{identifier, last_priority_passed_on(), access(JOURNAL_SOCKET, F_OK) == 0};
    *logging = last_opened;
    return 0;
}

void trell_core_logging_logv(TrellLogging* logging, int priority, const char* format, va_list arguments)
{
    if (priority > logging->last_priority)
        return;
    char text[512];
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(text, sizeof text, format, arguments);
    if (length >= 0 && static_cast<std::size_t>(length) < sizeof text) {
        pass_on(*logging, priority, {text, static_cast<std::size_t>(length)});
    } else if (length >= 0) {
        std::string longer(static_cast<std::size_t>(length), '\0');
        vsnprintf(longer.data(), longer.size() + 1, format, again);
        pass_on(*logging, priority, longer);
    }
    va_end(again);
}

void trell_core_logging_deinit(TrellLogging* logging)
{
    if (last_opened == logging)
        last_opened = nullptr;
    delete logging;
}

void platform_log(PlatformPriority priority, const char* format, ...)
{
    if (last_opened == nullptr)
        return;
    va_list arguments;
    va_start(arguments, format);
    trell_core_logging_logv(last_opened, priority, format, arguments);
    va_end(arguments);
}
