// configuration_file.h: an exported configuration, as people keep it in version control.
#pragma once

#include "session.h"

#include <string>
#include <vector>

namespace quarnctl {

// A file of at most a megabyte, or "-" for standard input. False with a failure.
bool read_configuration_file(const std::string& path, std::string& text, Failure& failure);

struct ConfigurationFile {
    // Every key is one of the catalogue and can be set, unless there are faults.
    OwnedJson settings;
    // Each begins with the line of the file that it concerns.
    std::vector<Fault> faults;
    std::vector<std::string> skipped;
};

ConfigurationFile parse_configuration(const std::string& text);
// Takes the unknown keys out, and the faults that they are.
void skip_unknown_keys(ConfigurationFile& configuration);

} // namespace quarnctl
