// changing.h: the commands that change settings: set, reset, apply.
#pragma once

#include "session.h"

#include <string>
#include <vector>

namespace quarnctl {

struct ChangeOptions {
    bool dry_run = false;
    // The change is taken back unless it is confirmed within this time; 0: it stays.
    unsigned confirm_seconds = 0;
    // What of the wish is left out, and told beside the result.
    std::vector<Fault> left_out;
};

// Each returns the exit status. Words are "KEY=VALUE", "KEY+=ITEM" or "KEY-=ITEM".
int run_set(Session& session, const std::vector<std::string>& words, const ChangeOptions& options);
int run_reset(Session& session, const std::vector<std::string>& keys, const ChangeOptions& options);
// The factory reset: every stored setting. Asks first unless told not to.
enum class Question { ASKED, ANSWERED };
int run_reset_all(Session& session, Question question, const ChangeOptions& options);
// A file, or "-" for standard input.
enum class UnknownKeys { ARE_FAULTS, ARE_SKIPPED };
int run_apply(Session& session, const std::string& file, UnknownKeys unknown, const ChangeOptions& options);

} // namespace quarnctl
