#include "core/process.h"

#include "core/log.h"
#include "core/owned.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr std::array<std::string_view, 5> KEPT_VARIABLES = {
    "NOTIFY_SOCKET", "JOURNAL_STREAM", "DBUS_SYSTEM_BUS_ADDRESS", "STATE_DIRECTORY", "INVOCATION_ID"};
// LD_: a sanitizer or a coverage tool of a test run; CAMLAB_: the virtual camera's command recorder.
constexpr std::array<std::string_view, 3> KEPT_PREFIXES = {"QUARN_", "LD_", "CAMLAB_"};

bool is_kept(std::string_view name)
{
    return std::ranges::find(KEPT_VARIABLES, name) != KEPT_VARIABLES.end() ||
           std::ranges::any_of(KEPT_PREFIXES,
                               [name](std::string_view prefix) { return name.starts_with(prefix); });
}

} // namespace

void prepare_process()
{
    std::vector<std::string> dropped;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string_view text(*entry);
        const std::string_view name = text.substr(0, text.find('='));
        if (!is_kept(name))
            dropped.emplace_back(name);
    }
    for (const std::string& name : dropped)
        unsetenv(name.c_str());
    setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
    // A tool that looks a name up, as for a gateway given by its host name, holds the daemon up meanwhile.
    // Three dead servers would take 18 seconds for each name, and callers on the bus wait for no more
    // than 25.
    setenv("RES_OPTIONS", "timeout:1 attempts:2", 1);
    umask(022);
}

bool daemonize()
{
    const pid_t child = fork();
    if (child < 0) {
        log_message(LEVEL_CRITICAL, "%s:%d: Could not daemonize.", HERE);
        return false;
    }
    if (child > 0)
        return false;
    umask(0);
    setsid();
    if (chdir("/") != 0)
        log_message(LEVEL_ERROR, "%s: Could not change to the root directory", __func__);
    // Closing standard input first makes the null device take its number.
    {
        const OwnedDescriptor standard_input(STDIN_FILENO);
    }
    (void)open("/dev/null", O_RDONLY);
    return true;
}
