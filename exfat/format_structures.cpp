#include "exfat/format_structures.h"

#include <cstring>

#include "exfat/exfat_ondisk.h"
#include "exfat/upcase.h"
#include "exfat/util.h"
#include "support/qfs_endian.h"
#include "support/qfs_logging.h"
#include "support/qfs_support.h"

namespace ed = exfat_ondisk;

namespace {

// The fixed part of every boot sector's first 512 bytes.
void write_boot_template(uint8_t *sector) {
    memset(sector, 0, 512);
    sector[ed::boot::jump_boot] = 0xEB;
    sector[ed::boot::jump_boot + 1] = 0x76;
    sector[ed::boot::jump_boot + 2] = 0x90;
    memcpy(sector + ed::boot::file_system_name, "EXFAT   ", 8);
    put_le16(sector, ed::boot::file_system_revision, ed::revision_1_0);
    sector[ed::boot::number_of_fats] = 1;
    sector[ed::boot::drive_select] = 0x80;
    memset(sector + ed::boot::boot_code, ed::boot_code_fill, ed::boot::boot_code_length);
    sector[ed::boot::boot_signature] = 0x55;
    sector[ed::boot::boot_signature + 1] = 0xAA;
}

void set_bit(uint8_t *bitmap, uint32_t bit) { bitmap[bit / 8] |= static_cast<uint8_t>(1u << (bit % 8)); }

// A chain of `count` clusters from `first`: each entry names the next, the last ends the chain.
void write_chain(uint8_t *fat, uint32_t first, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t cluster = first + i;
        put_le32(fat, static_cast<size_t>(cluster) * 4, i + 1 < count ? cluster + 1 : ed::fat_end_of_chain);
    }
}

void build_fat(uint8_t *fat, const exfat_layout &layout) {
    put_le32(fat, 0, ed::fat_media_entry);
    put_le32(fat, 4, ed::fat_end_of_chain);
    write_chain(fat, layout.bitmap_first_cluster, layout.bitmap_clusters);
    write_chain(fat, layout.upcase_first_cluster, layout.upcase_clusters);
    write_chain(fat, layout.root_first_cluster, 1);
}

void build_bitmap(uint8_t *bitmap, const exfat_layout &layout) {
    // One bit for each cluster of the bitmap, the up-case table and the root directory.
    const uint32_t used = layout.bitmap_clusters + layout.upcase_clusters + 1;
    for (uint32_t bit = 0; bit < used; ++bit) set_bit(bitmap, bit);
}

void build_root_directory(uint8_t *root, const exfat_layout &layout, const exfat_format_content &content) {
    uint8_t *label = root;
    label[ed::dentry::entry_type] = ed::dentry_volume_label;
    if (content.volume_name != nullptr) {
        label[ed::dentry::label_character_count] = content.volume_name_length;
        for (uint8_t i = 0; i < content.volume_name_length; ++i) {
            put_le16(label, ed::dentry::label_text + 2u * i, content.volume_name[i]);
        }
    }
    uint8_t *bitmap = root + ed::dentry_size;
    bitmap[ed::dentry::entry_type] = ed::dentry_allocation_bitmap;
    bitmap[ed::dentry::bitmap_flags] = 0;
    put_le32(bitmap, ed::dentry::first_cluster, layout.bitmap_first_cluster);
    put_le64(bitmap, ed::dentry::data_length, layout.bitmap_bytes);

    uint8_t *upcase = root + 2 * ed::dentry_size;
    upcase[ed::dentry::entry_type] = ed::dentry_upcase_table;
    put_le32(upcase, ed::dentry::table_checksum, ed::default_upcase_checksum);
    put_le32(upcase, ed::dentry::first_cluster, layout.upcase_first_cluster);
    put_le64(upcase, ed::dentry::data_length, layout.upcase_bytes);

    if (content.volume_guid != nullptr) {
        uint8_t *guid = root + 3 * ed::dentry_size;
        guid[ed::dentry::entry_type] = ed::dentry_volume_guid;
        guid[ed::dentry::secondary_count] = 0;
        memcpy(guid + ed::dentry::volume_guid, content.volume_guid, 16);
        put_le16(guid, ed::dentry::set_checksum, exfat_util_calculate_entry_set_checksum(guid, 1));
    }
}

