// camera-shell: stands at /bin/sh of the virtual camera, and writes down what the daemon has it run.
//
// A `sh -c TEXT` whose parent is the daemon is appended to /.camlab/commands, then the real shell runs the
// same TEXT, then its wait status is appended. Any other call becomes the real shell at once. /.camlab/rules
// names the daemon, and the commands that are to be answered or held up instead; both files are described in
// camlab/recorder.py.
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr const char* REAL_SHELL = "/.camlab/real/sh";
constexpr const char* FOLDER = "/.camlab";
constexpr const char* RULES_FILE = "/.camlab/rules";
constexpr const char* COMMANDS_FILE = "/.camlab/commands";

struct Rule {
    std::string id;
    bool hangs = false;
    int status = 0; // below 0: run the command
    long times = 0; // 0: always
    std::string pattern;
    std::string output;
    std::string errors;
};

struct Rules {
    std::string daemon;
    std::vector<Rule> rules;
};

pid_t child = -1;

std::string file_content(const char* path)
{
    std::string content;
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0)
        return content;
    char buffer[4096];
    for (ssize_t length = read(file, buffer, sizeof buffer); length > 0;
         length = read(file, buffer, sizeof buffer))
        content.append(buffer, static_cast<size_t>(length));
    close(file);
    return content;
}

std::string_view take_until(std::string_view& text, char end)
{
    const size_t length = text.find(end);
    const std::string_view taken = text.substr(0, length);
    text.remove_prefix(length == std::string_view::npos ? text.size() : length + 1);
    return taken;
}

std::string take_bytes(std::string_view& text, long count)
{
    std::string taken(text.substr(0, static_cast<size_t>(count)));
    text.remove_prefix(taken.size());
    return taken;
}

long take_number(std::string_view& text)
{
    const std::string_view digits = take_until(text, ' ');
    long number = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return number;
}

Rules read_rules()
{
    const std::string content = file_content(RULES_FILE);
    std::string_view rest = content;
    Rules rules;
    rules.daemon = take_until(rest, '\n');
    while (!rest.empty()) {
        std::string_view line = take_until(rest, '\n');
        Rule rule;
        rule.id = take_until(line, ' ');
        rule.hangs = take_until(line, ' ') == "hang";
        rule.status = static_cast<int>(take_number(line));
        rule.times = take_number(line);
        rule.pattern = take_bytes(rest, take_number(line));
        rule.output = take_bytes(rest, take_number(line));
        rule.errors = take_bytes(rest, take_number(line));
        take_until(rest, '\n');
        rules.rules.push_back(rule);
    }
    return rules;
}

// A double fork leaves the command with process 1 as parent: the daemon's environment then tells whose it is.
bool daemon_is_parent(const std::string& daemon)
{
    const pid_t parent = getppid();
    if (parent == 1)
        return getenv("CAMLAB_RECORD") != nullptr;
    const std::string name = file_content(("/proc/" + std::to_string(parent) + "/comm").c_str());
    return name == daemon + "\n";
}

// The TEXT of `sh -c TEXT` or `sh -c -- TEXT`, in any other form null.
const char* command_text(int argc, char** argv)
{
    if (argc < 3 || strcmp(argv[1], "-c") != 0)
        return nullptr;
    const int index = strcmp(argv[2], "--") == 0 ? 3 : 2;
    return argc == index + 1 ? argv[index] : nullptr;
}

long long now()
{
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1'000'000'000LL + time.tv_nsec;
}

// One write a record: the kernel keeps the records of several shells apart.
void append(int file, const std::string& record)
{
    [[maybe_unused]] const ssize_t written = write(file, record.data(), record.size());
}

// True for the first `times` commands that come by here. The place at which a byte was appended counts them.
bool has_a_turn(const Rule& rule)
{
    if (rule.times == 0)
        return true;
    const std::string path = std::string(FOLDER) + "/turns-" + rule.id;
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    append(file, ".");
    const bool turn = lseek(file, 0, SEEK_CUR) <= rule.times;
    close(file);
    return turn;
}

std::optional<Rule> rule_for(const std::vector<Rule>& rules, const char* text)
{
    for (const Rule& rule : rules)
        if (fnmatch(rule.pattern.c_str(), text, 0) == 0 && has_a_turn(rule))
            return rule;
    return std::nullopt;
}

bool still_stands(const Rule& rule)
{
    for (const Rule& other : read_rules().rules)
        if (other.id == rule.id)
            return true;
    return false;
}

void wait_for_release(const Rule& rule)
{
    const int events = inotify_init1(IN_CLOEXEC);
    inotify_add_watch(events, FOLDER, IN_MOVED_TO);
    char buffer[4096];
    while (still_stands(rule)) {
        [[maybe_unused]] const ssize_t length = read(events, buffer, sizeof buffer);
    }
    close(events);
}

void pass_on(int signal)
{
    if (child > 0)
        kill(child, signal);
}

// What ends this process ends the real shell too: to the daemon the two are one. The signals stay blocked
// until it is known whom to pass them on to.
int run_real_shell(char** argv)
{
    sigset_t passed_on;
    sigset_t mask;
    sigemptyset(&passed_on);
    sigaddset(&passed_on, SIGTERM);
    sigaddset(&passed_on, SIGHUP);
    sigprocmask(SIG_BLOCK, &passed_on, &mask);
    // NOLINTNEXTLINE(clang-analyzer-security.insecureAPI.vfork): posix_spawn knows no PR_SET_PDEATHSIG
    const pid_t shell = vfork();
    if (shell == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);         // NOLINT(clang-analyzer-unix.Vfork): touches no memory
        sigprocmask(SIG_SETMASK, &mask, nullptr); // NOLINT(clang-analyzer-unix.Vfork)
        execv(REAL_SHELL, argv);
        _exit(127);
    }
    child = shell;
    for (const int signal : {SIGTERM, SIGHUP}) {
        struct sigaction action = {};
        sigaction(signal, nullptr, &action);
        if (action.sa_handler == SIG_DFL) {
            action.sa_handler = pass_on;
            sigaction(signal, &action, nullptr);
        }
    }
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    int status = 0;
    while (waitpid(shell, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

[[noreturn]] void end_like(int status)
{
    if (WIFSIGNALED(status)) {
        const rlimit no_core = {0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        signal(WTERMSIG(status), SIG_DFL);
        raise(WTERMSIG(status));
    }
    _exit(WEXITSTATUS(status));
}

int answer(const Rule& rule)
{
    append(STDOUT_FILENO, rule.output);
    append(STDERR_FILENO, rule.errors);
    return W_EXITCODE(rule.status, 0);
}

} // namespace

int main(int argc, char** argv)
{
    const char* const text = command_text(argc, argv);
    const Rules rules = text == nullptr ? Rules() : read_rules();
    if (text == nullptr || !daemon_is_parent(rules.daemon)) {
        execv(REAL_SHELL, argv);
        return 127;
    }
    unsetenv("CAMLAB_RECORD"); // what the command starts in its turn is not the daemon's own
    const int file = open(COMMANDS_FILE, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    const long long start = now();
    const std::string id = std::to_string(getpid()) + "." + std::to_string(start);
    append(file, "start " + id + " " + std::to_string(start) + " " + std::to_string(strlen(text)) + "\n" +
                     text + "\n");
    const std::optional<Rule> rule = rule_for(rules.rules, text);
    if (rule && rule->hangs)
        wait_for_release(*rule);
    const int status = rule && rule->status >= 0 ? answer(*rule) : run_real_shell(argv);
    append(file, "end " + id + " " + std::to_string(now()) + " " + std::to_string(status) + "\n");
    end_like(status);
}
