#include "core/notify.h"

#include "core/ipv4_text.h"
#include "core/log.h"
#include "core/owned.h"
#include "msgbus.h"
#include "net/netlink.h"
#include "settings/setting_store.h"

#include <cstring>

namespace {

struct SignalSource {
    GSource source;
    std::uint32_t flags;
};

gboolean is_signal_pending(GSource* source)
{
    return *signal_flags_of(source) != 0;
}

gboolean prepare_signals(GSource* source, gint* timeout)
{
    *timeout = -1;
    return is_signal_pending(source);
}

gboolean dispatch_signals(GSource* /*source*/, GSourceFunc callback, gpointer data)
{
    return callback != nullptr && callback(data) ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

GSourceFuncs signal_source_functions = {prepare_signals, is_signal_pending, dispatch_signals,
                                        nullptr,         nullptr,           nullptr};

std::uint32_t* pending_flags = nullptr;
MsgBus* signal_bus = nullptr;
OwnedTextQueue added_addresses(g_queue_new());
OwnedTextQueue removed_addresses(g_queue_new());

NetlinkInfoList remembered_ipv4;
NetlinkInfoList remembered_ipv6;

// A signal that carries a text: one from its queue, or, without a queue, the current IPv4 address.
struct TextSignal {
    std::uint32_t bit;
    const char* name;
    const OwnedTextQueue* queue;
    int (*notify)(MsgBus* bus, const char* text);
};
const TextSignal TEXT_SIGNALS[] = {
    {SIGNAL_IPV4_ADDRESS_CHANGED, "IPv4AddressChange", nullptr,
     com_vesko_networkingV2_IPv4AddressChange_notify},
    {SIGNAL_IPV6_ADDRESSES_ADDED, "IPv6AddressAdded", &added_addresses,
     com_vesko_networkingV2_IPv6AddressAdded_notify},
    {SIGNAL_IPV6_ADDRESSES_REMOVED, "IPv6AddressRemoved", &removed_addresses,
     com_vesko_networkingV2_IPv6AddressRemoved_notify},
};

// Empty or null when there is nothing to send.
OwnedText take_text(const TextSignal& signal)
{
    if (signal.queue != nullptr)
        return OwnedText(static_cast<char*>(g_queue_pop_head(signal.queue->get())));
    const NetlinkInfoList record = quarn_get_ipv4_addr();
    return OwnedText(record != nullptr ? g_strdup(record->text) : nullptr);
}

bool is_served(const TextSignal& signal)
{
    return signal.queue == nullptr || g_queue_is_empty(signal.queue->get());
}

bool is_new_ipv4_address(const quarn_netlink_info* current)
{
    if (current == nullptr)
        return false;
    return remembered_ipv4 == nullptr ||
           ipv4_str_to_uint(remembered_ipv4->text) != ipv4_str_to_uint(current->text);
}

// True when there was anything to move.
bool append_all(const OwnedTextQueue& queue, const OwnedTextQueue& texts)
{
    const bool has_texts = !g_queue_is_empty(texts.get());
    while (!g_queue_is_empty(texts.get()))
        g_queue_push_tail(queue.get(), g_queue_pop_head(texts.get()));
    return has_texts;
}

} // namespace

GSource* create_signal_source()
{
    // g_source_new zeroes what it makes: no signal is pending.
    return g_source_new(&signal_source_functions, sizeof(SignalSource));
}

std::uint32_t* signal_flags_of(GSource* source)
{
    return &reinterpret_cast<SignalSource*>(source)->flags;
}

void init_signal_queues(std::uint32_t* flags, MsgBus* bus)
{
    clear_signal_queues();
    pending_flags = flags;
    *pending_flags = 0;
    signal_bus = bus;
}

void clear_signal_queues()
{
    g_queue_clear_full(added_addresses.get(), g_free);
    g_queue_clear_full(removed_addresses.get(), g_free);
    // The flags go with their source: nothing can be marked any more.
    pending_flags = nullptr;
}

void mark_signal_flag(std::uint32_t bit)
{
    log_message(LEVEL_DEBUG, "%s:%d: Adding signal flag 0X%X", HERE, bit);
    if (pending_flags == nullptr)
        return;
    *pending_flags |= bit;
    g_main_context_wakeup(nullptr);
}

gboolean send_signals(gpointer data)
{
    auto& flags = *static_cast<std::uint32_t*>(data);
    log_message(LEVEL_DEBUG, "%s:%d: Sending signals.  Flags=0X%4X", HERE, flags);
    for (const TextSignal& signal : TEXT_SIGNALS) {
        if ((flags & signal.bit) == 0)
            continue;
        const OwnedText text = take_text(signal);
        if (is_served(signal))
            flags &= ~signal.bit;
        if (text == nullptr || *text == '\0')
            return G_SOURCE_CONTINUE;
        const int result = signal.notify(signal_bus, text.get());
        log_message(LEVEL_DEBUG, "%s:%d: Sending DBUS Signal %s=%s", HERE, signal.name, text.get());
        return result;
    }
    if ((flags & SIGNAL_MTU_CHANGED) == 0)
        return G_SOURCE_CONTINUE;
    const int mtu = get_int("[NIC/eth0]MTU");
    const int result = com_vesko_networkingV2_MTUChange_notify(signal_bus, mtu);
    log_message(LEVEL_DEBUG, "%s:%d: Sending DBUS Signal %s=%d", HERE, "MTUChange", mtu);
    flags &= ~SIGNAL_MTU_CHANGED;
    return result;
}

bool detect_address_changes(Notify notify)
{
    NetlinkInfoList ipv4 = quarn_get_ipv4_addr();
    NetlinkInfoList ipv6 = get_bool("[IPv6]Enabled") ? quarn_get_ipv6_addrs(LinkLocal::LEFT_OUT) : nullptr;
    const bool is_ipv4_new = is_new_ipv4_address(ipv4.get());
    const bool has_added =
        append_all(added_addresses, ipv6_list_difference(remembered_ipv6.get(), ipv6.get()));
    const bool has_removed =
        append_all(removed_addresses, ipv6_list_difference(ipv6.get(), remembered_ipv6.get()));
    if (notify == Notify::MARK) {
        if (is_ipv4_new)
            mark_signal_flag(SIGNAL_IPV4_ADDRESS_CHANGED);
        if (has_added)
            mark_signal_flag(SIGNAL_IPV6_ADDRESSES_ADDED);
        if (has_removed)
            mark_signal_flag(SIGNAL_IPV6_ADDRESSES_REMOVED);
    }
    remembered_ipv4 = std::move(ipv4);
    remembered_ipv6 = std::move(ipv6);
    return is_ipv4_new || has_added || has_removed;
}
