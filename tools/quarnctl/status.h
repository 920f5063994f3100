// status.h: the camera's network on one screen.
#pragma once

#include "session.h"

#include <string>
#include <vector>

namespace quarnctl {

int run_status(Session& session);

// Pure, for tests. `values` holds the settings that could be read.
std::vector<std::string> status_keys();
struct ActualAddress {
    std::string text;
    // "DHCP", "manual", "link-local", "router advertisement", "fallback".
    const char* origin;
};
std::vector<ActualAddress> actual_addresses(const cJSON* values);
std::vector<std::string> what_is_wrong(const cJSON* values);

} // namespace quarnctl
