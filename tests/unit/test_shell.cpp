#include "core/shell.h"
#include "support.h"

namespace {

class shell : public QuarnTest {};

constexpr unsigned char octet(int value)
{
    return static_cast<unsigned char>(value);
}

} // namespace

TEST_F(shell, builds_a_command_from_plain_values)
{
    const ShellCommand command("/sbin/ifconfig eth0%s %s netmask %s broadcast %hhu.%hhu.%hhu.%hhu mtu %d",
                               ":1", "10.0.0.5", "255.0.0.0", octet(10), octet(255), octet(255), octet(255),
                               -1);
    EXPECT_STREQ(command.text(),
                 "/sbin/ifconfig eth0:1 10.0.0.5 netmask 255.0.0.0 broadcast 10.255.255.255 mtu -1");
    EXPECT_EQ(run_shell(command), 0);
    EXPECT_EQ(recorded_shell.commands, std::vector<std::string>{command.text()});
}

TEST_F(shell, a_text_without_values_is_run_as_it_is)
{
    EXPECT_STREQ(ShellCommand("for A in $(ip); do :; done 100%%").text(), "for A in $(ip); do :; done 100%");
}

TEST_F(shell, every_value_that_is_no_plain_argument_is_refused_and_nothing_runs)
{
    const char* const values[] = {"10.0.0.1; reboot",
                                  "10.0.0.1\nreboot",
                                  "$(reboot)",
                                  "`reboot`",
                                  "a b",
                                  "a'b",
                                  "a\"b",
                                  "a|b",
                                  "a&b",
                                  "a>b",
                                  "a\\b",
                                  "a*b",
                                  "-rf",
                                  "",
                                  "a\tb",
                                  "a\x01",
                                  "caf\xc3\xa9",
                                  "a#b",
                                  "~root",
                                  "a=b"};
    for (const char* value : values) {
        const ShellCommand command("/sbin/ip addr add %s dev eth0", value);
        EXPECT_TRUE(command.refused()) << value;
        EXPECT_STREQ(command.text(), "");
        EXPECT_EQ(exit_status(run_shell(command)), REFUSED_STATUS);
    }
    EXPECT_EQ(recorded_shell.commands, std::vector<std::string>());
}

TEST_F(shell, a_refusal_is_logged_with_the_value)
{
    const ShellCommand command("/sbin/ip addr add %s dev eth0", "a;b\nc");
    EXPECT_EQ(
        take_log(),
        std::vector<std::string>{
            R"(<3>ShellCommand: Refused to run '/sbin/ip addr add %s dev eth0' with the value 'a;b\x0ac')"});
}

TEST_F(shell, each_value_is_looked_at_also_behind_numbers)
{
    EXPECT_TRUE(ShellCommand("a %d %s %hhu %s", 1, "fine", octet(2), "not fine").refused());
    EXPECT_FALSE(ShellCommand("a %d %s %hhu %s", 1, "fine", octet(2), "fine").refused());
}

TEST_F(shell, the_exit_status_is_bits_8_to_15)
{
    EXPECT_EQ(exit_status(0), 0);
    EXPECT_EQ(exit_status(1 << 8), 1);
    EXPECT_EQ(exit_status(255 << 8), 255);
    // A shell that a signal killed counts as success.
    EXPECT_EQ(exit_status(9), 0);
    EXPECT_EQ(exit_status(-1), 255);
}
