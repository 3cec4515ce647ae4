// The card association's recommended layouts per capacity, and the lookups
// that choose a row for a card.
#pragma once

#include <cstddef>
#include <cstdint>

#include "layout/format_monitor.h"
#include "support/qfs_error.h"

// One row of the recommendation tables. All counts are 512-byte sectors.
struct tca_param {
    uint64_t max_sector_count;    // largest card of the row (inclusive)
    uint64_t min_sector_count;    // smallest card of the row (inclusive)
    uint32_t boundary_unit;       // sectors
    uint32_t sectors_per_cluster; // recommended cluster size
    uint8_t heads;                // CHS geometry for the MBR
    uint8_t sectors_per_track;
    bool in_spec;                 // false: a gap between two capacity classes
    bool fat32;                   // FAT rows with a boundary unit above 8191 only
};

// TCA formatting always uses 512-byte sectors.
inline constexpr uint32_t TCA_SECTOR_SIZE = 512;

// Cards above this many sectors need a GPT and keep one boundary unit free at the end.
inline constexpr uint64_t TCA_MBR_MAX_SECTORS = 4294967295u;

extern const tca_param exfat_tca_params[];
extern const size_t exfat_tca_params_count;
extern const tca_param fat_tca_params[];
extern const size_t fat_tca_params_count;

[[nodiscard]] qfs_result exfat_format_get_tca_param(uint64_t sector_count, tca_param *out_param,
                                                    uint64_t *out_partition_start_sector,
                                                    uint64_t *out_partition_sector_count, bool tca_whole,
                                                    bool tca_relax, const format_monitor *monitor);

[[nodiscard]] qfs_result fat_format_get_tca_param(uint64_t sector_count, tca_param *out_param, uint8_t *out_fat_type,
                                                  uint64_t *out_partition_start_sector,
                                                  uint64_t *out_partition_sector_count, bool tca_whole, bool tca_relax,
                                                  bool align_to_cylinder, const format_monitor *monitor);
