// The card writer: the one sequence by which every engine's structures
// reach a card. It zeroes the card's head (syncing as soon as the partition
// table and the old boot sector are gone) and tail, discards when asked,
// syncs, writes the engine's phases inside the partition, writes the
// partition table, zero-fills what no phase wrote, syncs, has the kernel
// re-read the partition table, and reports progress in bytes throughout.
#pragma once

#include <cstdint>

#include "device/qfs_device.h"
#include "layout/format_monitor.h"
#include "layout/format_progress.h"
#include "layout/tca_params.h"
#include "layout/write_plan.h"
#include "support/qfs_error.h"

enum : uint32_t {
    CARD_DISCARD_NONE = 0,
    CARD_DISCARD_REGULAR = 1,
    CARD_DISCARD_SECURE = 2, // falls back to a regular discard
};

// An engine's entry of the partition table writer, which announces the step itself.
using card_partition_writer = qfs_result (*)(qfs_device *dev, const tca_param *param,
                                             uint64_t partition_start_sector, uint64_t partition_sector_count,
                                             uint64_t device_sector_count, bool compare_before_write,
                                             format_progress *progress, const format_monitor *monitor);

// How the caller wants the card written: the same choices for every engine.
struct card_write_choices {
    bool partitioning_only = false; // zero areas, discard and partition table only
    bool zero_data = false;         // zero-fill every byte of the volume no phase writes
    bool no_sync = false;           // skip the syncs before zero-filling and at the end only
    bool compare_before_write = false;
    uint32_t discard_method = CARD_DISCARD_NONE;
};

struct card_write_request {
    // The card, in the engine's sectors.
    uint32_t sector_size = 0;
    uint64_t device_sector_count = 0;
    // A whole-card run lays out the row's partition (counted in sectors of
    // sector_size) under a new table; without a partition writer the volume
    // is the whole device and its table stays as it is.
    card_partition_writer write_partition_table = nullptr;
    const tca_param *tca = nullptr;
    uint64_t partition_start_sector = 0;
    uint64_t partition_sector_count = 0;
    // The engine's phases; offsets are relative to the volume's start.
    const format_write_plan *plan = nullptr;
    card_write_choices choices;
};

// Runs the whole sequence. The device is left addressing the volume.
[[nodiscard]] qfs_result card_writer_run(qfs_device *dev, const card_write_request &request,
                                         const format_monitor *monitor);
