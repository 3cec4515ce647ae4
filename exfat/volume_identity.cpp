// The volume's identity beyond its label: the serial number in the boot
// sector and the optional volume GUID record in the root directory.
#include <cstring>

#include "exfat/util.h"
#include "exfat/volume_boot_region.h"
#include "exfat/volume_internal.h"
#include "support/qfs_endian.h"
#include "support/qfs_logging.h"

namespace ed = exfat_ondisk;

namespace {

constexpr size_t guid_size = 16;

// Rewrites a boot region's boot sector and checksum sector after a change to checksummed bytes.
qfs_result write_sealed_region(exfat_volume *volume, uint8_t *region, exfat_boot_region which) {
    const uint32_t bps = volume->geometry.bytes_per_sector;
    exfat_boot_region_seal(region, bps);
    const uint64_t base = which == exfat_boot_region::main ? 0 : static_cast<uint64_t>(ed::boot_region_sectors) * bps;
    qfs_result r = qfs_device_write_exact(volume->device, base, bps, region);
    if (r != QFS_OK) return r;
    const uint64_t checksum_offset = static_cast<uint64_t>(ed::checksum_sector) * bps;
    return qfs_device_write_exact(volume->device, base + checksum_offset, bps, region + checksum_offset);
}

qfs_result change_serial_number(exfat_volume *volume, uint32_t serial) {
    if (volume->read_only) return QFS_ERR_DEVICE_READ_ONLY;
    if (!volume->main_boot_region || !volume->backup_boot_region) return QFS_ERR_INVALID_PARAMETER;
    const uint32_t bps = volume->geometry.bytes_per_sector;
    qfs_result r = exfat_volume_begin_change(volume);
    if (r != QFS_OK) return r;
    // The main region's boot sector is the one the volume keeps current (dirty flag, PercentInUse).
    put_le32(volume->boot_sector.get(), ed::boot::volume_serial_number, serial);
    memcpy(volume->main_boot_region.get(), volume->boot_sector.get(), bps);
    r = write_sealed_region(volume, volume->main_boot_region.get(), exfat_boot_region::main);
    if (r != QFS_OK) return r;
    memcpy(volume->boot_sector_on_disk.get(), volume->boot_sector.get(), bps);
    put_le32(volume->backup_boot_region.get(), ed::boot::volume_serial_number, serial);
    r = write_sealed_region(volume, volume->backup_boot_region.get(), exfat_boot_region::backup);
    if (r != QFS_OK) return r;
    volume->serial_high = static_cast<uint16_t>(serial >> 16);
    volume->serial_low = static_cast<uint16_t>(serial);
    return qfs_device_sync(volume->device);
}

} // namespace

qfs_result exfat_volume_store_root_record(exfat_volume *volume, const exfat_root_record &record, const uint8_t *entry) {
    if (volume->read_only) return QFS_ERR_DEVICE_READ_ONLY;
    uint64_t position = 0;
    if (record.present) {
        position = record.position;
    } else if (volume->root_metadata.has_free_slot) {
        position = volume->root_metadata.free_slot_position;
    } else {
        QFS_LOG_ERROR("No free entry left in root directory for a volume record: %lu (%s)", QFS_ERR_ARGS(QFS_ERR_SYS_NO_SPACE));
        return QFS_ERR_SYS_NO_SPACE;
    }
    qfs_result r = exfat_volume_begin_change(volume);
    if (r != QFS_OK) return r;
    r = qfs_device_write_exact(volume->device, position, ed::dentry_size, entry);
    if (r != QFS_OK) return r;
    r = qfs_device_sync(volume->device);
    if (r != QFS_OK) return r;
    return exfat_root_directory_read_records(volume->device, volume->geometry, volume->fat.get(),
                                             volume->root->first_cluster, volume->root->cluster_count,
                                             &volume->root_metadata);
}

qfs_result exfat_volume_set_serial_number(exfat_volume *volume, uint32_t serial_number) {
    if (volume == nullptr || !volume->in_use) return QFS_ERR_INVALID_PARAMETER;
    const qfs_result r = change_serial_number(volume, serial_number);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while setting volume serial number: %lu (%s)", QFS_ERR_ARGS(r));
    }
    return r;
}

qfs_result exfat_volume_get_guid(const exfat_volume *volume, uint8_t *out_guid) {
    if (volume == nullptr || out_guid == nullptr || !volume->in_use) return QFS_ERR_INVALID_PARAMETER;
    const exfat_root_record &record = volume->root_metadata.guid;
    if (!record.present) return QFS_ERR_SYS_NO_ENTRY;
    const uint16_t stored = get_le16(record.entry, ed::dentry::set_checksum);
    const uint16_t calculated = exfat_util_calculate_entry_set_checksum(record.entry, 1);
    if (stored != calculated) {
        QFS_LOG_ERROR("Volume inconsistency - Bad set checksum in volume GUID record (stored 0x%04hX, calculated "
                      "0x%04hX): %lu (%s)",
                      stored, calculated, QFS_ERR_ARGS(QFS_ERR_SYS_IO));
        return QFS_ERR_SYS_IO;
    }
    memcpy(out_guid, record.entry + ed::dentry::volume_guid, guid_size);
    return QFS_OK;
}

qfs_result exfat_volume_set_guid(exfat_volume *volume, const uint8_t *guid) {
    if (volume == nullptr || guid == nullptr || !volume->in_use) return QFS_ERR_INVALID_PARAMETER;
    uint8_t entry[ed::dentry_size] = {};
    entry[ed::dentry::entry_type] = ed::dentry_volume_guid;
    entry[ed::dentry::secondary_count] = 0;
    put_le16(entry, ed::dentry::guid_flags, 0);
    memcpy(entry + ed::dentry::volume_guid, guid, guid_size);
    put_le16(entry, ed::dentry::set_checksum, exfat_util_calculate_entry_set_checksum(entry, 1));
    const qfs_result r = exfat_volume_store_root_record(volume, volume->root_metadata.guid, entry);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while setting volume GUID: %lu (%s)", QFS_ERR_ARGS(r));
    }
    return r;
}
