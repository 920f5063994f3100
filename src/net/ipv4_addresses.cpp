#include "net/ipv4_addresses.h"

#include "core/console.h"
#include "core/ipv4_text.h"
#include "core/log.h"
#include "core/shell.h"
#include "core/signals.h"
#include "net/netlink.h"
#include "net/routes.h"
#include "settings/setting_store.h"

#include <arpa/inet.h>

#include <cstring>

namespace {

constexpr char LINK_LOCAL_KEY[] = "[IPv4/LocalLink]Address";
constexpr char FALLBACK_KEY[] = "[IPv4/VeskoConf]Address";

constexpr int LINK_LOCAL_PREFIX_LENGTH = 16;
constexpr int FALLBACK_PREFIX_LENGTH = 24;
constexpr std::uint8_t FIRST_FALLBACK_HOST = 20;
constexpr std::uint8_t LAST_FALLBACK_HOST = 254;
// Third and fourth octet of the link-local network's broadcast address.
constexpr std::uint32_t LINK_LOCAL_BROADCAST = 0xFFFF;

char current_ipv4_linklocal[INET_ADDRSTRLEN] = "";

// What goes on eth0 and on its alias; an address may be null.
struct Ipv4Choice {
    OwnedText primary;
    int primary_length = 0;
    OwnedText secondary;
    int secondary_length = 0;
    // The daemon was told to end before the addresses were proven.
    bool is_abandoned = false;
};

enum class Probe { FREE, TAKEN, NOT_POSSIBLE };

Probe probe_ipv4_address(const char* address)
{
    const int status = exit_status(run_shell(ShellCommand("/usr/sbin/arping -D -c2 %s", address)));
    if (status == CANNOT_RUN_STATUS || status == NOT_FOUND_STATUS) {
        log_message(LEVEL_ERROR, "%s: Can't probe %s, arping returned %d", __func__, address, status);
        return Probe::NOT_POSSIBLE;
    }
    return status == 0 ? Probe::FREE : Probe::TAKEN;
}

bool is_ipv4_address(const char* text)
{
    return ipv4_str_to_uint(text) != 0;
}

OwnedText draw_link_local_address()
{
    std::uint32_t drawn = g_random_int();
    if ((drawn & LINK_LOCAL_BROADCAST) == LINK_LOCAL_BROADCAST)
        drawn -= 1;
    return OwnedText(g_strdup_printf("169.254.%hhu.%hhu", static_cast<std::uint8_t>(drawn >> 8),
                                     static_cast<std::uint8_t>(drawn)));
}

// The remembered fallback while nobody else has it, else the first free one, which is then remembered. Null
// when none is free or the daemon is told to end.
OwnedText find_fallback_address()
{
    OwnedText remembered = get_string(FALLBACK_KEY);
    if (is_ipv4_address(remembered.get()) && probe_ipv4_address(remembered.get()) != Probe::TAKEN)
        return remembered;
    OwnedText found;
    for (int host = FIRST_FALLBACK_HOST; host <= LAST_FALLBACK_HOST && found == nullptr; ++host) {
        if (termination_requested())
            return nullptr;
        OwnedText candidate(g_strdup_printf("192.168.0.%hhu", static_cast<std::uint8_t>(host)));
        if (probe_ipv4_address(candidate.get()) != Probe::TAKEN)
            found = std::move(candidate);
    }
    save_text_setting(FALLBACK_KEY, found.get(), Unchanged::SKIPPED);
    return found;
}

Ipv4Choice choose_without_lease()
{
    Ipv4Choice choice;
    if (get_bool("[IPv4/LocalLink]Enabled")) {
        choice.primary = _get_unused_ipv4_link_local_address();
        choice.primary_length = LINK_LOCAL_PREFIX_LENGTH;
        choice.secondary = find_fallback_address();
        choice.secondary_length = FALLBACK_PREFIX_LENGTH;
    } else {
        choice.primary = find_fallback_address();
        choice.primary_length = FALLBACK_PREFIX_LENGTH;
    }
    choice.is_abandoned = termination_requested();
    return choice;
}

Ipv4Choice choose_addresses()
{
    const bool has_dhcp = get_bool("[IPv4/DHCP]Enabled");
    Ipv4Choice choice;
    choice.primary = get_string(has_dhcp ? "[IPv4/DHCP]Address" : "[IPv4/Manual]Address");
    choice.primary_length = get_int(has_dhcp ? "[IPv4/DHCP]Netmask" : "[IPv4/Manual]Netmask");
    return has_dhcp && choice.primary == nullptr ? choose_without_lease() : std::move(choice);
}

// The lease is lost: link-local is what remains.
bool configure_link_local_alone()
{
    if (!get_bool("[IPv4/LocalLink]Enabled"))
        return false;
    if (*current_ipv4_linklocal != '\0')
        return _do_ifconfig("", current_ipv4_linklocal, LINK_LOCAL_PREFIX_LENGTH);
    const OwnedText address = _get_unused_ipv4_link_local_address();
    return !termination_requested() && _do_ifconfig("", address.get(), LINK_LOCAL_PREFIX_LENGTH);
}

bool configure(const Ipv4Choice& choice)
{
    if (std::strcmp(choice.primary.get(), LOST_LEASE) == 0)
        return configure_link_local_alone();
    if (choice.secondary == nullptr)
        run_shell(ShellCommand("/sbin/ifconfig eth0:1 down"));
    bool succeeded = _do_ifconfig("", choice.primary.get(), static_cast<unsigned>(choice.primary_length));
    if (succeeded && choice.secondary != nullptr)
        succeeded =
            _do_ifconfig(":1", choice.secondary.get(), static_cast<unsigned>(choice.secondary_length));
    // A change of the address has dropped it.
    add_multicast_route();
    return succeeded;
}

// Only the address beside the fallback alias is remembered, once, whether or not it could be set.
void remember_link_local(const Ipv4Choice& choice)
{
    const bool has_room =
        *current_ipv4_linklocal == '\0' && std::strlen(choice.primary.get()) < INET_ADDRSTRLEN;
    if (choice.secondary != nullptr && has_room)
        g_strlcpy(current_ipv4_linklocal, choice.primary.get(), sizeof current_ipv4_linklocal);
}

} // namespace

