#include "cli/fixed_disk_guard.h"

#include <cstdio>

#include "support/qfs_memory.h"

namespace {

using disk_list = qfs_owned<qfs_disk_list, qfs_disk_list_destroy>;

} // namespace

bool format_disk_takes_cards(const qfs_disk *disk) {
    if (disk == nullptr || disk->attachment == QFS_DISK_UNKNOWN) return false;
    return disk->attachment == QFS_DISK_MMC || disk->attachment == QFS_DISK_USB ||
           disk->attachment == QFS_DISK_LOOP || disk->removable;
}

const char *format_fixed_disk_description(const qfs_disk *disk) {
    switch (disk != nullptr ? disk->attachment : QFS_DISK_UNKNOWN) {
    case QFS_DISK_NVME: return "a fixed NVMe disk";
    case QFS_DISK_VIRTIO: return "a fixed virtio disk";
    case QFS_DISK_SATA: return "a fixed SATA disk";
    case QFS_DISK_SCSI: return "a fixed SCSI disk";
    case QFS_DISK_MD: return "an md RAID array";
    case QFS_DISK_DEVICE_MAPPER: return "a device-mapper volume";
    case QFS_DISK_RAM: return "a RAM disk";
    case QFS_DISK_UNKNOWN: return "a disk of unknown kind (sysfs does not describe it)";
    default: return "a fixed disk";
    }
}

qfs_result format_check_fixed_disk(const qfs_system_paths *paths, const char *path, dev_t number, bool allow) {
    qfs_disk_list *raw = nullptr;
    disk_list list;
    const qfs_disk *disk = nullptr;
    // A list that cannot be read, or that lacks the device, leaves it unknown: fixed.
    if (qfs_disk_list_create(paths, &raw) == QFS_OK) {
        list.reset(raw);
        if (qfs_disk_list_find(list.get(), number, &disk) != QFS_OK) disk = nullptr;
    }
    if (format_disk_takes_cards(disk)) {
        return QFS_OK;
    }
    const char *what = format_fixed_disk_description(disk);
    if (allow) {
        fprintf(stderr,
                "Warning: %s is %s, not a card reader, removable disk or loop device; formatting it anyway "
                "(--allow-fixed-disk).\n",
                path, what);
        fflush(stderr);
        return QFS_OK;
    }
    fprintf(stderr,
            "Refusing to format %s: it is %s, not a card reader, removable disk or loop device. Nothing was "
            "written; --allow-fixed-disk formats it anyway.\n",
            path, what);
    fflush(stderr);
    return QFS_ERR_INVALID_PARAMETER;
}
