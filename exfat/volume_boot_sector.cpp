// The boot sector fields a volume keeps current while open: the dirty flag
// and PercentInUse. The boot-region checksum skips both, so rewriting sector
// 0 with new values leaves the region valid.
#include <cstring>

#include "exfat/volume_internal.h"
#include "support/qfs_endian.h"
#include "support/qfs_logging.h"

namespace ed = exfat_ondisk;

namespace {

qfs_result refuse_read_only() {
    QFS_LOG_ERROR("Unable to modify volume on-disk dirty state for a read-only volume.");
    return QFS_ERR_DEVICE_READ_ONLY;
}

qfs_result change_dirty_flag(exfat_volume *volume, bool dirty) {
    if (volume == nullptr || !volume->boot_sector) return QFS_ERR_INVALID_PARAMETER;
    if (volume->read_only) return refuse_read_only();
    QFS_TRACE("%s dirty flag.", dirty ? "Setting" : "Clearing");
    uint8_t *b = volume->boot_sector.get();
    const uint16_t old_flags = get_le16(b, ed::boot::volume_flags);
    const uint16_t new_flags = dirty ? static_cast<uint16_t>(old_flags | ed::flag_volume_dirty)
                                     : static_cast<uint16_t>(old_flags & ~ed::flag_volume_dirty);
    put_le16(b, ed::boot::volume_flags, new_flags);
    const qfs_result r = exfat_volume_write_boot_sector(volume);
    if (r != QFS_OK) {
        put_le16(b, ed::boot::volume_flags, old_flags);
        QFS_LOG_ERROR("Failed to write boot sector to device: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    volume->dirty = dirty ? 1 : 0;
    return QFS_OK;
}

} // namespace

qfs_result exfat_volume_write_boot_sector(exfat_volume *volume) {
    const uint32_t bps = volume->geometry.bytes_per_sector != 0
                             ? volume->geometry.bytes_per_sector
                             : 1u << volume->boot_sector[ed::boot::bytes_per_sector_shift];
    qfs_result r = qfs_device_write_exact(volume->device, 0, bps, volume->boot_sector.get());
    if (r != QFS_OK) return r;
    memcpy(volume->boot_sector_on_disk.get(), volume->boot_sector.get(), bps);
    // Not synced here: the dirty flag has to reach the medium before the changes it guards, which
    // exfat_volume_begin_change sees to, and its clearing after them, which every change syncs for
    // itself. Whatever is left is flushed when the device closes. A volume opened and closed without
    // changes (the formatter's verification) thus costs no sync at all.
    volume->boot_sector_unsynced = true;
    return QFS_OK;
}

qfs_result exfat_volume_begin_change(exfat_volume *volume) {
    if (!volume->boot_sector_unsynced) {
        return QFS_OK;
    }
    const qfs_result r = qfs_device_sync(volume->device);
    if (r == QFS_OK) {
        volume->boot_sector_unsynced = false;
    }
    return r;
}

qfs_result exfat_volume_write_boot_sector_fields(exfat_volume *volume) {
    if (memcmp(volume->boot_sector.get(), volume->boot_sector_on_disk.get(), volume->geometry.bytes_per_sector) == 0) {
        return QFS_OK;
    }
    return exfat_volume_write_boot_sector(volume);
}

qfs_result exfat_volume_compute_percent_in_use(const exfat_volume *volume, uint8_t *out_percent) {
    const int64_t clusters = volume->geometry.cluster_count;
    const int64_t in_use = clusters - static_cast<int64_t>(volume->free_clusters);
    const long long percent = clusters == 0 ? -1 : in_use * 100 / clusters;
    if (percent < 0 || percent > 100) {
        QFS_LOG_ERROR("internal miscalculation: percent_in_use=%lld", percent);
        return QFS_ERR_SYS_IO;
    }
    *out_percent = static_cast<uint8_t>(percent);
    return QFS_OK;
}

qfs_result exfat_volume_update_percent_in_use(exfat_volume *volume) {
    if (volume == nullptr || !volume->in_use) return QFS_ERR_INVALID_PARAMETER;
    if (volume->read_only) {
        QFS_LOG_ERROR("Unable to update percent_in_use on a read-only volume.");
        return QFS_ERR_DEVICE_READ_ONLY;
    }
    uint8_t percent = 0;
    qfs_result r = exfat_volume_compute_percent_in_use(volume, &percent);
    if (r != QFS_OK) return r;
    uint8_t *b = volume->boot_sector.get();
    const uint8_t old_percent = b[ed::boot::percent_in_use];
    b[ed::boot::percent_in_use] = percent;
    QFS_TRACE("Updating percent_in_use: %hhu%%", percent);
    r = exfat_volume_write_boot_sector(volume);
    if (r != QFS_OK) {
        b[ed::boot::percent_in_use] = old_percent;
        QFS_LOG_ERROR("Failed to write boot sector to device: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    return QFS_OK;
}

qfs_result exfat_volume_set_dirty(exfat_volume *volume) { return change_dirty_flag(volume, true); }

qfs_result exfat_volume_clear_dirty(exfat_volume *volume) { return change_dirty_flag(volume, false); }
