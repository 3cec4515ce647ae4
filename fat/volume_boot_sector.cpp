// The boot sector of a FAT volume: the checks before anything is trusted,
// and the values and FAT type read from it.
#include "fat/fat_ondisk.h"
#include "fat/volume_internal.h"
#include "support/qfs_endian.h"
#include "support/qfs_logging.h"
#include "support/qfs_support.h"

namespace fo = fat_ondisk;

namespace {

constexpr qfs_result invalid = QFS_ERR_SYS_INVALID_ARGUMENT;
constexpr uint32_t min_sector_size = 512;
constexpr uint32_t max_sector_size = 4096;
constexpr uint8_t media_single_sided_floppy = 0xF0; // the one media value below F8 in use
constexpr uint32_t fat12_16_max_cluster_count = 4085;

bool is_power_of_two(uint64_t value) { return value != 0 && (value & (value - 1)) == 0; }

// The FAT12/16 fields, with the fixed root directory behind the FATs.
void parse_fat16_fields(const uint8_t *b, fat_boot_values &v) {
    const uint8_t flags = b[fo::ebpb16::flags];
    v.dirty = (flags & fo::flag_dirty) != 0;
    v.surface_errors = (flags & fo::flag_surface_errors) != 0;
    v.has_serial_number = b[fo::ebpb16::boot_signature] == fo::extended_boot_signature;
    if (v.has_serial_number) v.serial_number = get_le32(b, fo::ebpb16::serial_number);
    v.root_sector = v.reserved_sectors + static_cast<uint64_t>(v.fat_size) * v.number_of_fats;
    v.root_sectors = (static_cast<uint32_t>(v.root_entries) * fo::dentry_size + v.sector_size - 1) / v.sector_size;
}

qfs_result parse_fat32_fields(const uint8_t *b, fat_boot_values &v) {
    v.fat_size = get_le32(b, fo::ebpb32::fat_size_32);
    if (v.fat_size == 0) {
        QFS_LOG_ERROR("Boot sector holds no FAT size.");
        return invalid;
    }
    const uint8_t flags = b[fo::ebpb32::flags];
    v.dirty = (flags & fo::flag_dirty) != 0;
    v.surface_errors = (flags & fo::flag_surface_errors) != 0;
    v.minor_version = b[fo::ebpb32::version];
    v.major_version = b[fo::ebpb32::version + 1];
    v.root_directory_first_fat_cluster = get_le32(b, fo::ebpb32::root_cluster);
    v.fsinfo_sector = get_le16(b, fo::ebpb32::fsinfo_sector);
    if (v.fsinfo_sector > v.reserved_sectors) {
        QFS_TRACE("Bogus FSInfo sector number %hu, disabling use of FSInfo sector.", v.fsinfo_sector);
        v.fsinfo_sector = 0;
    }
    v.backup_boot_sector_sector = get_le16(b, fo::ebpb32::backup_boot_sector);
    if (v.backup_boot_sector_sector > v.reserved_sectors) {
        QFS_LOG_WARNING("Bogus backup boot sector number %llu, disabling use of backup boot sector.",
                        static_cast<unsigned long long>(v.backup_boot_sector_sector));
        v.backup_boot_sector_sector = 0;
    }
    v.has_serial_number = b[fo::ebpb32::boot_signature] == fo::extended_boot_signature;
    if (v.has_serial_number) v.serial_number = get_le32(b, fo::ebpb32::serial_number);
    const uint16_t ext_flags = get_le16(b, fo::ebpb32::ext_flags);
    if (ext_flags & fo::ext_flag_single_fat) v.active_fat = ext_flags & fo::ext_flag_active_fat_mask;
    return QFS_OK;
}

} // namespace

qfs_result fat_volume_check_boot_sector(const uint8_t *b) {
    const uint16_t signature = get_le16(b, fo::bpb::signature);
    if (signature != 0xAA55) {
        QFS_LOG_ERROR("Invalid end of sector signature: 0x%04hX", signature);
        return invalid;
    }
    if (b[fo::bpb::jump_boot] != 0xEB && b[fo::bpb::jump_boot] != 0xE9) {
        QFS_LOG_ERROR("Invalid jump instruction in boot sector: 0x%02hhX", b[fo::bpb::jump_boot]);
        return invalid;
    }
    const uint16_t sector_size = get_le16(b, fo::bpb::bytes_per_sector);
    if (!is_power_of_two(sector_size) || sector_size < min_sector_size || sector_size > max_sector_size) {
        QFS_LOG_ERROR("Invalid number of bytes per sector: %hu", sector_size);
        return invalid;
    }
    if (get_le16(b, fo::bpb::reserved_sectors) == 0) {
        QFS_LOG_ERROR("Invalid number of reserved sectors: 0");
        return invalid;
    }
    if (b[fo::bpb::number_of_fats] == 0) {
        QFS_LOG_ERROR("Invalid number of FATs: 0");
        return invalid;
    }
    const uint8_t media = b[fo::bpb::media];
    if (media < fo::media_fixed_disk && media != media_single_sided_floppy) {
        QFS_LOG_ERROR("Invalid media descriptor: 0x%02hhX", media);
        return invalid;
    }
    if (get_le16(b, fo::bpb::fat_size_16) != 0 && get_le16(b, fo::bpb::root_entries) == 0) {
        QFS_LOG_ERROR("Invalid number of root directory entries for a FAT12/16 volume: 0");
        return invalid;
    }
    return QFS_OK;
}

