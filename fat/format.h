// The FAT format driver: the caller's options, the layout, the structures
// and their way onto the device.
#pragma once

#include <cstdint>

#include "device/qfs_device.h"
#include "fat/format_layout.h"
#include "fat/format_structures.h"
#include "layout/card_writer.h"
#include "layout/format_monitor.h"
#include "support/qfs_error.h"

enum : uint32_t {
    FAT_DISCARD_NONE = CARD_DISCARD_NONE,
    FAT_DISCARD_REGULAR = CARD_DISCARD_REGULAR,
    FAT_DISCARD_SECURE = CARD_DISCARD_SECURE, // falls back to a regular discard
};

// Formats `dev` as FAT12, FAT16 or FAT32. Every `in_` value is optional and
// chosen by the driver when null; `volume_name` holds bytes in `codepage`
// (0 meaning 437). With `short_fat` only the used part of each FAT and none
// of the reserved region is written. Nothing is written before the layout
// and the structures are settled.
[[nodiscard]] qfs_result fat_format_volume(qfs_device *dev, bool force, bool short_fat, bool zero_data, bool no_sync,
                                           bool compare_before_write, uint32_t discard_method,
                                           const uint8_t *in_fat_type, const uint16_t *in_root_directory_entries,
                                           const uint16_t *in_heads, const uint16_t *in_sectors_per_track,
                                           const uint16_t *in_sector_size, const uint64_t *in_sector_count,
                                           const uint32_t *in_cluster_size, const uint32_t *in_sectors_per_cluster,
                                           const uint64_t *in_partition_start_sector, const uint32_t *in_alignment,
                                           uint32_t codepage, const uint8_t *volume_name, uint8_t volume_name_length,
                                           const uint32_t *in_volume_serial_number, bool tca_strict, bool tca_whole,
                                           bool tca_relax, bool tca_partitioning_only, bool tca_align_to_cylinder,
                                           const format_monitor *monitor);

// How the images are put on the device. A whole-card run takes the card's
// row and partition from the layout.
struct fat_write_options {
    bool short_fat;
    bool tca_whole;
    card_write_choices choices;
};

// The FAT's seven phases, handed to the card writer: root directory, FATs,
// reserved region, backup boot region, (none), FSInfo, and after a sync
// the boot sector.
[[nodiscard]] qfs_result fat_format_write_structures(qfs_device *dev, const fat_layout &layout,
                                                     const fat_format_images &images,
                                                     const fat_write_options &options,
                                                     const format_monitor *monitor);
