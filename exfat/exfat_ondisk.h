// Byte offsets and constants of the exFAT on-disk structures, shared by
// the format engine that writes them and the volume code that reads them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace exfat_ondisk {

// Main and backup boot regions: 12 sectors each.
inline constexpr uint32_t boot_region_sectors = 12;
inline constexpr uint32_t boot_regions_sectors = 2 * boot_region_sectors;
inline constexpr uint32_t extended_boot_first_sector = 1;
inline constexpr uint32_t extended_boot_sector_count = 8;
inline constexpr uint32_t oem_parameters_sector = 9;
inline constexpr uint32_t reserved_sector = 10;
inline constexpr uint32_t checksum_sector = 11;
// The checksum covers every sector of a region before the checksum sector.
inline constexpr uint32_t checksummed_sectors = 11;

// Boot sector fields.
namespace boot {
inline constexpr size_t jump_boot = 0;             // EB 76 90
inline constexpr size_t file_system_name = 3;      // "EXFAT   "
inline constexpr size_t must_be_zero = 11;         // 53 bytes, the old BIOS parameter block
inline constexpr size_t must_be_zero_length = 53;
inline constexpr size_t partition_offset = 64;     // u64
inline constexpr size_t volume_length = 72;        // u64
inline constexpr size_t fat_offset = 80;           // u32
inline constexpr size_t fat_length = 84;           // u32
inline constexpr size_t cluster_heap_offset = 88;  // u32
inline constexpr size_t cluster_count = 92;        // u32
inline constexpr size_t first_cluster_of_root = 96; // u32
inline constexpr size_t volume_serial_number = 100; // u32
inline constexpr size_t file_system_revision = 104; // u16: minor in the low byte, major in the high byte
inline constexpr size_t volume_flags = 106;        // u16
inline constexpr size_t bytes_per_sector_shift = 108;
inline constexpr size_t sectors_per_cluster_shift = 109;
inline constexpr size_t number_of_fats = 110;
inline constexpr size_t drive_select = 111;
inline constexpr size_t percent_in_use = 112;
inline constexpr size_t boot_code = 120;           // 390 bytes
inline constexpr size_t boot_code_length = 390;
inline constexpr size_t boot_signature = 510;      // 55 AA
} // namespace boot

// VolumeFlags bits.
inline constexpr uint16_t flag_active_fat = 1u << 0;
inline constexpr uint16_t flag_volume_dirty = 1u << 1;
inline constexpr uint16_t flag_media_failure = 1u << 2;
inline constexpr uint16_t flag_clear_to_zero = 1u << 3;

inline constexpr uint16_t revision_1_0 = 0x0100;
inline constexpr uint8_t boot_code_fill = 0xF4;

// FAT entry values.
inline constexpr uint32_t fat_media_entry = 0xFFFFFFF8;
inline constexpr uint32_t fat_end_of_chain = 0xFFFFFFFF;
inline constexpr uint32_t fat_bad_cluster = 0xFFFFFFF7;
inline constexpr uint32_t first_data_cluster = 2;
inline constexpr uint32_t max_cluster_count = 0xFFFFFFF5;

// Directory entries: 32 bytes each.
inline constexpr size_t dentry_size = 32;
inline constexpr uint8_t dentry_end_of_directory = 0x00;
inline constexpr uint8_t dentry_in_use = 0x80;
inline constexpr uint8_t dentry_allocation_bitmap = 0x81;
inline constexpr uint8_t dentry_upcase_table = 0x82;
inline constexpr uint8_t dentry_volume_label = 0x83;
inline constexpr uint8_t dentry_volume_guid = 0xA0;

