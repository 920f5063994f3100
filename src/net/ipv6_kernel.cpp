#include "net/ipv6_kernel.h"

#include "core/console.h"
#include "core/shell.h"
#include "settings/setting_store.h"

#include <fcntl.h>

namespace {

bool write_switch(const char* path, bool on)
{
    const OwnedDescriptor file(open(path, O_WRONLY | O_TRUNC | O_CLOEXEC));
    return file.is_open() && write(file.get(), on ? "1" : "0", 1) == 1;
}

} // namespace

bool set_ipv6_kernel_flag()
{
    return write_switch("/proc/sys/net/ipv6/conf/all/disable_ipv6", !get_bool("[IPv6]Enabled"));
}

bool set_accept_ra()
{
    if (!get_bool("[IPv6]Enabled"))
        return true;
    const bool accept = get_bool("[IPv6/Stateless]AcceptRA");
    if (!write_switch("/proc/sys/net/ipv6/conf/default/accept_ra", accept))
        return false;
    // The kernel copies the default only to interfaces that are made later; eth0 is there already. Its file
    // is missing while the MTU is too small for IPv6.
    write_switch("/proc/sys/net/ipv6/conf/eth0/accept_ra", accept);
    print_console(__func__, "Now %s IPv6 router advertisements", accept ? "accepting" : "ignoring");
    if (!accept)
        run_shell(ShellCommand(
            "for ADDR in $(ip -6 addr show eth0 | grep \"scope global dynamic\" | cut -d ' ' -f 6); "
            "do ip addr del $ADDR dev eth0; done"));
    return true;
}
