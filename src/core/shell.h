// core/shell.h: the one place that builds and runs shell commands.
#pragma once

#include <string>

// One command text. Every text that is inserted with %s must be a plain argument: not empty, not beginning
// with
// '-', and only of the bytes A-Za-z0-9._:/%@+-. With any other the command is refused: an error is logged,
// and run_shell does not run it. So no value can become a second command, whatever door it came through.
// Conversions: %s, %d, %u, %hhu, %%.
class ShellCommand {
public:
    explicit ShellCommand(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // Appends a fixed text, and a value that stands inside an argument: as it is when it is empty or of the
    // bytes A-Za-z0-9._- only, else quoted as the shell quotes. A refused command stays refused.
    void append(const char* text);
    void append_quoted(const char* value);

    // What would be run; empty when the command is refused.
    const char* text() const { return text_.c_str(); }
    bool refused() const { return text_.empty(); }

private:
    std::string text_;
};

// Runs the command and waits for its end. The raw wait status of `system`; REFUSED_STATUS << 8 for a refused
// one. Logs nothing.
int run_shell(const ShellCommand& command);

// Starts the command without a shell and without waiting for it; nobody watches its end. False when it could
// not be started or is refused.
bool start_in_background(const ShellCommand& command);

// Bits 8 to 15 of a raw wait status. A shell killed by a signal counts as 0.
int exit_status(int raw_status);

inline constexpr int REFUSED_STATUS = 255;
// What the shell answers for a program that it cannot run, or not find.
inline constexpr int CANNOT_RUN_STATUS = 126;
inline constexpr int NOT_FOUND_STATUS = 127;
