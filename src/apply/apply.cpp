#include "apply/apply.h"

#include "core/log.h"
#include "core/notify.h"
#include "net/ipv4_addresses.h"
#include "net/ipv6_addresses.h"
#include "net/ipv6_kernel.h"
#include "net/link.h"
#include "settings/setting_def.h"

// The order is the meaning: links before addresses, addresses before what is bound to them (an address change
// drops the routes), and the comparison of addresses last.
bool apply_settings(std::uint32_t flags, ApplyRun run)
{
    const bool restart = run == ApplyRun::LIVE_CHANGE;
    bool ok = true;
    log_message(LEVEL_DEBUG, "%s:%d: Apply Flags: 0x%08X (restart=%d)", HERE, flags, restart);

    if (flags & APPLY_INIT) {
        if (detect_address_changes(Notify::QUEUE_ONLY))
            log_message(LEVEL_DEBUG, "%s:%d: Detected initial ip addresses on quarn boot.", HERE);
    }
    if (flags & APPLY_IPV6_KERNEL) {
        log_message(LEVEL_INFO, "%s: Setting IPv6 kernel flag", __func__);
        ok &= set_ipv6_kernel_flag();
    }
    if (flags & APPLY_ACCEPT_RA) {
        log_message(LEVEL_INFO, "%s: Turning accept_ra on/off", __func__);
        ok &= set_accept_ra();
    }
    if (flags & APPLY_INIT) {
        log_message(LEVEL_INFO, "%s: Initializing lo and eth0", __func__);
        ok &= link_lo_up();
        ok &= link_eth0_up();
    }
    if (flags & APPLY_IPV4_ADDR) {
        log_message(LEVEL_INFO, "%s: Applying IPv4 Addresses", __func__);
        ok &= set_ipv4_addresses();
    }
    if (flags & APPLY_IPV6_ADDR) {
        log_message(LEVEL_INFO, "%s: If IPv6 enabled, applying IPv6 addresses", __func__);
        ok &= set_ipv6_addresses();
    }
    if (flags & APPLY_MTU) {
        log_message(LEVEL_INFO, "%s: Set the MTU on eth0", __func__);
        ok &= set_mtu();
        if (restart)
            mark_signal_flag(SIGNAL_MTU_CHANGED);
    }
    detect_address_changes(Notify::MARK);
    return ok;
}