// Keeps the card's existing OEM parameters, adding the flash parameters in a free slot if none are there.
qfs_result complete_oem_parameters(qfs_device *dev, uint8_t *sector, uint32_t sector_size, uint64_t position,
                                   const uint8_t *flash_params, const format_monitor *monitor) {
    size_t got = 0;
    const qfs_result r = qfs_device_pread(dev, position, sector_size, sector, &got);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Failed to read existing main OEM parameters from device: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    if (got != sector_size) {
        QFS_LOG_ERROR("Failed to read existing main OEM parameters from device: %lu (%s)",
                      QFS_ERR_ARGS(QFS_ERR_SYS_IO));
        return QFS_ERR_SYS_IO;
    }
    memset(sector + ed::oem_slots_end, 0, sector_size - ed::oem_slots_end);
    if (flash_params == nullptr) {
        return QFS_OK;
    }
    static constexpr uint8_t empty_guid[ed::oem_guid_size] = {};
    uint8_t *flash_slot = nullptr;
    uint8_t *empty_slot = nullptr;
    for (size_t i = 0; i < ed::oem_slot_count; ++i) {
        uint8_t *slot = sector + i * ed::oem_slot_size;
        if (flash_slot == nullptr && memcmp(slot, ed::flash_parameters_guid, ed::oem_guid_size) == 0) flash_slot = slot;
        if (empty_slot == nullptr && memcmp(slot, empty_guid, ed::oem_guid_size) == 0) empty_slot = slot;
    }
    if (flash_slot != nullptr) {
        format_monitor_info(monitor, "Existing flash parameters structure found. No changes will be made.");
    } else if (empty_slot != nullptr) {
        memcpy(empty_slot, ed::flash_parameters_guid, ed::oem_guid_size);
        memcpy(empty_slot + ed::oem_guid_size, flash_params, ed::oem_parameters_size);
    } else {
        format_monitor_warning(monitor, "Found no empty slot to store supplied flash parameters.");
    }
    return QFS_OK;
}

void fill_checksum_sector(uint8_t *region, uint32_t sector_size) {
    const uint32_t checksum =
        exfat_util_calculate_boot_region_checksum(region, static_cast<size_t>(ed::checksummed_sectors) * sector_size);
    uint8_t *sector = region + static_cast<size_t>(ed::checksum_sector) * sector_size;
    for (uint32_t i = 0; i < sector_size; ++i) sector[i] = static_cast<uint8_t>(checksum >> (8 * (i % 4)));
}

qfs_result build_boot_region(qfs_device *dev, uint8_t *region, const exfat_layout &layout,
                             const exfat_format_content &content, const format_monitor *monitor) {
    const uint32_t ss = layout.sector_size;
    auto sector = [&](uint32_t n) { return region + static_cast<size_t>(n) * ss; };
    qfs_result r = exfat_format_fill_boot_sector(sector(0), layout, content.serial_number, monitor);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Failed to fill boot record: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    memcpy(sector(ed::boot_region_sectors), sector(0), ss);
    for (uint32_t n = ed::extended_boot_first_sector; n < ed::extended_boot_first_sector + ed::extended_boot_sector_count;
         ++n) {
        memset(sector(n), 0, ss);
        sector(n)[ss - 2] = 0x55;
        sector(n)[ss - 1] = 0xAA;
        memcpy(sector(ed::boot_region_sectors + n), sector(n), ss);
    }
    r = complete_oem_parameters(dev, sector(ed::oem_parameters_sector), ss, content.oem_parameters_position,
                                content.flash_params, monitor);
    if (r != QFS_OK) {
        return r;
    }
    memcpy(sector(ed::boot_region_sectors + ed::oem_parameters_sector), sector(ed::oem_parameters_sector), ss);
    memset(sector(ed::reserved_sector), 0, ss);
    memset(sector(ed::boot_region_sectors + ed::reserved_sector), 0, ss);
    fill_checksum_sector(region, ss);
    fill_checksum_sector(sector(ed::boot_region_sectors), ss);
    return QFS_OK;
}

