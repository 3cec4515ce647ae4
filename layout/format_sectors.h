// What both engines ask the device and how both settle the sector size a
// volume is laid out in: the device's sector size and size, a caller's other
// sector size or sector count, and the bounds. Each engine names itself in
// its own messages through its rules.
#pragma once

#include <cstdint>

#include "device/qfs_device.h"
#include "layout/format_monitor.h"
#include "support/qfs_error.h"

// The device's sector size (or, when it cannot tell, the override, or 512
// when `assume_512_on_failure`) and its size in sectors of that size.
[[nodiscard]] qfs_result format_query_device_characteristics(qfs_device *device, bool assume_512_on_failure,
                                                             const uint16_t *in_sector_size, uint32_t *out_sector_size,
                                                             uint64_t *out_sector_count, const format_monitor *monitor);

// An engine's own terms for the sector size.
struct format_sector_rules {
    const char *out_of_bounds_message; // with "%lu" for the size
    bool power_of_two;                 // a size that is no power of two is out of bounds as well
    uint64_t min_volume_bytes;         // the smallest volume a caller may ask for by sector count
};

struct format_sector_counts {
    uint32_t sector_size;
    uint64_t device_sectors;
    uint64_t volume_sectors;
};

// The caller's sector size, when given, with the device's and the volume's
// counts re-expressed in it; a whole-card run's volume is the card's
// partition of `card_partition_sectors` 512-byte sectors. Then the bounds
// (512 to 4096, up to 32768 under force with a warning), the caller's
// sector count, and the information lines for both.
[[nodiscard]] qfs_result format_settle_sector_size(const format_sector_rules &rules, bool force,
                                                   uint32_t device_sector_size, uint64_t device_sector_count,
                                                   const uint16_t *in_sector_size, const uint64_t *in_sector_count,
                                                   const uint64_t *card_partition_sectors,
                                                   const format_monitor *monitor, format_sector_counts *out_counts);
