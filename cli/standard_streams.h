// The process's standard streams. A card must never become descriptor 0, 1
// or 2, or the tool's own messages would be written into it; and a front end
// that stops reading must not stop a format half-way.
#pragma once

#include <cstdio>

#include "support/qfs_error.h"

// Opens /dev/null on each of descriptors 0, 1 and 2 that is closed, and
// ignores SIGPIPE so that a closed pipe shows up as a failed write instead.
[[nodiscard]] qfs_result format_prepare_standard_streams();

// Flushes `stream`. Once standard output fails (a closed pipe, a full disk)
// the tool stops writing to it: the failure is kept for the exit status and
// the descriptor is pointed at /dev/null for the rest of the run.
void format_flush(FILE *stream);

// The first failure of standard output, or QFS_OK when every write arrived.
// Flushes what is still buffered first.
qfs_result format_stdout_failure();
