// What the disk list's files share: one disk's record as it is read, before
// the list hands out its plain view. These functions may throw
// std::bad_alloc; qfs_disk_list_create catches it.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "device/qfs_disk_list.h"

struct qfs_disk_record {
    std::string name, path, vendor, model, card_name, card_manfid, card_oemid, card_date, backing_file;
    dev_t number = 0;
    uint32_t attachment = QFS_DISK_UNKNOWN;
    bool removable = false;
    uint64_t size_bytes = 0;
    uint32_t logical_block_size = 0;
    // The disk's own number and its partitions', with the device path of each.
    std::vector<std::pair<dev_t, std::string>> nodes;
    std::vector<std::pair<std::string, std::string>> mounts; // device, mount point
};

// The text of a sysfs entry without its trailing newline and blanks; false
// when the entry is missing or unreadable.
bool qfs_disk_read_entry(const std::string &path, std::string &text);

// "8:16", a device number as sysfs and the mount table write it.
bool qfs_disk_parse_device_number(std::string_view text, dev_t &number);

// Fills `disk` from "<sysfs>/block/<name>"; `sysfs_real` is the sysfs root
// with its links resolved, so the device link's bus path can be read below it.
void qfs_disk_read(const qfs_system_paths &paths, const std::string &sysfs_real, const std::string &name,
                   qfs_disk_record &disk);

// Adds to each disk the mounts of the mount table that sit on one of its nodes.
void qfs_disk_read_mounts(const char *mount_table, std::vector<qfs_disk_record> &disks);
