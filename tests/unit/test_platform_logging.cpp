#include "platform_fixture.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdarg>

namespace {

class platform_logging : public PlatformTest {
protected:
    void log(int priority, const char* format, ...) __attribute__((format(printf, 3, 4)))
    {
        va_list arguments;
        va_start(arguments, format);
        trell_core_logging_logv(logging, priority, format, arguments);
        va_end(arguments);
    }

    void reopen(const char* level)
    {
        trell_core_logging_deinit(logging);
        if (level != nullptr)
            setenv("QUARN_LOG_LEVEL", level, 1);
        else
            unsetenv("QUARN_LOG_LEVEL");
        ASSERT_EQ(trell_core_logging_init("QUARN", &logging), 0);
    }

    // The datagram that one message becomes where a journal listens: a socket of our own at the journal's
    // place, seen by a child process only. "(none)" where no mount namespace can be had.
    std::string sent_to_journal(const char* message)
    {
        const int status = status_of_child([&, this] {
            const uid_t user = geteuid();
            const gid_t group = getegid();
            if (unshare(user == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) != 0)
                return 1;
            if (user != 0) {
                write_text("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
                write_text("/proc/self/setgroups", "deny");
                write_text("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
            }
            if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                mount("tmpfs", "/run", "tmpfs", 0, nullptr) != 0)
                return 1;
            std::filesystem::create_directories("/run/systemd/journal");
            const int socket = ::socket(AF_UNIX, SOCK_DGRAM, 0);
            const sockaddr_un address = {AF_UNIX, "/run/systemd/journal/socket"};
            if (bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
                return 2;
            reopen("debug");
            log(3, "%s", message);
            char datagram[1000];
            const ssize_t size = recv(socket, datagram, sizeof datagram, MSG_DONTWAIT);
            if (size < 0)
                return 3;
            write_text(scratch / "datagram", std::string(datagram, static_cast<std::size_t>(size)));
            return 0;
        });
        EXPECT_LE(status, 1);
        return status == 0 ? read_text(scratch / "datagram") : "(none)";
    }

    // The priorities that are passed on, as digits.
    std::string passed_on()
    {
        for (int priority = 2; priority <= 7; priority++)
            log(priority, "x");
        std::string digits;
        for (const std::string& line : take_log())
            digits += line.at(1);
        return digits;
    }
};

} // namespace

TEST_F(platform_logging, a_message_is_one_line_with_its_priority)
{
    log(3, "%s:%d: Could not set %s", "save", 12, "[IPv6]Enabled");
    EXPECT_EQ(take_log(), Lines{"<3>save:12: Could not set [IPv6]Enabled"});
}

TEST_F(platform_logging, control_bytes_cannot_begin_a_second_line)
{
    log(4, "request: %s",
        "a\n<2>forged\r\x1b[2J\x7f\tb \xc3\xa9 \xc2\x9b"
        "2J");
    EXPECT_EQ(take_log(), Lines{"<4>request: a\\x0a<2>forged\\x0d\\x1b[2J\\x7f\\x09b \xc3\xa9 \xc2\\x9b2J"});
}

TEST_F(platform_logging, a_long_message_stays_whole)
{
    for (const std::size_t length : {511U, 512U, 100000U}) {
        const std::string text(length, 'x');
        log(6, "%s", text.c_str());
        EXPECT_EQ(take_log(), Lines{"<6>" + text}) << length;
    }
}

TEST_F(platform_logging, the_level_bounds_what_is_passed_on)
{
    const std::pair<const char*, const char*> cases[] = {
        {"critical", "2"}, {"error", "23"},     {"warning", "234"}, {"notice", "2345"},
        {"info", "23456"}, {"debug", "234567"}, {nullptr, "23456"}, {"loud", "23456"},
    };
    for (const auto& [level, digits] : cases) {
        reopen(level);
        EXPECT_EQ(passed_on(), digits) << (level != nullptr ? level : "(none)");
    }
}

TEST_F(platform_logging, a_message_that_is_not_passed_on_is_not_formatted)
{
    reopen("info");
    int written = -1;
    log(7, "text%n", &written);
    EXPECT_EQ(written, -1);
    EXPECT_EQ(take_log(), Lines{});
}

TEST_F(platform_logging, a_message_reaches_the_journal_with_the_fields_that_its_text_gives)
{
    const std::pair<const char*, const char*> cases[] = {
        {"save:12: Could not set [IPv4/DHCP]Enabled = 1",
         "CODE_FUNC=save\nCODE_LINE=12\nQUARN_SETTING=[IPv4/DHCP]Enabled\n"},
        {"set_mtu: done", "CODE_FUNC=set_mtu\n"},
        {"at 10:15: [a b] [] [x] [TrafficShaping]Rtp/BurstPercent.",
         "QUARN_SETTING=[TrafficShaping]Rtp/BurstPercent\n"},
        {"no function:", ""},
        {"name:12 x", ""},
        {": x", ""},
        {"", ""},
    };
    if (sent_to_journal("x") == "(none)")
        GTEST_SKIP() << "no mount namespace can be had";
    for (const auto& [message, fields] : cases) {
        EXPECT_EQ(sent_to_journal(message),
                  std::string("PRIORITY=3\nSYSLOG_IDENTIFIER=QUARN\nMESSAGE=") + message + "\n" + fields);
    }
    EXPECT_EQ(take_log(), Lines{});
}
