// last_report.h: what was reported last, kept in /run/quarn for the next event.
#pragma once

#include "lease_requests.h"

// `name` is the file's. What cannot be read counts as no report.
LastReport read_last_report(const char* name);
// False, with a line in the log, when it could not be kept.
bool keep_last_report(const char* name, const LastReport& report);
