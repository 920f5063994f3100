// files.h: where the platform's files are, and how they are read and replaced.
#pragma once

#include "owners.h"

#include <string>
#include <string_view>

namespace platform {

// The first directory of $STATE_DIRECTORY, else /var/lib/quarn.
std::string state_directory();
// $QUARN_CONFIGURATION_DIRECTORY, else /etc/quarn.
std::string configuration_directory();

// Replaces the file whole: after a power cut it is the old one or the new one. True once it is on the disk;
// on failure errno says why and the old file stays.
bool replace_file(const std::string& path, std::string_view content);

// A key file written by people: a line that does not parse is logged with its number and left out, a byte
// order mark is dropped. A missing file is an empty one; null when the file cannot be read, which is logged.
KeyFile read_key_file(const std::string& path);

} // namespace platform
