// link_local.h: the address without which a DHCPv6 client cannot begin.
#pragma once

#include <sys/types.h>

// Waits until eth0's IPv6 link-local address may be used, that is, no longer waits for its duplicates to
// answer. False after some five seconds without, or when the client, the caller's parent, has ended.
bool wait_for_link_local(pid_t client);
