#include "core/console.h"
#include "core/log.h"
#include "support.h"

namespace {

class console : public QuarnTest {};

using Log = std::vector<std::string>;

} // namespace

TEST_F(console, a_change_is_one_console_line_and_one_log_line)
{
    print_console("set_mtu", "Set %s to %d", "it", 7);
    EXPECT_EQ(take_log(), (Log{"QUARN: Set it to 7", "<5>set_mtu: Console Output: Set it to 7"}));
}

TEST_F(console, levels_0_to_5_are_priorities_2_to_7)
{
    for (int level = LEVEL_CRITICAL; level <= LEVEL_DEBUG; ++level)
        log_message(static_cast<LogLevel>(level), "%s: level %d", "f", level);
    EXPECT_EQ(take_log(), (Log{"<2>f: level 0", "<3>f: level 1", "<4>f: level 2", "<5>f: level 3",
                               "<6>f: level 4", "<7>f: level 5"}));
}

TEST_F(console, nothing_is_logged_while_logging_is_stopped)
{
    stop_logging();
    log_message(LEVEL_CRITICAL, "lost");
    EXPECT_EQ(take_log(), Log());
    EXPECT_TRUE(start_logging());
    log_message(LEVEL_CRITICAL, "kept");
    EXPECT_EQ(take_log(), Log{"<2>kept"});
}

TEST_F(console, one_message_is_one_line)
{
    log_message(LEVEL_NOTICE, "f: %s", "a\nQUARN: forged\r\x1b[2J");
    EXPECT_EQ(take_log(), Log{R"(<5>f: a\x0aQUARN: forged\x0d\x1b[2J)"});
}
