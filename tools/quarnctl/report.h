// report.h: what quarnctl says, for people or, with --json, for programs. Results go to standard output,
// complaints to standard error; with --json all goes to standard output as one object.
#pragma once

#include "session.h"

#include <string>
#include <string_view>
#include <vector>

namespace quarnctl {

void print_line(std::string_view text);
// On standard error, with the program's name before it.
void complain(std::string_view text);
void print_json(const cJSON* value);

// A line on the terminal of standard error, cut to its width, until the next one takes its place.
void show_progress(const std::string& text);
void clear_progress();

// "KEY: what is wrong (accepted: ...)", with the nearest keys for an unknown one.
std::string fault_text(const Fault& fault);
OwnedJson faults_as_json(const std::vector<Fault>& faults);

// Each tells all and returns the exit status.
int report_failure(const Session& session, const Failure& failure);
int report_faults(const Session& session, const std::vector<Fault>& faults);
// For an answer with success false and no entry, as the daemon gives it to a request with a read-only key.
int report_refusal(const Session& session, const Answer& answer);

// A fault for each key that the catalogue does not have.
std::vector<Fault> unknown_keys(const std::vector<std::string>& keys);

// "KEY: before -> after", a line a change; as JSON a list of {"key", "before", "after"}.
void print_changes(const std::vector<Change>& changes);
OwnedJson changes_as_json(const std::vector<Change>& changes);

} // namespace quarnctl
