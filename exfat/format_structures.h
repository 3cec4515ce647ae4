// The in-memory images a new exFAT volume is written from.
#pragma once

#include <cstddef>
#include <cstdint>

#include "device/qfs_device.h"
#include "exfat/format_layout.h"
#include "layout/format_monitor.h"
#include "support/qfs_memory.h"

struct exfat_format_images {
    qfs_buffer boot_region;    // main and backup regions, 24 sectors
    qfs_buffer partial_fat;    // the used FAT entries
    qfs_buffer partial_bitmap; // the used bitmap bits
    qfs_buffer root_dir;       // the root directory's first sector
    const uint8_t *upcase;     // the built-in compressed up-case table
    size_t upcase_size;
};

struct exfat_format_content {
    const uint16_t *volume_name; // null: no label
    uint8_t volume_name_length;
    const uint32_t *serial_number; // null: generate one
    const uint8_t *volume_guid;    // 16 bytes or null
    const uint8_t *flash_params;   // 32 bytes or null
    uint64_t oem_parameters_position; // byte offset of volume sector 9 on the device
};

// Fills sector 0 of the boot region (the first `layout.sector_size` bytes).
[[nodiscard]] qfs_result exfat_format_fill_boot_sector(uint8_t *sector, const exfat_layout &layout,
                                                       const uint32_t *serial_number, const format_monitor *monitor);

// Allocates and builds every image. Reads the card's existing OEM parameters sector.
[[nodiscard]] qfs_result exfat_format_build_images(qfs_device *dev, const exfat_layout &layout,
                                                   const exfat_format_content &content, const format_monitor *monitor,
                                                   exfat_format_images *out_images);
