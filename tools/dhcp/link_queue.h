// link_queue.h: the queue of packets that leave through eth0. Traffic shaping puts another in the place of
// the kernel's, and what is sent in that moment is lost: of a client its first question, after which it waits
// for ten seconds.
#pragma once

#include <sys/types.h>

// Waits until the kernel's first queue has been replaced. Returns after half a second in any case, since eth0
// may be unshaped for good, and when the client, the caller's parent, has ended.
void wait_for_shaping(pid_t client);
