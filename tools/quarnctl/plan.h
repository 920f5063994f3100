// plan.h: from the values that are wanted to the requests that bring them about.
#pragma once

#include "core/owned.h"

#include <string>
#include <vector>

namespace quarnctl {

// What stands against a request: an entry of the daemon's error list, or one of our own in its form.
struct Fault {
    // Empty where it concerns no single setting.
    std::string key;
    int code = 0;
    std::string message;
};

// The daemon's codes (api/json_response.h) that our own faults use.
inline constexpr int CODE_INTERNAL = 1;
inline constexpr int CODE_MALFORMED = 2;
inline constexpr int CODE_WRONG_FORM = 3;
inline constexpr int CODE_UNKNOWN_KEY = 7;
inline constexpr int CODE_REPEATED_KEY = 8;
inline constexpr int CODE_COMBINATION = 10;

struct Change {
    std::string key;
    OwnedJson before;
    OwnedJson after;
};

struct Plan {
    // In table order.
    std::vector<Change> changes;
    // To be sent one after the other; one that is refused ends the plan.
    std::vector<OwnedJson> requests;
    // What cannot be brought about, and stays as it is; no reason to refuse the rest.
    std::vector<Fault> left_alone;
    // Not empty: nothing may be sent.
    std::vector<Fault> faults;
};

// Whether values that are there already are sent again: the daemon then carries them out anew, or mends a
// boot environment whose last write failed.
enum class Unchanged { SENT, LEFT_OUT };

// The keys whose current values make_plan must know: those wanted, and those that hang together with them.
std::vector<std::string> keys_to_read(const cJSON* wanted);

// `wanted` and `current` are objects of settings; every key is one of the catalogue.
Plan make_plan(const cJSON* wanted, const cJSON* current, Unchanged unchanged);

// What brings the settings that a plan touches back to what they are now.
OwnedJson values_to_restore(const Plan& plan, const cJSON* current);

} // namespace quarnctl
