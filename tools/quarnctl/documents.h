// documents.h: what is made of the catalogue: docs/settings.md, quarn-settings(7) and the words of the
// shells' completion.
#pragma once

#include <string>

namespace quarnctl {

std::string settings_document();
void print_settings_document();
// docs/man/quarn-settings.7.scd, in scdoc's format.
std::string settings_manual();
void print_settings_manual();
// A line a key: key, tab, "bool" or the type's name, tab, "rw" or "ro".
void print_keys_for_completion();

} // namespace quarnctl