unsigned log2_exact(uint64_t value) { return qfs_bit_length(value) - 1; }

bool is_power_of_two(uint64_t value) { return value != 0 && (value & (value - 1)) == 0; }

} // namespace

qfs_result exfat_format_fill_boot_sector(uint8_t *sector, const exfat_layout &layout, const uint32_t *serial_number,
                                         const format_monitor *monitor) {
    const uint32_t ss = layout.sector_size;
    if (!is_power_of_two(ss) || log2_exact(ss) < 9 || log2_exact(ss) > 12) {
        format_monitor_error(monitor, "Sector size (%lu bytes) is incompatible with exFAT: ",
                             static_cast<unsigned long>(ss));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    const unsigned sector_shift = log2_exact(ss);
    if (!is_power_of_two(layout.cluster_size) || log2_exact(layout.cluster_size) < sector_shift ||
        log2_exact(layout.cluster_size) >= 26) {
        format_monitor_error(monitor, "Cluster size incompatible with volume: %lu",
                             static_cast<unsigned long>(layout.cluster_size));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    uint32_t serial = 0;
    if (serial_number != nullptr) {
        serial = *serial_number;
    } else {
        const qfs_result r = exfat_util_generate_serial_number(&serial);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Error while generating serial number: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
    }
    write_boot_template(sector);
    put_le64(sector, ed::boot::partition_offset, layout.partition_offset);
    put_le64(sector, ed::boot::volume_length, layout.volume_sector_count);
    put_le32(sector, ed::boot::fat_offset, layout.fat_offset);
    put_le32(sector, ed::boot::fat_length, layout.fat_length);
    put_le32(sector, ed::boot::cluster_heap_offset, layout.cluster_heap_offset);
    put_le32(sector, ed::boot::cluster_count, layout.cluster_count);
    put_le32(sector, ed::boot::first_cluster_of_root, layout.root_first_cluster);
    put_le32(sector, ed::boot::volume_serial_number, serial);
    sector[ed::boot::bytes_per_sector_shift] = static_cast<uint8_t>(sector_shift);
    sector[ed::boot::sectors_per_cluster_shift] = static_cast<uint8_t>(log2_exact(layout.cluster_size) - sector_shift);
    if (ss > 512) {
        memset(sector + 512, 0, ss - 512);
    }
    return QFS_OK;
}

qfs_result exfat_format_build_images(qfs_device *dev, const exfat_layout &layout, const exfat_format_content &content,
                                     const format_monitor *monitor, exfat_format_images *out_images) {
    exfat_format_images images{};
    qfs_result r = exfat_upcase_get_default_compressed_table(&images.upcase, &images.upcase_size);
    if (r != QFS_OK) {
        return r;
    }
    r = qfs_buffer_alloc(layout.partial_bitmap_size, images.partial_bitmap);
    if (r != QFS_OK) {
        format_monitor_error(monitor, "Failed to allocate memory for 'partial_bitmap': %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    r = qfs_buffer_alloc(layout.partial_fat_size, images.partial_fat);
    if (r != QFS_OK) {
        format_monitor_error(monitor, "Failed to allocate memory for 'partial_fat': %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    r = qfs_buffer_alloc(layout.root_dir_size, images.root_dir);
    if (r != QFS_OK) {
        format_monitor_error(monitor, "Failed to allocate memory to hold 'partial_root_dir': %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    r = qfs_buffer_alloc(layout.boot_region_size, images.boot_region);
    if (r != QFS_OK) {
        format_monitor_error(monitor, "Failed to allocate memory to hold boot region data: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    build_bitmap(images.partial_bitmap.get(), layout);
    build_fat(images.partial_fat.get(), layout);
    build_root_directory(images.root_dir.get(), layout, content);
    r = build_boot_region(dev, images.boot_region.get(), layout, content, monitor);
    if (r != QFS_OK) {
        return r;
    }
    *out_images = std::move(images);
    return QFS_OK;
}
