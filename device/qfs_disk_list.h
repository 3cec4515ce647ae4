// The whole disks of the system as the kernel describes them in sysfs: how
// each is attached (MMC bus, USB, loop, NVMe, ...), whether it is marked
// removable, its size, vendor and model or an MMC card's identity, a loop
// device's backing file, and which of its partitions are mounted where.
// Everything is read below roots that the caller names, so that a test can
// hand in a tree of its own instead of /sys, /dev and the mount table.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "support/qfs_error.h"

struct qfs_system_paths {
    const char *sysfs_root;  // "/sys"
    const char *dev_root;    // "/dev": device paths are this, "/" and the kernel's name
    const char *mount_table; // "/proc/self/mountinfo", whose lines carry each mount's device number
};

// The running system's own roots.
extern const qfs_system_paths qfs_system_paths_default;

enum qfs_disk_attachment : uint32_t {
    QFS_DISK_UNKNOWN = 0, // an entry the description needs is missing or unreadable
    QFS_DISK_MMC,         // on the MMC bus: a card in a built-in reader
    QFS_DISK_USB,         // behind USB: card readers, sticks, external disks
    QFS_DISK_LOOP,
    QFS_DISK_NVME,
    QFS_DISK_VIRTIO,
    QFS_DISK_SATA,
    QFS_DISK_SCSI, // a SCSI host that is neither USB nor ATA
    QFS_DISK_MD,   // a software RAID array
    QFS_DISK_DEVICE_MAPPER,
    QFS_DISK_RAM, // RAM disks, compressed or not
    QFS_DISK_OTHER,
};

struct qfs_disk_mount {
    const char *device;      // "/dev/sdb1", or the disk itself
    const char *mount_point; // unescaped
};

// One whole disk. Texts are never null ("" when sysfs has no such entry) and
// live as long as the list that holds the disk.
struct qfs_disk {
    const char *name;             // the kernel's name, "sdb"
    const char *path;             // "/dev/sdb"
    dev_t number;                 // 0 when unknown
    uint32_t attachment;          // qfs_disk_attachment
    bool removable;               // the kernel's removable mark; false when unknown
    uint64_t size_bytes;          // 0: no medium (or unknown)
    uint32_t logical_block_size;  // 0 when unknown
    const char *vendor;           // USB and SCSI disks, without the padding
    const char *model;
    const char *card_name;        // MMC cards: product name, manufacturer and OEM ids, "MM/YYYY"
    const char *card_manfid;
    const char *card_oemid;
    const char *card_date;
    const char *backing_file;     // loop devices with a file attached
    const qfs_disk_mount *mounts; // mounted partitions (or the disk itself)
    size_t mount_count;
};

struct qfs_disk_list;

// Reads every disk below the sysfs root's "block" folder, in name order. A
// disk whose entries cannot be read is listed as QFS_DISK_UNKNOWN; an
// unreadable mount table leaves every disk without mounts. Fails only when
// the block folder cannot be read or memory runs out.
[[nodiscard]] qfs_result qfs_disk_list_create(const qfs_system_paths *paths, qfs_disk_list **out_list);
[[nodiscard]] qfs_result qfs_disk_list_destroy(qfs_disk_list **list);

size_t qfs_disk_list_count(const qfs_disk_list *list);
// The disk at `index` (below the count), or null.
const qfs_disk *qfs_disk_list_at(const qfs_disk_list *list, size_t index);
// The disk whose device number is `number`; QFS_ERR_SYS_NO_ENTRY when none is.
[[nodiscard]] qfs_result qfs_disk_list_find(const qfs_disk_list *list, dev_t number, const qfs_disk **out_disk);

// "mmc", "usb", "loop", "nvme", "virtio", "sata", "scsi", "md", "dm", "ram", "other" or "unknown".
const char *qfs_disk_attachment_name(uint32_t attachment);
