#include "net/client_processes.h"
#include "support.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <csignal>

namespace {

using Pids = std::vector<pid_t>;
using Arguments = std::vector<std::string>;

// A real process that carries these arguments: a shell that says that it is ready, and ends at SIGTERM unless
// its script has other plans.
class Carrier {
public:
    explicit Carrier(const Arguments& arguments, const std::string& script = "")
    {
        start("/bin/sh", arguments, script + "echo; read line");
    }
    // A process of a script file, as the kernel starts one.
    Carrier(const std::filesystem::path& script_file, const Arguments& arguments)
    {
        write_text(script_file, "#!/bin/sh\necho\nread line\n");
        std::filesystem::permissions(script_file, std::filesystem::perms::owner_all);
        start(script_file.c_str(), arguments, "");
    }
    ~Carrier()
    {
        if (is_alive()) {
            kill(pid_, SIGKILL);
            wait_for_end();
        }
    }
    Carrier(const Carrier&) = delete;
    Carrier& operator=(const Carrier&) = delete;

    pid_t pid() const { return pid_; }
    bool is_alive()
    {
        if (!has_ended_)
            has_ended_ = waitpid(pid_, &status_, WNOHANG) == pid_;
        return !has_ended_;
    }
    void wait_for_end()
    {
        if (!has_ended_)
            waitpid(pid_, &status_, 0);
        has_ended_ = true;
    }
    // The signal that has ended it; 0 when it lives or ended otherwise.
    int end_signal() { return is_alive() || !WIFSIGNALED(status_) ? 0 : WTERMSIG(status_); }

private:
    // Arguments are name, then the rest; a shell reads its script from -c, which stands between them.
    void start(const char* program, const Arguments& arguments, const std::string& script)
    {
        int input[2];
        int output[2];
        ASSERT_EQ(pipe2(input, O_CLOEXEC) | pipe2(output, O_CLOEXEC), 0);
        const OwnedDescriptor input_end(input[0]);
        OwnedDescriptor output_end(output[1]);
        const OwnedDescriptor ready(output[0]);
        input_ = OwnedDescriptor(input[1]);
        std::vector<std::string> all = {arguments.front()};
        if (!script.empty())
            all.insert(all.end(), {"-c", script, "sh"});
        all.insert(all.end(), arguments.begin() + 1, arguments.end());
        std::vector<char*> pointers;
        for (std::string& argument : all)
            pointers.push_back(argument.data());
        pointers.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            dup2(input[0], STDIN_FILENO);
            dup2(output[1], STDOUT_FILENO);
            execv(program, pointers.data());
            _exit(127);
        }
        output_end = OwnedDescriptor();
        char byte = 0;
        EXPECT_EQ(read(ready.get(), &byte, 1), 1);
    }

    OwnedDescriptor input_;
    pid_t pid_ = 0;
    int status_ = 0;
    bool has_ended_ = false;
};

class client_processes : public QuarnTest {
protected:
    void SetUp() override
    {
        QuarnTest::SetUp();
        pid_file = scratch / "udhcpc.eth0.pid";
        program = {"udhcpc", "eth0", pid_file.c_str()};
        arguments = {"/sbin/udhcpc", "-p", pid_file, "-i", "eth0", "-T10"};
    }
    bool stays(const std::string& content)
    {
        write_text(pid_file, content);
        remove_stale_pid_file(program);
        return std::filesystem::exists(pid_file);
    }
    std::string pid_file;
    ClientProgram program{};
    Arguments arguments;
};

} // namespace

// Which processes are ours

TEST_F(client_processes, a_client_is_found_by_program_interface_and_pid_file)
{
    EXPECT_EQ(find_client_processes(program), Pids());
    const Carrier first(arguments);
    EXPECT_EQ(find_client_processes(program), Pids{first.pid()});
    const Carrier second({"udhcpc", "eth0", pid_file});
    Pids found = find_client_processes(program);
    std::ranges::sort(found);
    Pids both = {first.pid(), second.pid()};
    std::ranges::sort(both);
    EXPECT_EQ(found, both);
}

TEST_F(client_processes, the_rest_of_its_arguments_may_differ)
{
    const Carrier client(
        {"/usr/sbin/udhcpc", "-x", "hostname:an-earlier-name", "-i", "eth0", "-p", pid_file});
    EXPECT_EQ(find_client_processes(program), Pids{client.pid()});
}

TEST_F(client_processes, a_client_that_is_a_script_is_found)
{
    const Carrier client(scratch / "udhcpc", {"udhcpc", "-p", pid_file, "-i", "eth0"});
    EXPECT_EQ(find_client_processes(program), Pids{client.pid()});
}

TEST_F(client_processes, clients_of_others_are_not_ours)
{
    const Carrier other_interface({"/sbin/udhcpc", "-p", pid_file, "-i", "eth1"});
    const Carrier other_pid_file({"/sbin/udhcpc", "-p", pid_file + "2", "-i", "eth0"});
    const Carrier other_program({"/sbin/udhcpc6", "-p", pid_file, "-i", "eth0"});
    const Carrier longer_interface({"/sbin/udhcpc", "-p", pid_file, "-i", "eth0.7"});
    const Carrier reader({"vi", "notes", "/sbin/udhcpc", pid_file, "eth0"});
    EXPECT_EQ(find_client_processes(program), Pids());
    end_client_processes(program);
    EXPECT_EQ(kill(other_interface.pid(), 0) | kill(other_pid_file.pid(), 0) | kill(other_program.pid(), 0) |
                  kill(longer_interface.pid(), 0) | kill(reader.pid(), 0),
              0);
}

