// The exFAT format driver.
#pragma once

#include <cstdint>

#include "device/qfs_device.h"
#include "exfat/format_layout.h"
#include "exfat/format_structures.h"
#include "layout/card_writer.h"
#include "layout/format_monitor.h"
#include "layout/tca_params.h"
#include "support/qfs_error.h"

enum : uint32_t {
    EXFAT_DISCARD_NONE = CARD_DISCARD_NONE,
    EXFAT_DISCARD_REGULAR = CARD_DISCARD_REGULAR,
    EXFAT_DISCARD_SECURE = CARD_DISCARD_SECURE, // falls back to a regular discard
};

[[nodiscard]] qfs_result exfat_format_volume(qfs_device *dev, bool force, bool boot_region_unpadded, bool zero_data,
                                             bool no_sync, bool compare_before_write, uint32_t discard_method,
                                             const uint16_t *in_sector_size, const uint64_t *in_sector_count,
                                             const uint32_t *in_cluster_size, const uint64_t *in_partition_start_sector,
                                             const uint32_t *in_alignment, const uint16_t *volume_name,
                                             uint8_t volume_name_length, const uint32_t *in_volume_serial_number,
                                             const uint8_t *volume_guid, const uint8_t *flash_params, bool tca_strict,
                                             bool tca_whole, bool tca_relax, bool tca_partitioning_only,
                                             const format_monitor *monitor);

// How the images are put on the device.
struct exfat_write_options {
    bool boot_region_unpadded;
    bool tca_whole;
    card_write_choices choices;
    const tca_param *tca;                // the card's row in whole-card mode
    uint64_t tca_partition_start_sector; // 512-byte sectors
    uint64_t tca_partition_sector_count;
};

[[nodiscard]] qfs_result exfat_format_write_structures(qfs_device *dev, const exfat_layout &layout,
                                                       const exfat_format_images &images,
                                                       const exfat_write_options &options,
                                                       const format_monitor *monitor);