bool set_ipv4_addresses()
{
    const Ipv4Choice choice = choose_addresses();
    if (choice.is_abandoned)
        return false;
    if (is_nfs_mounted()) {
        log_message(LEVEL_WARNING, "%s: Not changing ip config because of NFS mount", __func__);
        add_multicast_route();
        return true;
    }
    if (choice.primary == nullptr || choice.primary_length == 0) {
        log_message(LEVEL_INFO, "%s: Deconfiguring eth0", __func__);
        run_shell(ShellCommand("/sbin/ifconfig eth0:1 down"));
        run_shell(ShellCommand("/sbin/ifconfig eth0 0.0.0.0"));
        return true;
    }
    const bool succeeded = configure(choice);
    remember_link_local(choice);
    return succeeded;
}

bool _do_ifconfig(const char* label_suffix, const char* address, unsigned prefix_length)
{
    const OwnedText interface(g_strconcat("eth0", label_suffix, nullptr));
    const OwnedText netmask = prefix_to_netmask(prefix_length);
    const std::uint32_t host_bits =
        (std::uint32_t{1} << ((IPV4_ADDRESS_BITS - prefix_length) % IPV4_ADDRESS_BITS)) - 1;
    const std::uint32_t broadcast = ipv4_str_to_uint(address) | host_bits;
    log_message(LEVEL_INFO, "%s: Setting IPv4 address=%s/%d", __func__, address,
                static_cast<int>(prefix_length));
    const ShellCommand command(
        "/sbin/ifconfig %s %s netmask %s broadcast %hhu.%hhu.%hhu.%hhu", interface.get(), address,
        netmask.get(), static_cast<std::uint8_t>(broadcast >> 24), static_cast<std::uint8_t>(broadcast >> 16),
        static_cast<std::uint8_t>(broadcast >> 8), static_cast<std::uint8_t>(broadcast));
    log_message(LEVEL_DEBUG, "%s:%d: Running '%s'", HERE, command.text());
    const int status = exit_status(run_shell(command));
    if (status != 0) {
        log_message(LEVEL_ERROR, "%s: ifconfig returned %d", __func__, status);
        return false;
    }
    print_console(__func__, "Set eth0 IPv4 address %s/%d", address, static_cast<int>(prefix_length));
    return true;
}

OwnedText _get_unused_ipv4_link_local_address()
{
    OwnedJson value;
    const SettingDef* row = find_setting(LINK_LOCAL_KEY);
    if (row == nullptr || !read_setting(row, value))
        log_message(LEVEL_ERROR, "%s: JSON key %s fails read_setting", __func__, LINK_LOCAL_KEY);
    if (cJSON_IsString(value.get()) && is_ipv4_address(value->valuestring)) {
        OwnedText remembered(g_strdup(value->valuestring));
        if (remembered == nullptr)
            log_message(LEVEL_CRITICAL, "%s:%d: out of memory", HERE);
        else if (probe_ipv4_address(remembered.get()) != Probe::TAKEN)
            return remembered;
    }
    OwnedText candidate = draw_link_local_address();
    while (!termination_requested() && probe_ipv4_address(candidate.get()) == Probe::TAKEN)
        candidate = draw_link_local_address();
    if (!termination_requested())
        save_text_setting(LINK_LOCAL_KEY, candidate.get(), Unchanged::WRITTEN);
    return candidate;
}

const char* current_ipv4_linklocal_text()
{
    return current_ipv4_linklocal;
}
