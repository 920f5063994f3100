#include "net/routes.h"

#include "core/log.h"
#include "core/shell.h"

void add_multicast_route()
{
    const ShellCommand command("if ! /sbin/route | grep 224.0.0.0 >/dev/null ; then  "
                               "/sbin/route add -net 224.0.0.0 netmask 240.0.0.0 dev eth0 ; fi");
    const int status = exit_status(run_shell(command));
    if (status == 0)
        log_message(LEVEL_DEBUG, "%s:%d: Added multicast route", HERE);
    else
        log_message(LEVEL_NOTICE, "%s: System call '%s' returned %d", __func__, command.text(), status);
}
