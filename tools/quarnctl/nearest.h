// nearest.h: what a mistyped name may have meant.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace quarnctl {

// How many letters must be changed, put in or left out, or neighbours swapped, to make one of the other.
// Capitals count as the small letters.
unsigned edit_distance(std::string_view first, std::string_view second);

// The keys nearest to `key`, at most three, the nearest first; those that hold it as a part come first of
// all. Empty when none is near.
std::vector<std::string> nearest_keys(std::string_view key);

// "; did you mean A, B or C?", or nothing.
std::string suggestion_for(std::string_view key);

} // namespace quarnctl
