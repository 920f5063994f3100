// example_platform.h: what a test sees of the example platform. All of it lives in memory, and is as new
// after reset().
#pragma once

#include <map>
#include <string>
#include <vector>

namespace example {

struct Platform {
    // The settings store by dotted key, and what waits for the commit.
    std::map<std::string, std::string> stored;
    std::map<std::string, std::string> uncommitted;
    // The boot environment by variable.
    std::map<std::string, std::string> environment;
    // "name argument" of each broadcast.
    std::vector<std::string> signals;
    // "priority text" of each message.
    std::vector<std::string> log;
};

Platform& platform();
void reset();

// Calls the provider as a client of the bus does: "api_get" or "api_set". Empty when there is no answer.
std::string call(const std::string& method, const std::string& request);

} // namespace example
