// apply/apply.h: turns apply flags into configuration actions, in one fixed order.
#pragma once

#include <cstdint>

enum class ApplyRun { START_UP = 0, LIVE_CHANGE = 1 };

// Carries out the actions that the flags name. True when every checked action succeeded; a failed one stops
// nothing. Running services are reloaded, and a change of the MTU is announced, only for a live change.
bool apply_settings(std::uint32_t flags, ApplyRun run);
