#include "link_local.h"

#include "core/owned.h"

#include <linux/if_addr.h>

#include <cstring>

namespace {

constexpr gint64 PATIENCE = gint64(5) * G_USEC_PER_SEC;
constexpr gulong PAUSE = G_USEC_PER_SEC / 50;

bool has_usable_link_local()
{
    const OwnedFile addresses(std::fopen("/proc/net/if_inet6", "re"));
    char address[33];
    char interface[17];
    unsigned flags = 0;
    while (addresses &&
           std::fscanf(addresses.get(), "%32s %*x %*x %*x %x %16s", address, &flags, interface) == 3) {
        const bool is_usable = (flags & (IFA_F_TENTATIVE | IFA_F_DADFAILED)) == 0;
        if (std::strcmp(interface, "eth0") == 0 && std::strncmp(address, "fe80", 4) == 0 && is_usable)
            return true;
    }
    return false;
}

} // namespace

bool wait_for_link_local(pid_t client)
{
    const gint64 deadline = g_get_monotonic_time() + PATIENCE;
    while (!has_usable_link_local()) {
        if (getppid() != client || g_get_monotonic_time() >= deadline)
            return false;
        g_usleep(PAUSE);
    }
    return true;
}
