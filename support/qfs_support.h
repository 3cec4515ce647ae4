// Small shared helpers: string copies, base names, bit lengths, the wall
// clock and pauses.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "support/qfs_error.h"
#include "support/qfs_memory.h"

// Copies exactly `length` bytes and adds a NUL; free with qfs_free.
[[nodiscard]] qfs_result qfs_strndup(const char *text, size_t length, char **out_copy);
[[nodiscard]] qfs_result qfs_strdup(const char *text, char **out_copy);
// Appends `text` to the growable string at *destination (null counts as empty).
[[nodiscard]] qfs_result qfs_strappend(char **destination, const char *text);

// The part after the last '/', or the whole path; points into `path`.
const char *qfs_basename(const char *path);

// Number of significant bits: 0 for 0, 1 for 1, 2 for 2..3, 3 for 4..7.
unsigned qfs_bit_length(uint64_t value);

struct qfs_time {
    int64_t seconds;
    int64_t nanoseconds;
};
[[nodiscard]] qfs_result qfs_get_current_time(qfs_time *out_time);

// Seconds since 1970-01-01 for a broken-down time taken as universal time.
int64_t qfs_time_to_seconds(const struct tm *time);

[[nodiscard]] qfs_result qfs_sleep_ns(uint64_t nanoseconds, int *out_interrupted);
