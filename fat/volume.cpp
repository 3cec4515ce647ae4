// Opening, closing and releasing a FAT volume.
#include "fat/volume.h"

#include <new>

#include "fat/volume_internal.h"
#include "support/qfs_logging.h"
#include "support/qfs_scope.h"
#include "support/qfs_unistr.h"

namespace {

constexpr uint32_t default_codepage = 437;
// Room for a mount point path and its terminator.
constexpr size_t mount_point_buffer_size = 4097;

// A device nobody has opened yet must not be mounted elsewhere.
qfs_result refuse_if_mounted(qfs_device *device) {
    char mount_point[mount_point_buffer_size] = {};
    uint32_t mounted = 0, in_use = 0;
    const qfs_result r = qfs_device_check_if_in_use(device, &mounted, &in_use, mount_point, sizeof(mount_point));
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while checking if the device is already mounted: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    if (!mounted) return QFS_OK;
    mount_point[mount_point_buffer_size - 1] = '\0';
    QFS_LOG_ERROR("Refusing to open a volume that is mounted (at \"%s\"): %lu (%s)", mount_point,
                  QFS_ERR_ARGS(QFS_ERR_SYS_BUSY));
    return QFS_ERR_SYS_BUSY;
}

qfs_result allocate_volume(fat_volume **out_volume) {
    *out_volume = new (std::nothrow) fat_volume{};
    if (*out_volume != nullptr) return QFS_OK;
    QFS_LOG_ERROR("Failed to malloc %zu bytes: %lu (%s)", sizeof(fat_volume), QFS_ERR_ARGS(QFS_ERR_OUT_OF_MEMORY));
    return QFS_ERR_OUT_OF_MEMORY;
}

// The code page of the create flags, checked.
qfs_result codepage_of(uint32_t flags, uint32_t *out_codepage) {
    uint32_t codepage = (flags & FAT_VOLUME_CODEPAGE_MASK) >> FAT_VOLUME_CODEPAGE_SHIFT;
    if (codepage == 0) codepage = default_codepage;
    if (!qfs_unistr_codepage_supported(codepage)) {
        QFS_LOG_ERROR("Unsupported codepage: %d", static_cast<int>(codepage));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    *out_codepage = codepage;
    return QFS_OK;
}

} // namespace

qfs_result fat_volume_read_exact(qfs_device *device, uint64_t position, size_t count, void *buffer) {
    size_t got = 0;
    const qfs_result r = qfs_device_pread(device, position, count, buffer, &got);
    if (r != QFS_OK) return r;
    return got == count ? QFS_OK : QFS_ERR_SYS_IO;
}

qfs_result fat_volume_create(qfs_device *device, uint32_t flags, fat_volume **out_volume) {
    QFS_TRACE("Entering: device=%p flags=0x%lX out_volume=%p", static_cast<void *>(device),
              static_cast<unsigned long>(flags), static_cast<void *>(out_volume));
    if (device == nullptr || out_volume == nullptr) return QFS_ERR_INVALID_PARAMETER;
    uint32_t codepage = 0;
    qfs_result r = codepage_of(flags, &codepage);
    if (r != QFS_OK) return r;
    const bool read_only = (flags & FAT_VOLUME_READ_ONLY) != 0;
    if (read_only && (flags & FAT_VOLUME_TIME_MODE_MASK) != 0) {
        QFS_LOG_ERROR("Invalid time mode for read only volume.");
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    const bool device_was_open = (device->flags & QFS_DEVICE_FLAG_OPEN) != 0;
    if (!device_was_open) {
        r = refuse_if_mounted(device);
        if (r != QFS_OK) return r;
    }
    fat_volume *volume = nullptr;
    r = allocate_volume(&volume);
    if (r != QFS_OK) return r;
    volume->device = device;
    volume->flags = flags;
    volume->codepage = codepage;
    volume->read_only = read_only;
    qfs_cleanup undo([&] { fat_volume_destroy(&volume); });
    if (!device_was_open) {
        r = qfs_device_open(device, 0);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Error while opening device: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
        volume->opened_device = true;
    }
    volume->in_use = true;
    uint8_t boot_sector[512];
    r = fat_volume_read_exact(device, 0, sizeof(boot_sector), boot_sector);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Failed to read boot sector from FAT volume: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    r = fat_volume_init_cached_values(volume, boot_sector);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Initializing cached values failed: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    undo.dismiss();
    *out_volume = volume;
    return QFS_OK;
}

qfs_result fat_volume_close(fat_volume *volume) {
    if (volume == nullptr) return QFS_ERR_INVALID_PARAMETER;
    if (!volume->in_use) return QFS_OK;
    volume->in_use = false;
    if (!volume->opened_device) return QFS_OK;
    volume->opened_device = false;
    const qfs_result r = qfs_device_close(volume->device);
    if (r != QFS_OK) QFS_LOG_ERROR("Error while closing device: %lu (%s)", QFS_ERR_ARGS(r));
    return r;
}

qfs_result fat_volume_destroy(fat_volume **volume) {
    if (volume == nullptr || *volume == nullptr) return QFS_ERR_INVALID_PARAMETER;
    const qfs_result r = fat_volume_close(*volume);
    delete *volume;
    *volume = nullptr;
    return r;
}

qfs_result fat_volume_get_info(const fat_volume *volume, fat_volume_info *out_info) {
    if (volume == nullptr || out_info == nullptr || !volume->in_use) return QFS_ERR_INVALID_PARAMETER;
    const fat_boot_values &b = volume->boot;
    *out_info =
        fat_volume_info{b.fat_type,          b.sector_size,   b.cluster_size, b.cluster_count, volume->free_clusters,
                        b.has_serial_number, b.serial_number, b.dirty};
    return QFS_OK;
}

const char *fat_volume_get_label(const fat_volume *volume) {
    if (volume == nullptr || !volume->label) return "";
    return volume->label.get();
}
