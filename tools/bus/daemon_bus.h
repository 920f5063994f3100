// daemon_bus.h: where the programs beside the daemon find it on the bus, and who owns what they hold of the
// bus.
#pragma once

#include "core/owned.h"

#include <systemd/sd-bus.h>

// The bus name, and the interface of the one object.
inline constexpr char DAEMON[] = "com.vesko.networkingV2";
inline constexpr char DAEMON_PATH[] = "/com/vesko/networkingV2";

using OwnedBus = std::unique_ptr<sd_bus, Releaser<sd_bus_flush_close_unref>>;
using OwnedMessage = std::unique_ptr<sd_bus_message, Releaser<sd_bus_message_unref>>;
