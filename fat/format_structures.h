// The sectors a new FAT volume receives, built in memory: boot sector,
// FSInfo and third boot sector (FAT32), the first sector of every FAT copy
// and the root directory with the label entry.
#pragma once

#include <cstddef>
#include <cstdint>

#include "fat/format_layout.h"
#include "layout/format_monitor.h"
#include "support/qfs_error.h"
#include "support/qfs_memory.h"

// Fills the first 512 bytes of `buffer` (a zeroed sector) from the FAT12/16
// or FAT32 template. Without `serial_number` a fresh one is generated.
[[nodiscard]] qfs_result fat_format_fill_boot_sector(uint32_t sector_size, uint64_t total_sectors,
                                                     uint32_t sectors_per_cluster, uint64_t reserved_sectors,
                                                     uint8_t number_of_fats, uint32_t root_directory_entries,
                                                     uint16_t sectors_per_track, uint16_t heads, uint8_t fat_type,
                                                     uint32_t sectors_per_fat, uint64_t partition_start,
                                                     const uint32_t *serial_number, const uint8_t *label,
                                                     uint8_t label_length, uint32_t backup_boot_sector, uint8_t *buffer,
                                                     const format_monitor *monitor);

// Zeroes `sectors_to_clear` sectors and writes the reserved entries 0 and 1
// (and for FAT32 entry 2, the root directory's end of chain). FAT32 entry 1
// is 0x0FFFFFFF on a card-association run and 0xFFFFFFFF otherwise.
[[nodiscard]] qfs_result fat_format_init_fat_sector(uint8_t media, uint8_t fat_type, bool strict_or_whole,
                                                    uint32_t sector_size, uint32_t sectors_to_clear, uint8_t *buffer);

// Zeroes the buffer; with a label, the first entry becomes the label entry.
[[nodiscard]] qfs_result fat_format_init_root_directory(uint8_t *buffer, size_t size, const uint8_t *label,
                                                        uint8_t label_length);

// The FSInfo sector: all clusters but the root directory's free, the next free one cluster 3.
[[nodiscard]] qfs_result fat_format_init_fsinfo_sector(uint32_t cluster_count, uint8_t *buffer);

// FAT32's third boot sector: zero but for its 55 AA signature.
[[nodiscard]] qfs_result fat_format_init_third_boot_sector(uint8_t *buffer);

// What goes into the structures besides the layout.
struct fat_format_content {
    const uint8_t *label; // in the volume's code page; null for none
    uint8_t label_length;
    const uint32_t *serial_number; // null: generate one
    bool strict_or_whole;          // a card-association run
};

// The three images the writer puts on the device.
struct fat_format_images {
    qfs_buffer boot_region; // 1 sector, 3 for FAT32
    size_t boot_region_size;
    qfs_buffer fat_sector; // the first sector of every FAT copy
    size_t fat_sector_size;
    qfs_buffer root_directory; // FAT12/16: the whole fixed area; FAT32: the root cluster
    size_t root_directory_size;
};

[[nodiscard]] qfs_result fat_format_build_images(const fat_layout &layout, const fat_format_content &content,
                                                 const format_monitor *monitor, fat_format_images *out_images);
