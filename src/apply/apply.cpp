#include "apply/apply.h"

#include "core/log.h"
#include "core/notify.h"
#include "net/dhcp.h"
#include "net/ethtool.h"
#include "net/ipv4_addresses.h"
#include "net/ipv6_addresses.h"
#include "net/ipv6_kernel.h"
#include "net/link.h"
#include "net/routes.h"
#include "services/hostname.h"
#include "services/ntp.h"
#include "services/packet_filter.h"
#include "services/resolver.h"
#include "services/traffic_shaping.h"
#include "services/web_server.h"
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
        construct_default_hostname();
    }
    if (flags & APPLY_HOSTNAME) {
        log_message(LEVEL_INFO, "%s: Setting hostname", __func__);
        quarn_write_hostname();
        ok &= run_hostname_command();
    }
    if (flags & APPLY_NIC) {
        log_message(LEVEL_INFO, "%s: Using ethtool ioctl to set up NIC", __func__);
        ok &= apply_ethtool();
    }
    if (flags & APPLY_IPV4_ADDR) {
        log_message(LEVEL_INFO, "%s: Applying IPv4 Addresses", __func__);
        ok &= set_ipv4_addresses();
    }
    if (flags & APPLY_IPV6_ADDR) {
        log_message(LEVEL_INFO, "%s: If IPv6 enabled, applying IPv6 addresses", __func__);
        ok &= set_ipv6_addresses();
    }
    if (flags & APPLY_RESOLV) {
        log_message(LEVEL_INFO, "%s: Writing resolv.conf", __func__);
        quarn_write_resolvconf();
    }
    if (flags & APPLY_WEBSERVER) {
        disable_ssl_on_no_cert();
        // Kept as it is: log filters in the field know this misspelling.
        log_message(LEVEL_INFO, "%s: Writting Nginx port configuration", __func__);
        quarn_write_nginxconf();
        if (restart) {
            log_message(LEVEL_INFO, "%s: Reloading Nginx webserver configuration", __func__);
            reload_webserver();
        }
    }
    // The IPv4 filter is written for a change of either, the IPv6 one only for its own.
    if (flags & (APPLY_IPTABLES | APPLY_IP6TABLES)) {
        log_message(LEVEL_INFO, "%s: Writing and applying iptables restore file", __func__);
        ok &= apply_iptables();
    }
    if (flags & APPLY_IP6TABLES) {
        log_message(LEVEL_INFO, "%s: Writing and applying ip6tables restore file", __func__);
        ok &= apply_ip6tables();
    }
    if (flags & APPLY_IPV4_ROUTES) {
        log_message(LEVEL_INFO, "%s: Applying IPv4 routes", __func__);
        ok &= set_ipv4_routes();
    }
    if (flags & APPLY_IPV6_ROUTES) {
        log_message(LEVEL_INFO, "%s: If IPv6 enabled, applying IPv6 routes", __func__);
        ok &= remove_ipv6_user_gateways();
    }
    if (flags & APPLY_DHCPV4) {
        log_message(LEVEL_INFO, "%s: If DHCPv4 enabled, start it", __func__);
        start_dhcpv4();
    }
    if (flags & APPLY_DHCPV6) {
        log_message(LEVEL_INFO, "%s: If IPv6 and DHCPv6 enabled, start the DHCPv6 client", __func__);
        start_dhcpv6();
    }
    if (flags & APPLY_MTU) {
        log_message(LEVEL_INFO, "%s: Set the MTU on eth0", __func__);
        ok &= set_mtu();
        if (restart)
            mark_signal_flag(SIGNAL_MTU_CHANGED);
    }
    if (flags & APPLY_NTP) {
        log_message(LEVEL_INFO, "%s: Writing ntp.conf", __func__);
        quarn_write_ntpconf();
        if (restart) {
            log_message(LEVEL_INFO, "%s: Reloading NTPd", __func__);
            ok &= reload_ntp_keeper();
        }
    }
    if (flags & APPLY_TRAFFIC_SHAPING) {
        log_message(LEVEL_INFO, "%s: Applying traffic shaping rules", __func__);
        ok &= quarn_apply_trafficshape_tree();
    }
    if (flags & APPLY_TRAFFIC_PORTS) {
        log_message(LEVEL_INFO, "%s: Applying traffic shaping filter rules for dynamic ports", __func__);
        ok &= quarn_apply_trafficshape_ports();
    }
    detect_address_changes(Notify::MARK);
    return ok;
}