qfs_result fat_volume_parse_boot_sector(const uint8_t *b, fat_boot_values *out_values) {
    if (b == nullptr || out_values == nullptr) return QFS_ERR_INVALID_PARAMETER;
    fat_boot_values v{};
    v.sector_size = get_le16(b, fo::bpb::bytes_per_sector);
    v.cluster_size = static_cast<uint32_t>(b[fo::bpb::sectors_per_cluster]) * v.sector_size;
    if (!is_power_of_two(v.cluster_size)) {
        QFS_LOG_ERROR("Invalid cluster size in boot sector: %lu", static_cast<unsigned long>(v.cluster_size));
        return invalid;
    }
    v.bytes_per_sector_shift = qfs_bit_length(v.sector_size) - 1;
    v.bytes_per_cluster_shift = qfs_bit_length(v.cluster_size) - 1;
    v.reserved_sectors = get_le16(b, fo::bpb::reserved_sectors);
    v.number_of_fats = b[fo::bpb::number_of_fats];
    v.root_entries = get_le16(b, fo::bpb::root_entries);
    v.sector_count = get_le16(b, fo::bpb::total_sectors_16);
    if (v.sector_count == 0) v.sector_count = get_le32(b, fo::bpb::total_sectors_32);
    if (v.sector_count == 0) {
        QFS_LOG_ERROR("Boot sector holds no sector count.");
        return invalid;
    }
    v.fat_size = get_le16(b, fo::bpb::fat_size_16);
    const bool fat32 = v.fat_size == 0;
    if (fat32) {
        const qfs_result r = parse_fat32_fields(b, v);
        if (r != QFS_OK) return r;
    } else {
        parse_fat16_fields(b, v);
    }
    if (v.surface_errors) QFS_TRACE("Volume has surface errors.");
    if (v.dirty) QFS_TRACE("Volume is dirty.");
    v.dirty = v.dirty || v.surface_errors;
    v.fat_start_sector = v.reserved_sectors;
    v.cluster_heap_start_sector =
        v.fat_start_sector + static_cast<uint64_t>(v.fat_size) * v.number_of_fats + (fat32 ? 0 : v.root_sectors);
    if (v.cluster_heap_start_sector >= v.sector_count) {
        QFS_LOG_ERROR("Inconsistency: Cluster heap starts at sector %llu, beyond the volume's %llu sectors.",
                      static_cast<unsigned long long>(v.cluster_heap_start_sector),
                      static_cast<unsigned long long>(v.sector_count));
        return invalid;
    }
    const uint64_t cluster_count =
        (v.sector_count - v.cluster_heap_start_sector) >> (v.bytes_per_cluster_shift - v.bytes_per_sector_shift);
    if (cluster_count > UINT32_MAX) {
        QFS_LOG_CRITICAL("Unexpected cluster count: %llu > %llu", static_cast<unsigned long long>(cluster_count),
                         static_cast<unsigned long long>(UINT32_MAX));
        return QFS_ERR_INTERNAL_ERROR;
    }
    v.cluster_count = static_cast<uint32_t>(cluster_count);
    if (fat32) {
        v.fat_type = 32;
        QFS_TRACE("This is a FAT32 volume.");
    } else if (v.cluster_count > fat12_16_max_cluster_count) {
        v.fat_type = 16;
        QFS_TRACE("This is a FAT16 volume.");
    } else {
        v.fat_type = 12;
        QFS_TRACE("This is a FAT12 volume.");
    }
    const uint32_t max_entry = v.cluster_count + 1;
    if (fat32 && (v.root_directory_first_fat_cluster > max_entry ||
                  v.root_directory_first_fat_cluster < fo::first_data_cluster)) {
        QFS_LOG_ERROR("Root directory cluster 0x%lX is outside the volume (max FAT entry 0x%lX).",
                      static_cast<unsigned long>(v.root_directory_first_fat_cluster),
                      static_cast<unsigned long>(max_entry));
        return invalid;
    }
    *out_values = v;
    return QFS_OK;
}
