#include "remote.h"

#include "report.h"
#include "values.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace quarnctl {

namespace {

// Its exit status; a larger one than those of quarnctl when there is none.
int run_ssh(const std::vector<std::string>& words)
{
    constexpr int NOT_RUN = 255;
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (const std::string& word : words)
        pointers.push_back(const_cast<char*>(word.c_str())); // NOLINT: the interface is older than const
    pointers.push_back(nullptr);
    pid_t child = 0;
    if (posix_spawnp(&child, "ssh", nullptr, nullptr, pointers.data(), environ) != 0)
        return NOT_RUN;
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR)
            return NOT_RUN;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : NOT_RUN;
}

} // namespace

std::string quoted_for_shell(const std::vector<std::string>& words)
{
    std::string line;
    for (const std::string& word : words) {
        line += line.empty() ? "'" : " '";
        for (const char letter : word) {
            if (letter == '\'')
                line += "'\\''";
            else
                line += letter;
        }
        line += "'";
    }
    return line;
}

int run_on_camera(const Session& session, const std::vector<std::string>& arguments,
                  const std::string& input_file)
{
    if (!input_file.empty()) {
        const OwnedDescriptor input(open(input_file.c_str(), O_RDONLY | O_CLOEXEC));
        if (!input.is_open() || dup2(input.get(), STDIN_FILENO) < 0)
            return report_failure(session, {REFUSED, printable(input_file) + ": " + std::strerror(errno)});
    }
    std::vector<std::string> words = {"quarnctl"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const bool has_terminal = isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0;
    const int status =
        run_ssh({"ssh", has_terminal ? "-xt" : "-xT", "--", session.host, quoted_for_shell(words)});
    if (status <= NO_DAEMON)
        return status;
    return report_failure(session, {NO_DAEMON, "quarnctl could not be run on " + session.host + " over SSH"});
}

} // namespace quarnctl
