// net/ipv6_kernel.h: the kernel's IPv6 switches.
#pragma once

// From "[IPv6]Enabled". False when the switch cannot be opened.
bool set_ipv6_kernel_flag();

// From "[IPv6/Stateless]AcceptRA", if IPv6 is enabled; what was learned from router advertisements goes when
// they are no longer accepted. False when the switch cannot be opened.
bool set_accept_ra();
