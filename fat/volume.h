// Opening a FAT12, FAT16 or FAT32 volume to prove it: the boot sector
// checks and values, the FAT type decided by the cluster count, and what the
// volume holds, read through the device: the FAT's reserved entries and free
// clusters, the root directory and the label. The reader never writes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "device/qfs_device.h"
#include "support/qfs_error.h"

struct fat_volume;

// Create flags.
enum : uint32_t {
    FAT_VOLUME_READ_ONLY = 1, // read errors of the root directory are tolerated
    // The OEM code page of labels and short names: its low 10 bits in bits 4 to 13; 0 means 437.
    FAT_VOLUME_CODEPAGE_SHIFT = 4,
    FAT_VOLUME_CODEPAGE_MASK = 0x3FFu << FAT_VOLUME_CODEPAGE_SHIFT,
    FAT_VOLUME_TIME_MODE_MASK = (1u << 20) | (1u << 21),
};

// The values a boot sector holds, as the volume uses them.
struct fat_boot_values {
    uint32_t sector_size;
    uint32_t bytes_per_sector_shift;
    uint32_t cluster_size;
    uint32_t bytes_per_cluster_shift;
    uint16_t reserved_sectors;
    uint8_t number_of_fats;
    uint16_t root_entries;
    uint64_t sector_count;
    uint32_t fat_size; // sectors of one FAT
    uint8_t fat_type;  // 12, 16 or 32
    // FAT12/16: the fixed root directory.
    uint64_t root_sector;
    uint32_t root_sectors;
    // FAT32.
    uint8_t minor_version;
    uint8_t major_version;
    uint32_t root_directory_first_fat_cluster;
    uint16_t fsinfo_sector;             // 0 when the boot sector's number was bogus
    uint16_t backup_boot_sector_sector; // likewise
    uint8_t active_fat;                 // the FAT in use; 0 while the FATs are mirrored
    bool has_serial_number;
    uint32_t serial_number;
    uint64_t fat_start_sector;
    uint64_t cluster_heap_start_sector;
    uint32_t cluster_count;
    bool dirty;
    bool surface_errors;
};

// Reads the values from the first 512 bytes of a boot sector. The FAT type
// follows from the 16-bit FAT size field and the cluster count alone.
[[nodiscard]] qfs_result fat_volume_parse_boot_sector(const uint8_t *boot_sector, fat_boot_values *out_values);

// Opens the volume on `device` (opening the device too when it is not open yet).
[[nodiscard]] qfs_result fat_volume_create(qfs_device *device, uint32_t flags, fat_volume **out_volume);
// Closes the device when the volume opened it. A second close does nothing.
qfs_result fat_volume_close(fat_volume *volume);
// Closes the volume if it is still open, then frees it and clears the pointer.
qfs_result fat_volume_destroy(fat_volume **volume);

struct fat_volume_info {
    uint8_t fat_type;
    uint32_t sector_size;
    uint32_t cluster_size;
    uint32_t cluster_count;
    uint32_t free_clusters; // counted in the FAT
    bool has_serial_number;
    uint32_t serial_number;
    bool dirty;
};
[[nodiscard]] qfs_result fat_volume_get_info(const fat_volume *volume, fat_volume_info *out_info);
// The label as UTF-8, from the root directory's label entry or else the boot
// sector; empty when the volume has none. Owned by the volume.
const char *fat_volume_get_label(const fat_volume *volume);
