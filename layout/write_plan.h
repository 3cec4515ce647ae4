// An engine's write plan: the phases its structures go to the card in, each
// with a status text, a failure text, a sync-before mark and its extents,
// and the zero-fill walk over everything no extent covers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "device/qfs_device.h"
#include "layout/format_progress.h"
#include "support/qfs_error.h"

// One region of the volume that a phase covers: data, then padding.
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
    // The device is synced before the phase, also on a run that skips the other syncs.
    bool sync_before;
    size_t first_extent;
    size_t extent_count;
};

inline constexpr size_t format_max_extents = 16;
inline constexpr size_t format_max_phases = 16;

struct format_write_plan {
    format_write_phase phases[format_max_phases];
    size_t phase_count;
    format_write_extent extents[format_max_extents];
    size_t extent_count;
};

// Appends a phase with its extents, which may be none; more than the plan
// holds is an internal error.
[[nodiscard]] qfs_result format_write_plan_add(format_write_plan *plan, const char *status_message,
                                               const char *failure_message, bool sync_before,
                                               std::span<const format_write_extent> extents);
uint64_t format_write_plan_padded_bytes(const format_write_plan *plan);
[[nodiscard]] qfs_result format_write_plan_check_overlaps(const format_write_plan *plan);
// Writes every phase in order. A phase syncs first when it is marked so; a
// phase with extents announces itself and writes them.
[[nodiscard]] qfs_result format_write_plan_execute(qfs_device *dev, const format_write_plan *plan,
                                                   bool compare_before_write, format_progress *progress);
// Zero-fills every byte of [0, end) that no extent of the plan covers.
[[nodiscard]] qfs_result format_zero_fill_unwritten(qfs_device *dev, const format_write_plan *plan, uint64_t end,
                                                    bool compare_before_write, format_progress *progress);