namespace dentry {
inline constexpr size_t entry_type = 0;
inline constexpr size_t label_character_count = 1; // volume label
inline constexpr size_t label_text = 2;            // 11 UTF-16LE units
inline constexpr size_t bitmap_flags = 1;          // allocation bitmap: bit 0 = second FAT's bitmap
inline constexpr size_t table_checksum = 4;        // up-case table
inline constexpr size_t first_cluster = 20;        // u32, bitmap and up-case table
inline constexpr size_t data_length = 24;          // u64, bitmap and up-case table
inline constexpr size_t secondary_count = 1;       // volume GUID
inline constexpr size_t set_checksum = 2;          // u16
inline constexpr size_t guid_flags = 4;            // u16
inline constexpr size_t volume_guid = 6;           // 16 bytes
} // namespace dentry

inline constexpr uint8_t max_label_length = 11;
// Bit 0 of an allocation bitmap entry's flags: the bitmap belongs to the second FAT.
inline constexpr uint8_t bitmap_flag_second_fat = 1u << 0;
// Bytes 2-31 of a label entry hold at most 15 UTF-16 units; a count of 16 or more cannot be real.
inline constexpr uint8_t label_character_count_limit = 16;
// The largest allocation bitmap a cluster count of at most 0xFFFFFFF5 needs, plus one byte of slack.
inline constexpr uint64_t bitmap_length_limit = 0x20000001;
// An up-case table maps 16-bit characters, so its compressed form stays below 0x1FFFF bytes.
inline constexpr uint64_t upcase_length_limit = 0x1FFFF;

// OEM parameters sector: ten slots of a 16-byte GUID and 32 bytes of parameters.
inline constexpr size_t oem_slot_count = 10;
inline constexpr size_t oem_slot_size = 48;
inline constexpr size_t oem_guid_size = 16;
inline constexpr size_t oem_parameters_size = 32;
inline constexpr size_t oem_slots_end = oem_slot_count * oem_slot_size; // 480
// Flash parameters GUID 0A0C7E46-3399-4021-90C8-FA6D389C4BA2 as stored.
inline constexpr uint8_t flash_parameters_guid[16] = {0x46, 0x7E, 0x0C, 0x0A, 0x99, 0x33, 0x21, 0x40,
                                                      0x90, 0xC8, 0xFA, 0x6D, 0x38, 0x9C, 0x4B, 0xA2};

// The boot sector fields that every reader relies on must lie inside the
// first 512 bytes, in ascending order, each after the end of the one before.
constexpr bool boot_fields_are_ordered() {
    constexpr size_t offsets[] = {boot::jump_boot, boot::file_system_name, boot::must_be_zero,
                                  boot::partition_offset, boot::volume_length, boot::fat_offset,
                                  boot::fat_length, boot::cluster_heap_offset, boot::cluster_count,
                                  boot::first_cluster_of_root, boot::volume_serial_number,
                                  boot::file_system_revision, boot::volume_flags,
                                  boot::bytes_per_sector_shift, boot::sectors_per_cluster_shift,
                                  boot::number_of_fats, boot::drive_select, boot::percent_in_use,
                                  boot::boot_code, boot::boot_signature};
    constexpr size_t sizes[] = {3, 8, boot::must_be_zero_length, 8, 8, 4, 4, 4, 4, 4, 4, 2, 2, 1, 1, 1, 1, 1,
                                boot::boot_code_length, 2};
    static_assert(sizeof(offsets) / sizeof(offsets[0]) == sizeof(sizes) / sizeof(sizes[0]));
    size_t end = 0;
    for (size_t i = 0; i < sizeof(offsets) / sizeof(offsets[0]); ++i) {
        if (offsets[i] < end) return false;
        end = offsets[i] + sizes[i];
    }
    return end == 512;
}

// Directory entry fields must fit in their 32 bytes.
constexpr bool dentry_fields_fit() {
    return dentry::label_text + 2 * (label_character_count_limit - 1) <= dentry_size &&
           dentry::data_length + 8 <= dentry_size && dentry::volume_guid + 16 <= dentry_size &&
           dentry::table_checksum + 4 <= dentry::first_cluster;
}

// Checksum of the recommended up-case table that the format writes.
inline constexpr uint32_t default_upcase_checksum = 0xE619D30D;

} // namespace exfat_ondisk
