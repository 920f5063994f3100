// services/generated_files.h: the one writable directory, /tmp/.quarn, in which every generated file lives.
#pragma once

#include "core/owned.h"

// Makes the directory when it is missing. One that is not ours, or that others may write, is renamed aside
// first and made anew: /tmp is open to all, and a planted link must not steer what root writes.
void prepare_generated_directory();

// Opens /tmp/.quarn/<name> for writing, truncated or created; never through a link. Null when it cannot be
// had.
OwnedFile open_generated(const char* name);
