// core/notify.h: changes of eth0's addresses and MTU, announced as signals on the message bus, one for each
// turn of the main loop.
#pragma once

#include <glib.h>

#include <cstdint>

struct MsgBus;

// Bits of the pending-signal flags, in the order in which they are served.
inline constexpr std::uint32_t SIGNAL_IPV4_ADDRESS_CHANGED = 0x1;
inline constexpr std::uint32_t SIGNAL_IPV6_ADDRESSES_ADDED = 0x2;
inline constexpr std::uint32_t SIGNAL_IPV6_ADDRESSES_REMOVED = 0x4;
inline constexpr std::uint32_t SIGNAL_MTU_CHANGED = 0x8;

// A source with room for the flag word behind it; the caller attaches, destroys and releases it.
GSource* create_signal_source();
std::uint32_t* signal_flags_of(GSource* source);

// Remembers where the flags are and makes the queues; from then on changes can be marked. The bus is where
// send_signals sends to.
void init_signal_queues(std::uint32_t* flags, MsgBus* bus);
void clear_signal_queues();

void mark_signal_flag(std::uint32_t bit);
// Source callback (its data is the flag word): sends the first pending signal. G_SOURCE_REMOVE when the bus
// refused it, which ends the announcements for good.
gboolean send_signals(gpointer flags);

enum class Notify { QUEUE_ONLY, MARK };
// Compares the kernel's addresses with those remembered from the last call, queues what came and went, and
// remembers the new ones. True when anything changed.
bool detect_address_changes(Notify notify);
