// Byte offsets and constants of the FAT12/16/32 on-disk structures, shared
// by the format engine that writes them and the volume code that reads them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace fat_ondisk {

// Every boot-region structure is laid out in the first 512 bytes of its sector.
inline constexpr size_t boot_sector_size = 512;
inline constexpr uint8_t media_fixed_disk = 0xF8;
inline constexpr uint8_t drive_number_fixed_disk = 0x80;
inline constexpr uint8_t extended_boot_signature = 0x29;
inline constexpr uint8_t boot_code_fill = 0xF4;
inline constexpr size_t label_length = 11;
inline constexpr char no_label[] = "NO NAME    ";

// The BIOS parameter block that all three FAT types share.
namespace bpb {
inline constexpr size_t jump_boot = 0;            // EB 00 90
inline constexpr size_t oem_name = 3;             // "MSWIN4.1"
inline constexpr size_t bytes_per_sector = 11;    // u16
inline constexpr size_t sectors_per_cluster = 13; // u8
inline constexpr size_t reserved_sectors = 14;    // u16
inline constexpr size_t number_of_fats = 16;      // u8
inline constexpr size_t root_entries = 17;        // u16, 0 on FAT32
inline constexpr size_t total_sectors_16 = 19;    // u16, 0 when the count needs 32 bits
inline constexpr size_t media = 21;               // u8
inline constexpr size_t fat_size_16 = 22;         // u16, 0 on FAT32
inline constexpr size_t sectors_per_track = 24;   // u16
inline constexpr size_t heads = 26;               // u16
inline constexpr size_t hidden_sectors = 28;      // u32: the partition start
inline constexpr size_t total_sectors_32 = 32;    // u32
inline constexpr size_t signature = 510;          // 55 AA
} // namespace bpb

// The extended fields of FAT12 and FAT16 boot sectors.
namespace ebpb16 {
inline constexpr size_t drive_number = 36;
inline constexpr size_t flags = 37; // bit 0 dirty, bit 1 surface errors
inline constexpr size_t boot_signature = 38;
inline constexpr size_t serial_number = 39; // u32
inline constexpr size_t label = 43;         // 11 bytes
inline constexpr size_t type_name = 54;     // "FAT12   " or "FAT16   "
inline constexpr size_t boot_code = 62;
} // namespace ebpb16

// The extended fields of FAT32 boot sectors.
namespace ebpb32 {
inline constexpr size_t fat_size_32 = 36;        // u32
inline constexpr size_t ext_flags = 40;          // u16: bit 7 set = one active FAT, its number in bits 0-3
inline constexpr size_t version = 42;            // minor at 42, major at 43
inline constexpr size_t root_cluster = 44;       // u32
inline constexpr size_t fsinfo_sector = 48;      // u16
inline constexpr size_t backup_boot_sector = 50; // u16
inline constexpr size_t drive_number = 64;
inline constexpr size_t flags = 65;
inline constexpr size_t boot_signature = 66;
inline constexpr size_t serial_number = 67; // u32
inline constexpr size_t label = 71;         // 11 bytes
inline constexpr size_t type_name = 82;     // "FAT32   "
inline constexpr size_t boot_code = 90;
} // namespace ebpb32

inline constexpr uint8_t flag_dirty = 1u << 0;
inline constexpr uint8_t flag_surface_errors = 1u << 1;
inline constexpr uint16_t ext_flag_single_fat = 1u << 7;
inline constexpr uint16_t ext_flag_active_fat_mask = 0x0F;

// The FSInfo sector of FAT32 volumes.
namespace fsinfo {
inline constexpr size_t lead_signature = 0;          // "RRaA"
inline constexpr size_t struct_signature = 484;      // "rrAa"
inline constexpr size_t free_count = 488;            // u32
inline constexpr size_t next_free = 492;             // u32
inline constexpr size_t trail_signature = 508;       // 00 00 55 AA
inline constexpr uint32_t lead_value = 0x41615252;   // "RRaA" little-endian
inline constexpr uint32_t struct_value = 0x61417272; // "rrAa"
inline constexpr uint32_t trail_value = 0xAA550000;
} // namespace fsinfo

// FAT32 boot region: boot sector, FSInfo sector and a third sector with a signature only.
inline constexpr uint32_t fat32_boot_region_sectors = 3;
inline constexpr uint16_t fat32_fsinfo_sector = 1;
inline constexpr uint32_t fat32_root_cluster = 2;

// Directory entries.
inline constexpr size_t dentry_size = 32;
namespace dentry {
inline constexpr size_t name = 0; // 11 bytes
inline constexpr size_t attributes = 11;
} // namespace dentry
inline constexpr uint8_t attribute_volume_label = 0x08;
inline constexpr uint8_t attribute_long_name = 0x0F; // read-only, hidden, system and label together
inline constexpr uint8_t dentry_end = 0x00;
inline constexpr uint8_t dentry_deleted = 0xE5;
// A name whose first byte is E5 is stored with 05 so it is not taken for a deleted entry.
inline constexpr uint8_t dentry_e5_escape = 0x05;

// FAT entries: 12, 16 or 32 bits wide; FAT32 entries use their low 28 bits.
inline constexpr uint32_t first_data_cluster = 2;
inline constexpr uint32_t fat32_entry_mask = 0x0FFFFFFF;
// Cluster counts that decide the FAT type: up to 4085 is FAT12, up to 65525 FAT16.
inline constexpr uint32_t fat12_max_clusters = 4085;
inline constexpr uint32_t fat16_max_clusters = 65525;
inline constexpr uint32_t fat32_max_clusters = 268435445;

} // namespace fat_ondisk
