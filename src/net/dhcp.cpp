#include "net/dhcp.h"

#include "core/console.h"
#include "core/log.h"
#include "core/shell.h"
#include "net/client_processes.h"
#include "net/netlink.h"
#include "settings/setting_store.h"

namespace {

constexpr ClientProgram DHCPV4_CLIENT = {"udhcpc", "eth0", "/var/run/udhcpc.eth0.pid"};
constexpr ClientProgram DHCPV6_CLIENT = {"dhclient", "eth0", "/var/run/dhclient6.pid"};

// What a client reports, in the order in which it is taken back.
constexpr const char* DHCPV4_KEYS[] = {"[IPv4/DHCP]Address",     "[IPv4/DHCP]Netmask",
                                       "[IPv4/DHCP]Gateways",    "[NTP/IPv4/DHCP]Servers",
                                       "[DNS/IPv4/DHCP]Servers", "[DNS/IPv4/DHCP]Search"};
constexpr const char* DHCPV6_KEYS[] = {"[IPv6/Stateful]Addresses", "[NTP/IPv6/DHCP]Servers",
                                       "[DNS/IPv6/DHCP]Servers", "[DNS/IPv6/DHCP]Search"};

// The kill command for a family. Around it the pid file is kept from naming a stranger, and clients that it
// does not reach are ended too.
int kill_client(const ClientProgram& program, const ShellCommand& command)
{
    remove_stale_pid_file(program);
    const int status = exit_status(run_shell(command));
    end_client_processes(program);
    return status;
}

ShellCommand kill_command(const ClientProgram& program)
{
    return ShellCommand("/bin/kill `cat %s 2>/dev/null` 2>/dev/null", program.pid_file);
}

// The blanks are part of the text: two before each "-x", one at the end.
ShellCommand dhcpv4_command()
{
    const OwnedText hostname = get_string("[Hostname]Name");
    const OwnedText mac = quarn_get_mac_addr();
    ShellCommand command("/sbin/udhcpc -p %s -i eth0 -T10 -t2 -A60 -f -a -S  -x hostname:",
                         DHCPV4_CLIENT.pid_file);
    command.append_quoted(hostname ? hostname.get() : "");
    command.append("  -x 0x3d:01");
    command.append_quoted(mac ? mac.get() : "");
    command.append(" ");
    return command;
}

} // namespace

void stop_any_dhcpv4()
{
    log_message(LEVEL_INFO, "%s: Stopping any running DHCPv4 client", __func__);
    const ShellCommand command = kill_command(DHCPV4_CLIENT);
    const int status = kill_client(DHCPV4_CLIENT, command);
    if (status != 0)
        log_message(LEVEL_DEBUG, "%s:%d: Received code %d on '%s'", HERE, status, command.text());
}

void start_dhcpv4()
{
    stop_any_dhcpv4();
    if (!get_bool("[IPv4/DHCP]Enabled")) {
        for (const char* key : DHCPV4_KEYS)
            restore_setting_default(key);
        return;
    }
    const ShellCommand command = dhcpv4_command();
    log_message(LEVEL_DEBUG, "%s:%d: DHCPv4 is enabled.  Starting client: '%s'", HERE, command.text());
    if (!start_in_background(command)) {
        log_message(LEVEL_WARNING, "%s: Couldn't start dhcpv4 with '%s'", __func__, command.text());
        return;
    }
    print_console(__func__, "Started IPv4 DHCP client in background");
}

void stop_any_dhcpv6()
{
    log_message(LEVEL_INFO, "%s: Stopping any running DHCPv6 client", __func__);
    const ShellCommand command = kill_command(DHCPV6_CLIENT);
    if (command.refused()) {
        log_message(LEVEL_CRITICAL, "%s:%d: g_strdup_printf failure", HERE);
        return;
    }
    const int status = kill_client(DHCPV6_CLIENT, command);
    if (status != 0)
        log_message(LEVEL_DEBUG, "%s:%d: Received code %d on '%s'", HERE, status, command.text());
}

void start_dhcpv6()
{
    stop_any_dhcpv6();
    if (!get_bool("[IPv6]Enabled") || !get_bool("[IPv6/Stateful]Enabled")) {
        for (const char* key : DHCPV6_KEYS)
            restore_setting_default(key);
        return;
    }
    const ShellCommand command("/usr/sbin/dhclient -6 -cf /etc/isc-dhcp/isc_dhclient6.conf -pf %s eth0",
                               DHCPV6_CLIENT.pid_file);
    if (command.refused()) {
        log_message(LEVEL_CRITICAL, "%s:%d: g_strdup_printf failure", HERE);
        return;
    }
    log_message(LEVEL_DEBUG, "%s:%d: DHCPv6 is enabled.  Starting client: '%s'", HERE, command.text());
    if (!start_in_background(command)) {
        log_message(LEVEL_WARNING, "%s: Couldn't start DHCPv6 client with '%s'", __func__, command.text());
        return;
    }
    print_console(__func__, "Started DHCPv6 client in background");
}
