// ntp-keeper: stands in for the supervisor of the time daemon, which belongs to the camera's system image.
// The real one reloads the time daemon at SIGUSR2; this one writes a line for each.
#include <unistd.h>

#include <csignal>
#include <string_view>

namespace {

void say(std::string_view line)
{
    [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, line.data(), line.size());
}

} // namespace

int main()
{
    sigset_t reload;
    sigemptyset(&reload);
    sigaddset(&reload, SIGUSR2);
    sigprocmask(SIG_BLOCK, &reload, nullptr);
    say("waiting\n");
    for (int number = 0; sigwait(&reload, &number) == 0;)
        say("reload\n");
    return 1;
}
