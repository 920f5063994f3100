#include "net/client_processes.h"

#include "core/owned.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstring>
#include <string>
#include <string_view>

namespace {

constexpr gint64 PATIENCE = G_USEC_PER_SEC;
constexpr std::size_t LONGEST_COMMAND_LINE = 4096;

// A client that goes into the background has a new process, which one look at all processes can miss.
constexpr int ROUNDS = 5;

using OwnedDirectory = std::unique_ptr<DIR, Releaser<closedir>>;

// Up to `limit` bytes; empty when the file cannot be read.
std::string read_file(const char* path, std::size_t limit)
{
    const OwnedDescriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    std::string content(limit, '\0');
    const ssize_t count = file.is_open() ? read(file.get(), content.data(), limit) : -1;
    content.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return content;
}

std::vector<std::string_view> split_arguments(std::string_view command_line)
{
    std::vector<std::string_view> arguments;
    while (!command_line.empty()) {
        const std::size_t end = std::min(command_line.find('\0'), command_line.size());
        arguments.push_back(command_line.substr(0, end));
        command_line.remove_prefix(std::min(end + 1, command_line.size()));
    }
    return arguments;
}

bool is_named(std::string_view path, std::string_view name)
{
    return path.substr(path.rfind('/') + 1) == name;
}

// Whether the process lives in another network namespace, where eth0 is another interface.
bool has_other_network(pid_t pid)
{
    const OwnedText path(g_strdup_printf("/proc/%d/ns/net", pid));
    struct stat network = {};
    struct stat own_network = {};
    return stat(path.get(), &network) != 0 || stat("/proc/self/ns/net", &own_network) != 0 ||
           network.st_ino != own_network.st_ino;
}

// The program stands first, or second where it is a script. A process of another user is none of ours.
bool is_client_process(const ClientProgram& program, pid_t pid)
{
    const OwnedText directory(g_strdup_printf("/proc/%d", pid));
    struct stat status = {};
    if (stat(directory.get(), &status) != 0 || status.st_uid != geteuid())
        return false;
    const OwnedText path(g_strdup_printf("/proc/%d/cmdline", pid));
    const std::string command_line = read_file(path.get(), LONGEST_COMMAND_LINE);
    const std::vector<std::string_view> arguments = split_arguments(command_line);
    const bool is_program = (!arguments.empty() && is_named(arguments[0], program.name)) ||
                            (arguments.size() > 1 && is_named(arguments[1], program.name));
    return is_program && std::ranges::find(arguments, program.interface) != arguments.end() &&
           std::ranges::find(arguments, program.pid_file) != arguments.end() && !has_other_network(pid);
}

// 0 for what is no number from the first byte to the last.
pid_t parse_pid(std::string_view text)
{
    pid_t pid = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), pid);
    return error == std::errc() && end == text.data() + text.size() && pid > 0 ? pid : 0;
}

// The one process that a pid file names; 0 when it holds anything but its number and a line end. All that it
// holds becomes arguments of the kill command.
pid_t read_pid_file(const char* path)
{
    constexpr std::size_t LONGEST_PID_FILE = 64;
    const std::string content = read_file(path, LONGEST_PID_FILE);
    std::string_view text = content;
    if (text.ends_with('\n'))
        text.remove_suffix(1);
    return parse_pid(text);
}

int open_process(pid_t pid)
{
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

void signal_process(const OwnedDescriptor& process, int number)
{
    syscall(SYS_pidfd_send_signal, process.get(), number, nullptr, 0);
}

bool wait_for_end(const OwnedDescriptor& process, gint64 deadline)
{
    pollfd end = {process.get(), POLLIN, 0};
    gint64 left = 0;
    do {
        left = std::max<gint64>(deadline - g_get_monotonic_time(), 0);
        if (poll(&end, 1, static_cast<int>(left / 1000)) > 0)
            return true;
    } while (left > 0);
    return false;
}

// SIGTERM, and SIGKILL for those that stay. False when none was running.
bool end_running_processes(const ClientProgram& program)
{
    std::vector<OwnedDescriptor> processes;
    for (const pid_t pid : find_client_processes(program)) {
        OwnedDescriptor process(open_process(pid));
        // The number may have been given to another process meanwhile; the descriptor stays with this one.
        if (!process.is_open() || !is_client_process(program, pid))
            continue;
        signal_process(process, SIGTERM);
        processes.push_back(std::move(process));
    }
    const gint64 deadline = g_get_monotonic_time() + PATIENCE;
    for (const OwnedDescriptor& process : processes) {
        if (wait_for_end(process, deadline))
            continue;
        signal_process(process, SIGKILL);
        wait_for_end(process, deadline + PATIENCE);
    }
    return !processes.empty();
}

} // namespace

std::vector<pid_t> find_client_processes(const ClientProgram& program)
{
    std::vector<pid_t> found;
    const OwnedDirectory processes(opendir("/proc"));
    while (const dirent* entry = processes ? readdir(processes.get()) : nullptr) {
        const pid_t pid = parse_pid(entry->d_name);
        if (pid != 0 && pid != getpid() && is_client_process(program, pid))
            found.push_back(pid);
    }
    return found;
}

void remove_stale_pid_file(const ClientProgram& program)
{
    struct stat status = {};
    if (lstat(program.pid_file, &status) != 0)
        return;
    const pid_t pid = S_ISREG(status.st_mode) ? read_pid_file(program.pid_file) : 0;
    if (pid == 0 || !is_client_process(program, pid))
        unlink(program.pid_file);
}

void end_client_processes(const ClientProgram& program)
{
    for (int round = 0; round < ROUNDS && end_running_processes(program); round++) {
    }
}