TEST_F(client_processes, a_client_that_has_ended_is_not_found_though_nobody_has_taken_note_of_its_end)
{
    const Carrier client(arguments);
    kill(client.pid(), SIGKILL);
    siginfo_t end{};
    waitid(P_PID, static_cast<id_t>(client.pid()), &end, WEXITED | WNOWAIT);
    EXPECT_EQ(find_client_processes(program), Pids());
}

// How they end

TEST_F(client_processes, every_client_of_ours_is_ended_by_sigterm)
{
    Carrier first(arguments);
    Carrier second(arguments);
    end_client_processes(program);
    EXPECT_EQ(first.end_signal(), SIGTERM);
    EXPECT_EQ(second.end_signal(), SIGTERM);
}

TEST_F(client_processes, a_client_that_ignores_sigterm_is_killed_after_a_second)
{
    Carrier stubborn(arguments, "trap '' TERM; ");
    Carrier polite(arguments);
    const auto begin = std::chrono::steady_clock::now();
    end_client_processes(program);
    const auto duration = std::chrono::steady_clock::now() - begin;
    EXPECT_EQ(stubborn.end_signal(), SIGKILL);
    EXPECT_EQ(polite.end_signal(), SIGTERM);
    EXPECT_GE(duration, std::chrono::seconds(1));
    EXPECT_LT(duration, std::chrono::seconds(2));
}

TEST_F(client_processes, a_stopped_client_is_killed)
{
    Carrier stopped(arguments);
    kill(stopped.pid(), SIGSTOP);
    waitpid(stopped.pid(), nullptr, WUNTRACED);
    end_client_processes(program);
    EXPECT_EQ(stopped.end_signal(), SIGKILL);
}

TEST_F(client_processes, a_client_that_takes_its_time_is_left_to_end_by_itself)
{
    Carrier slow(arguments, "trap 'sleep 0.3; exit 0' TERM; ");
    end_client_processes(program);
    EXPECT_FALSE(slow.is_alive());
    EXPECT_EQ(slow.end_signal(), 0);
}

TEST_F(client_processes, one_that_goes_into_the_background_meanwhile_is_ended_too)
{
    // Its child is a client like itself, and starts when it ends.
    Carrier client(arguments, "exec 3<&0; trap '(read line <&3) & exit 0' TERM; ");
    end_client_processes(program);
    EXPECT_FALSE(client.is_alive());
    EXPECT_EQ(find_client_processes(program), Pids());
}

// The pid file

TEST_F(client_processes, a_pid_file_that_names_a_client_of_ours_stays)
{
    const Carrier client(arguments);
    EXPECT_TRUE(stays(std::to_string(client.pid()) + "\n"));
    EXPECT_TRUE(stays(std::to_string(client.pid())));
}

TEST_F(client_processes, a_pid_file_that_names_a_stranger_is_removed_and_the_stranger_lives)
{
    Carrier stranger({"/sbin/syslogd", "-n"});
    EXPECT_FALSE(stays(std::to_string(stranger.pid()) + "\n"));
    end_client_processes(program);
    EXPECT_TRUE(stranger.is_alive());
}

TEST_F(client_processes, a_pid_file_that_names_more_than_a_client_is_removed)
{
    const Carrier client(arguments);
    const std::string pid = std::to_string(client.pid());
    const std::vector<std::string> contents = {"1 " + pid,
                                               pid + " 1",
                                               pid + "\n1",
                                               pid + "\n\n",
                                               " " + pid,
                                               "-" + pid,
                                               "+" + pid,
                                               "-9 -1",
                                               pid + ";1",
                                               pid + std::string(60, '\n') + " 1",
                                               std::string(80, '0') + pid,
                                               pid + '\0',
                                               "",
                                               "\n",
                                               "0",
                                               "x",
                                               "99999999999999999999"};
    for (const std::string& content : contents)
        EXPECT_FALSE(stays(content)) << testing::PrintToString(content);
}

TEST_F(client_processes, a_pid_file_that_is_a_link_or_a_pipe_is_removed)
{
    const Carrier client(arguments);
    const std::filesystem::path elsewhere = scratch / "elsewhere";
    write_text(elsewhere, std::to_string(client.pid()));
    std::filesystem::create_symlink(elsewhere, pid_file);
    remove_stale_pid_file(program);
    EXPECT_FALSE(std::filesystem::is_symlink(pid_file));
    EXPECT_TRUE(std::filesystem::exists(elsewhere));
    ASSERT_EQ(mkfifo(pid_file.c_str(), 0600), 0);
    remove_stale_pid_file(program);
    EXPECT_FALSE(std::filesystem::exists(pid_file));
}

TEST_F(client_processes, a_pid_file_that_is_not_there_is_no_matter)
{
    remove_stale_pid_file(program);
    EXPECT_FALSE(std::filesystem::exists(pid_file));
}
