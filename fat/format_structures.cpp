#include "fat/format_structures.h"

#include <array>
#include <cstring>
#include <utility>

#include "fat/fat_ondisk.h"
#include "fat/util.h"
#include "support/qfs_endian.h"
#include "support/qfs_logging.h"

namespace fo = fat_ondisk;

namespace {

using sector_template = std::array<uint8_t, fo::boot_sector_size>;

constexpr uint64_t u32_limit = 4294967295u;
constexpr uint64_t u16_limit = 65535;
constexpr uint8_t max_sectors_per_cluster = 128; // the largest power of two the boot sector's byte holds
constexpr uint32_t fat32_next_free_hint = 3;     // cluster 2 holds the root directory

constexpr void put_text(sector_template &t, size_t offset, const char *text) {
    for (size_t i = 0; text[i] != '\0'; ++i)
        t[offset + i] = static_cast<uint8_t>(text[i]);
}
constexpr void put_u16(sector_template &t, size_t offset, uint16_t value) {
    t[offset] = static_cast<uint8_t>(value);
    t[offset + 1] = static_cast<uint8_t>(value >> 8);
}

// What both templates share: jump (a short jump with displacement 0: there is
// no boot code), OEM name, two FATs, fixed-disk media, filler, signature.
constexpr sector_template common_template(size_t boot_code) {
    sector_template t{};
    t[fo::bpb::jump_boot] = 0xEB;
    t[fo::bpb::jump_boot + 2] = 0x90;
    put_text(t, fo::bpb::oem_name, "MSWIN4.1");
    put_u16(t, fo::bpb::bytes_per_sector, 512);
    t[fo::bpb::number_of_fats] = 2;
    t[fo::bpb::media] = fo::media_fixed_disk;
    for (size_t i = boot_code; i < fo::bpb::signature; ++i)
        t[i] = fo::boot_code_fill;
    t[fo::bpb::signature] = 0x55;
    t[fo::bpb::signature + 1] = 0xAA;
    return t;
}

constexpr sector_template make_fat16_template() {
    sector_template t = common_template(fo::ebpb16::boot_code);
    t[fo::bpb::sectors_per_cluster] = 4;
    put_u16(t, fo::bpb::reserved_sectors, 1);
    put_u16(t, fo::bpb::root_entries, 512);
    t[fo::ebpb16::drive_number] = fo::drive_number_fixed_disk;
    t[fo::ebpb16::boot_signature] = fo::extended_boot_signature;
    put_text(t, fo::ebpb16::label, fo::no_label);
    put_text(t, fo::ebpb16::type_name, "FAT16   ");
    return t;
}

constexpr sector_template make_fat32_template() {
    sector_template t = common_template(fo::ebpb32::boot_code);
    t[fo::bpb::sectors_per_cluster] = 8;
    put_u16(t, fo::bpb::reserved_sectors, 32);
    t[fo::ebpb32::root_cluster] = fo::fat32_root_cluster;
    put_u16(t, fo::ebpb32::fsinfo_sector, fo::fat32_fsinfo_sector);
    put_u16(t, fo::ebpb32::backup_boot_sector, 6);
    t[fo::ebpb32::drive_number] = fo::drive_number_fixed_disk;
    t[fo::ebpb32::boot_signature] = fo::extended_boot_signature;
    put_text(t, fo::ebpb32::label, fo::no_label);
    put_text(t, fo::ebpb32::type_name, "FAT32   ");
    return t;
}

constexpr sector_template fat16_template = make_fat16_template();
constexpr sector_template fat32_template = make_fat32_template();

// The fields every FAT type stores the same way.
void put_common_fields(uint8_t *b, uint32_t sector_size, uint32_t sectors_per_cluster, uint64_t reserved_sectors,
                       uint8_t number_of_fats, uint16_t sectors_per_track, uint16_t heads, uint32_t hidden_sectors) {
    put_le16(b, fo::bpb::bytes_per_sector, static_cast<uint16_t>(sector_size));
    b[fo::bpb::sectors_per_cluster] = static_cast<uint8_t>(sectors_per_cluster);
    put_le16(b, fo::bpb::reserved_sectors, static_cast<uint16_t>(reserved_sectors));
    b[fo::bpb::number_of_fats] = number_of_fats;
    put_le16(b, fo::bpb::sectors_per_track, sectors_per_track);
    put_le16(b, fo::bpb::heads, heads);
    put_le32(b, fo::bpb::hidden_sectors, hidden_sectors);
}

// The most root entries the 16-bit field holds that still fill whole sectors.
uint16_t stored_root_entries(uint32_t entries, uint32_t sector_size) {
    if (entries <= u16_limit) return static_cast<uint16_t>(entries);
    return static_cast<uint16_t>(sector_size * (2097120 / sector_size) / fo::dentry_size);
}

void put_label(uint8_t *field, const uint8_t *label, uint8_t label_length) {
    memset(field, ' ', fo::label_length);
    memcpy(field, label, label_length);
}

qfs_result settle_serial_number(const uint32_t *given, const format_monitor *monitor, uint32_t *out_serial) {
    if (given != nullptr) {
        *out_serial = *given;
        return QFS_OK;
    }
    const qfs_result r = fat_util_generate_serial_number(out_serial);
    if (r != QFS_OK) {
        format_monitor_error(monitor, "Error while generating serial number: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    QFS_TRACE("Generated serial number: 0x%lX", static_cast<unsigned long>(*out_serial));
    return QFS_OK;
}

} // namespace

qfs_result fat_format_fill_boot_sector(uint32_t sector_size, uint64_t total_sectors, uint32_t sectors_per_cluster,
                                       uint64_t reserved_sectors, uint8_t number_of_fats,
                                       uint32_t root_directory_entries, uint16_t sectors_per_track, uint16_t heads,
                                       uint8_t fat_type, uint32_t sectors_per_fat, uint64_t partition_start,
                                       const uint32_t *serial_number, const uint8_t *label, uint8_t label_length,
                                       uint32_t backup_boot_sector, uint8_t *buffer, const format_monitor *monitor) {
    if (buffer == nullptr || (label == nullptr && label_length != 0) || label_length > fo::label_length) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (reserved_sectors > u16_limit) {
        QFS_LOG_CRITICAL("Reserved sectors out of bounds for boot sector: %llu",
                         static_cast<unsigned long long>(reserved_sectors));
        return QFS_ERR_INTERNAL_ERROR;
    }
    if (sectors_per_cluster == 0 || sectors_per_cluster > max_sectors_per_cluster) {
        format_monitor_error(monitor, "Sectors per cluster out of bounds for boot sector: %lu",
                             static_cast<unsigned long>(sectors_per_cluster));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    uint32_t serial = 0;
    qfs_result r = settle_serial_number(serial_number, monitor, &serial);
    if (r != QFS_OK) return r;
    if (partition_start > u32_limit) {
        format_monitor_warning(monitor,
                               "Partition start sector (%llu) is out of bounds for FAT, so setting to 0. This volume "
                               "will not be bootable.",
                               static_cast<unsigned long long>(partition_start));
        partition_start = 0;
    }
    if (total_sectors > u32_limit) {
        format_monitor_error(monitor,
                             "Number of device sectors exceed the maximum number of sectors for a FAT%s volume: %llu",
                             fat_type == 12   ? "12"
                             : fat_type == 16 ? "16"
                                              : "32",
                             static_cast<unsigned long long>(total_sectors));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    size_t label_field = 0;
    if (fat_type == 32) {
        if (backup_boot_sector > u16_limit) {
            format_monitor_error(monitor, "Backup boot sector is out of bounds for a FAT32 volume: %lu",
                                 static_cast<unsigned long>(backup_boot_sector));
            return QFS_ERR_SYS_INVALID_ARGUMENT;
        }
        memcpy(buffer, fat32_template.data(), fat32_template.size());
        put_le32(buffer, fo::bpb::total_sectors_32, static_cast<uint32_t>(total_sectors));
        put_le32(buffer, fo::ebpb32::fat_size_32, sectors_per_fat);
        put_le16(buffer, fo::ebpb32::backup_boot_sector, static_cast<uint16_t>(backup_boot_sector));
        put_le32(buffer, fo::ebpb32::serial_number, serial);
        label_field = fo::ebpb32::label;
    } else if (fat_type == 12 || fat_type == 16) {
        memcpy(buffer, fat16_template.data(), fat16_template.size());
        put_le16(buffer, fo::bpb::root_entries, stored_root_entries(root_directory_entries, sector_size));
        const bool small = total_sectors <= u16_limit;
        put_le16(buffer, fo::bpb::total_sectors_16, small ? static_cast<uint16_t>(total_sectors) : 0);
        put_le32(buffer, fo::bpb::total_sectors_32, small ? 0 : static_cast<uint32_t>(total_sectors));
        put_le16(buffer, fo::bpb::fat_size_16, static_cast<uint16_t>(sectors_per_fat));
        put_le32(buffer, fo::ebpb16::serial_number, serial);
        memcpy(buffer + fo::ebpb16::type_name, fat_type == 12 ? "FAT12   " : "FAT16   ", 8);
        label_field = fo::ebpb16::label;
    } else {
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    put_common_fields(buffer, sector_size, sectors_per_cluster, reserved_sectors, number_of_fats, sectors_per_track,
                      heads, static_cast<uint32_t>(partition_start));
    if (label != nullptr && label_length > 0) put_label(buffer + label_field, label, label_length);
    return QFS_OK;
}

qfs_result fat_format_init_fat_sector(uint8_t media, uint8_t fat_type, bool strict_or_whole, uint32_t sector_size,
                                      uint32_t sectors_to_clear, uint8_t *buffer) {
    if (buffer == nullptr) return QFS_ERR_INVALID_PARAMETER;
    memset(buffer, 0, static_cast<size_t>(sectors_to_clear) * sector_size);
    switch (fat_type) {
    case 12: // entries 0 and 1: 0xFF8 and 0xFFF, packed into three bytes
        buffer[0] = media;
        buffer[1] = 0xFF;
        buffer[2] = 0xFF;
        return QFS_OK;
    case 16:
        put_le16(buffer, 0, static_cast<uint16_t>(0xFF00 | media));
        put_le16(buffer, 2, 0xFFFF);
        return QFS_OK;
    case 32:
        // Entry 1 keeps its top four bits only outside card-association runs; both forms are in use.
        put_le32(buffer, 0, 0x0FFFFF00u | media);
        put_le32(buffer, 4, strict_or_whole ? 0x0FFFFFFFu : 0xFFFFFFFFu);
        put_le32(buffer, 8, 0x0FFFFFFFu); // the root directory's one cluster
        return QFS_OK;
    default:
        return QFS_ERR_INVALID_PARAMETER;
    }
}

qfs_result fat_format_init_root_directory(uint8_t *buffer, size_t size, const uint8_t *label, uint8_t label_length) {
    if (buffer == nullptr || (label != nullptr && (size < fo::dentry_size || label_length > fo::label_length))) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    memset(buffer, 0, size);
    if (label == nullptr || label_length == 0) return QFS_OK;
    put_label(buffer + fo::dentry::name, label, label_length);
    if (buffer[fo::dentry::name] == fo::dentry_deleted) buffer[fo::dentry::name] = fo::dentry_e5_escape;
    buffer[fo::dentry::attributes] = fo::attribute_volume_label;
    return QFS_OK;
}

qfs_result fat_format_init_fsinfo_sector(uint32_t cluster_count, uint8_t *buffer) {
    if (buffer == nullptr) return QFS_ERR_INVALID_PARAMETER;
    memset(buffer, 0, fo::boot_sector_size);
    put_le32(buffer, fo::fsinfo::lead_signature, fo::fsinfo::lead_value);
    put_le32(buffer, fo::fsinfo::struct_signature, fo::fsinfo::struct_value);
    put_le32(buffer, fo::fsinfo::free_count, cluster_count - 1);
    put_le32(buffer, fo::fsinfo::next_free, fat32_next_free_hint);
    put_le32(buffer, fo::fsinfo::trail_signature, fo::fsinfo::trail_value);
    return QFS_OK;
}

qfs_result fat_format_init_third_boot_sector(uint8_t *buffer) {
    if (buffer == nullptr) return QFS_ERR_INVALID_PARAMETER;
    memset(buffer, 0, fo::boot_sector_size);
    buffer[fo::bpb::signature] = 0x55;
    buffer[fo::bpb::signature + 1] = 0xAA;
    return QFS_OK;
}

qfs_result fat_format_build_images(const fat_layout &layout, const fat_format_content &content,
                                   const format_monitor *monitor, fat_format_images *out_images) {
    if (out_images == nullptr) return QFS_ERR_INVALID_PARAMETER;
    const bool fat32 = layout.fat_type == 32;
    const size_t ss = layout.sector_size;
    fat_format_images images{};
    images.boot_region_size = ss * (fat32 ? fo::fat32_boot_region_sectors : 1);
    images.fat_sector_size = ss;
    images.root_directory_size =
        fat32 ? layout.cluster_size : static_cast<size_t>(layout.root_directory_entries) * fo::dentry_size;
    const struct {
        size_t size;
        qfs_buffer &buffer;
        const char *failure;
    } buffers[] = {
        {images.boot_region_size, images.boot_region, "Failed to allocate memory to hold boot region data: %lu (%s)"},
        {images.fat_sector_size, images.fat_sector, "Failed to allocate memory to hold FAT data: %lu (%s)"},
        {images.root_directory_size, images.root_directory, "Failed to allocate memory to hold root dir: %lu (%s)"},
    };
    qfs_result r = QFS_OK;
    for (const auto &b : buffers) {
        r = qfs_buffer_alloc(b.size, b.buffer);
        if (r != QFS_OK) {
            format_monitor_error(monitor, b.failure, QFS_ERR_ARGS(r));
            return r;
        }
    }
    uint8_t *boot = images.boot_region.get();
    r = fat_format_fill_boot_sector(ss, layout.sector_count, layout.sectors_per_cluster, layout.reserved_sectors,
                                    layout.number_of_fats, layout.root_directory_entries, layout.sectors_per_track,
                                    layout.heads, layout.fat_type, layout.fat_sectors, layout.partition_start,
                                    content.serial_number, content.label, content.label_length,
                                    layout.backup_boot_sector, boot, monitor);
    if (r != QFS_OK) {
        format_monitor_error(monitor, "Error while initializing boot sector: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    r = fat_format_init_fat_sector(fo::media_fixed_disk, layout.fat_type, content.strict_or_whole, layout.sector_size,
                                   1, images.fat_sector.get());
    if (r == QFS_OK) {
        r = fat_format_init_root_directory(images.root_directory.get(), images.root_directory_size, content.label,
                                           content.label_length);
    }
    if (r == QFS_OK && fat32) r = fat_format_init_fsinfo_sector(layout.cluster_count, boot + ss);
    if (r == QFS_OK && fat32) r = fat_format_init_third_boot_sector(boot + 2 * ss);
    if (r != QFS_OK) return r;
    *out_images = std::move(images);
    return QFS_OK;
}
