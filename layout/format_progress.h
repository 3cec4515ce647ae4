// Progress of a format in bytes: what is written so far against what the
// whole run will write, reported to the monitor after every step.
#pragma once

#include <cstdint>

#include "layout/format_monitor.h"

struct format_progress {
    const format_monitor *monitor;
    uint64_t done;
    uint64_t expected;
    const char *message;
};

// Sets the current step text and tells the monitor's info callback.
void format_progress_set_message(format_progress *progress, const char *message);
// Adds bytes to "done" and reports done * 100 / expected.
void format_progress_add(format_progress *progress, uint64_t bytes);

inline const format_monitor *format_progress_monitor(const format_progress *progress) {
    return progress ? progress->monitor : nullptr;
}
