// --check-capacity: before a card is formatted, make sure it stores what it
// claims. A counterfeit card is put back as it was and refused.
#pragma once

#include <sys/stat.h>

#include <cstdint>

#include "layout/format_monitor.h"
#include "support/qfs_error.h"

// Runs the check on the held card at `path` of `claimed_bytes`, or says in
// one line why it does not apply. Answers 0 when the format may go on.
[[nodiscard]] qfs_result format_check_capacity(const char *path, const struct stat &info, uint64_t claimed_bytes,
                                               const format_monitor *monitor);
