// net/dhcp.h: the DHCP clients of eth0: udhcpc for IPv4, dhclient for DHCPv6. They run beside the daemon and
// report what they learn through api_set; at most one of each family runs.
#pragma once

// Ends every client of the family that is ours, wherever its pid file may be.
void stop_any_dhcpv4();
void stop_any_dhcpv6();

// Stops the family's client, then starts it if the settings want it; else what it had learned goes back to
// the defaults.
void start_dhcpv4();
void start_dhcpv6();
