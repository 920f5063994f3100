// net/ipv4_addresses.h: which IPv4 address eth0 gets, and putting it there: a lease, a manual address, a
// link-local one, or the fallback in 192.168.0.0/24.
#pragma once

#include "core/owned.h"

// What "[IPv4/DHCP]Address" holds when a lease was lost.
inline constexpr char LOST_LEASE[] = "0.0.0.0";

// Configures the address of eth0 and of its alias eth0:1.
bool set_ipv4_addresses();

// One address on eth0 (empty suffix) or on the alias (":1").
bool _do_ifconfig(const char* label_suffix, const char* address, unsigned prefix_length);

// A free address of 169.254.0.0/16, probed and stored. Never null; may probe for seconds, and gives up with
// an unproven one when the daemon is told to end.
OwnedText _get_unused_ipv4_link_local_address();

// The link-local address that was put on eth0 beside the fallback alias, once there was one; else empty.
const char* current_ipv4_linklocal_text();
