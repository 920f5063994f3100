#include "remote.h"

#include "report.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace quarnctl {

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

int run_on_camera(const std::string& host, const std::vector<std::string>& arguments,
                  const std::string& input_file)
{
    if (!input_file.empty()) {
        const int input = open(input_file.c_str(), O_RDONLY);
        if (input < 0 || dup2(input, STDIN_FILENO) < 0) {
            complain(input_file + ": " + std::strerror(errno));
            return REFUSED;
        }
        close(input);
    }
    std::vector<std::string> words = {"quarnctl"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const bool has_terminal = isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0;
    execlp("ssh", "ssh", has_terminal ? "-xt" : "-xT", "--", host.c_str(), quoted_for_shell(words).c_str(),
           static_cast<char*>(nullptr));
    complain(std::string("ssh: ") + std::strerror(errno));
    return NO_DAEMON;
}

} // namespace quarnctl
