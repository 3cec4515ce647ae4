// Write machinery shared by the exFAT and FAT format engines: progress
// accounting in bytes, the padded writer, write phases with their extents
// and overlap check, and the zero-fill walk over what no phase wrote.
#pragma once

#include <cstddef>
#include <cstdint>

#include "device/qfs_device.h"
#include "layout/format_monitor.h"
#include "support/qfs_error.h"

// Bytes written so far against bytes expected, reported after every step.
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

// Writes data_size bytes at position, then padding bytes up to padded_size.
// With a sync interval the device is synced whenever that many seconds
// passed while padding was written.
qfs_result exfat_format_write_with_padding(qfs_device *dev, uint64_t position, size_t data_size, const void *data,
                                           uint64_t padded_size, uint8_t padding_byte, bool compare_before_write,
                                           uint32_t sync_interval_seconds, format_progress *progress);

// One region of the device that a phase covers: data, then padding.
struct format_write_extent {
    uint64_t position;
    const void *data;
    size_t data_size;
    uint8_t padding_byte;
    uint64_t padded_size;
};

struct format_write_phase {
    const char *status_message;
    const char *failure_message;
    bool sync_before;
    size_t first_extent;
    size_t extent_count;
};

inline constexpr size_t format_max_extents = 16;
inline constexpr size_t format_max_phases = 16;
// "Internal error" as the engines report it.
inline constexpr qfs_result format_internal_error = 6;

struct format_write_plan {
    format_write_phase phases[format_max_phases];
    size_t phase_count;
    format_write_extent extents[format_max_extents];
    size_t extent_count;
};

// Appends a phase with one extent; more than the plan holds is an internal error.
qfs_result format_write_plan_add(format_write_plan *plan, const char *status_message, const char *failure_message,
                                 bool sync_before, const format_write_extent &extent);
uint64_t format_write_plan_padded_bytes(const format_write_plan *plan);
qfs_result format_write_plan_check_overlaps(const format_write_plan *plan);
// Writes every phase in order (syncing first where a phase asks for it).
qfs_result format_write_plan_execute(qfs_device *dev, const format_write_plan *plan, bool compare_before_write,
                                     format_progress *progress);
// Zero-fills every byte of [0, end) that no extent of the plan covers.
qfs_result format_zero_fill_unwritten(qfs_device *dev, const format_write_plan *plan, uint64_t end,
                                      bool compare_before_write, format_progress *progress);
