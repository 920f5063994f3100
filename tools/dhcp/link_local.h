// link_local.h: the address without which a DHCPv6 client cannot begin.
#pragma once

// Waits until eth0's IPv6 link-local address may be used, that is, no longer waits for its duplicates to
// answer. False after some five seconds without.
bool wait_for_link_local();
