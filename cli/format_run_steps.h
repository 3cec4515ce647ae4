// The steps the exFAT and FAT runs share: the typed label as UTF-16, the
// verbose echo, the failure line and a device of their own for the format.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "device/qfs_device.h"
#include "support/qfs_error.h"

// A label as the user typed it, in UTF-16: at most 11 units, as both file systems allow.
inline constexpr size_t format_run_max_label_units = 11;
struct format_run_label {
    uint16_t units[format_run_max_label_units];
    uint8_t length;
};

// Writes `text` and a newline to standard error and flushes it.
void format_run_say(const char *text);

// Converts the typed label; a failed conversion or more than 11 units is
// refused with the run's message on standard error.
[[nodiscard]] qfs_result format_run_encode_label(const char *text, format_run_label *out_label);

// The verbose echo's device line, and its label line: "<none>" for null `units`.
void format_run_echo_device(const char *path);
[[nodiscard]] qfs_result format_run_echo_label(const uint16_t *units, size_t count);

// "Formatting failed!", or with `verbose` the failure's text.
void format_run_report_failure(uint32_t verbose, qfs_result r);

// The run's messages for a device it cannot have, each ending in "%lu (%s)",
// and the function name they are logged under.
struct format_run_device_texts {
    const char *function;
    const char *create_failed;
    const char *open_failed;
};

// Creates the device with format_run_device_flags(), opens it with `force`,
// hands it to `work`, then closes and destroys it. The first failure is
// answered, including one of the close.
[[nodiscard]] qfs_result format_run_on_own_device(const char *path, uint32_t force,
                                                  const format_run_device_texts &texts,
                                                  const std::function<qfs_result(qfs_device *)> &work);
