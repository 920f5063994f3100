#include "net/routes.h"
#include "support.h"

namespace {

class routes : public QuarnTest {};

using Log = std::vector<std::string>;

const std::string MULTICAST_COMMAND =
    "if ! /sbin/route | grep 224.0.0.0 >/dev/null ; then  /sbin/route add -net 224.0.0.0 "
    "netmask 240.0.0.0 dev eth0 ; fi";

} // namespace

TEST_F(routes, the_multicast_route_is_added_where_there_is_none)
{
    add_multicast_route();
    EXPECT_EQ(recorded_shell.commands, std::vector{MULTICAST_COMMAND});
    EXPECT_EQ(take_log(), Log{"<7>add_multicast_route:LINE: Added multicast route"});
}

TEST_F(routes, a_multicast_route_that_cannot_be_added_is_logged)
{
    recorded_shell.statuses = {{"224.0.0.0", 7}};
    add_multicast_route();
    EXPECT_EQ(recorded_shell.commands, std::vector{MULTICAST_COMMAND});
    EXPECT_EQ(take_log(), Log{"<5>add_multicast_route: System call '" + MULTICAST_COMMAND + "' returned 7"});
}
