#include "core/process.h"
#include "support.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <set>

namespace {

class process : public QuarnTest {};

// Runs work in a child (whose own children may outlive it) and gives what it wrote to the descriptor.
std::string output_of_child(void (*work)(int descriptor))
{
    int ends[2];
    if (pipe(ends) != 0)
        return "no pipe";
    OwnedDescriptor read_end(ends[0]);
    OwnedDescriptor write_end(ends[1]);
    const pid_t child = fork();
    if (child == 0) {
        work(write_end.get());
        _exit(0);
    }
    write_end = OwnedDescriptor();
    std::string output;
    char buffer[4096];
    for (ssize_t count = 0; (count = read(read_end.get(), buffer, sizeof buffer)) > 0;)
        output.append(buffer, static_cast<std::size_t>(count));
    waitpid(child, nullptr, 0);
    return output;
}

} // namespace

TEST_F(process, keeps_of_the_environment_only_what_it_needs)
{
    const std::string output = output_of_child([](int descriptor) {
        clearenv();
        for (const char* name : {"HOME", "IFS", "BASH_ENV", "NOTIFY_SOCKET", "JOURNAL_STREAM",
                                 "STATE_DIRECTORY", "DBUS_SYSTEM_BUS_ADDRESS", "INVOCATION_ID",
                                 "QUARN_LOG_LEVEL", "LD_PRELOAD", "CAMLAB_RECORD", "QUARN", "LANG"})
            setenv(name, "value", 1);
        setenv("PATH", "/tmp/evil", 1);
        prepare_process();
        std::set<std::string> kept;
        for (char** entry = environ; *entry != nullptr; ++entry)
            kept.insert(*entry);
        for (const std::string& entry : kept)
            dprintf(descriptor, "%s\n", entry.c_str());
        dprintf(descriptor, "umask %03o\n", umask(0));
    });
    EXPECT_EQ(output,
              "CAMLAB_RECORD=value\nDBUS_SYSTEM_BUS_ADDRESS=value\nINVOCATION_ID=value\n"
              "JOURNAL_STREAM=value\nLD_PRELOAD=value\nNOTIFY_SOCKET=value\n"
              "PATH=/usr/sbin:/usr/bin:/sbin:/bin\nQUARN_LOG_LEVEL=value\nRES_OPTIONS=timeout:1 attempts:2\n"
              "STATE_DIRECTORY=value\numask 022\n");
}

TEST_F(process, a_daemon_leads_its_own_session_in_the_root_directory_and_reads_nothing)
{
    const std::string output = output_of_child([](int descriptor) {
        const pid_t parent = getpid();
        if (!daemonize()) {
            // The parent; what the child finds is what counts.
            _exit(getpid() == parent ? 0 : 1);
        }
        char directory[256] = "";
        char input[256] = "";
        const ssize_t length = readlink("/proc/self/fd/0", input, sizeof input - 1);
        dprintf(descriptor, "leader %d directory %s umask %03o input %.*s mode %d\n", getsid(0) == getpid(),
                getcwd(directory, sizeof directory), umask(0), static_cast<int>(length), input,
                fcntl(STDIN_FILENO, F_GETFL) & O_ACCMODE);
        _exit(0);
    });
    EXPECT_EQ(output, "leader 1 directory / umask 000 input /dev/null mode 0\n");
}
