// The disk list: reads every disk below "<sysfs>/block", then hands out a
// plain view of each whose texts point into the list's own records.
#include "device/qfs_disk_list.h"

#include <dirent.h>
#include <limits.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "device/qfs_disk_list_internal.h"
#include "support/qfs_logging.h"

const qfs_system_paths qfs_system_paths_default = {"/sys", "/dev", "/proc/self/mountinfo"};

struct qfs_disk_list {
    std::vector<qfs_disk_record> records;
    std::vector<std::vector<qfs_disk_mount>> mounts; // one view per record
    std::vector<qfs_disk> disks;
};

namespace {

struct directory_closer {
    void operator()(DIR *directory) const { closedir(directory); }
};

// The names below `folder`, in the order people count disks: sdb before sdc, loop2 before loop10.
// False with `error` set when the folder cannot be read.
bool read_disk_names(const std::string &folder, std::vector<std::string> &names, int &error) {
    const std::unique_ptr<DIR, directory_closer> directory(opendir(folder.c_str()));
    if (!directory) {
        error = errno;
        return false;
    }
    while (const struct dirent *entry = readdir(directory.get())) {
        if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
    }
    std::sort(names.begin(), names.end(),
              [](const std::string &a, const std::string &b) { return strverscmp(a.c_str(), b.c_str()) < 0; });
    return true;
}

// The views are made last: the records no longer move once they are.
void make_views(qfs_disk_list &list) {
    for (const qfs_disk_record &r : list.records) {
        std::vector<qfs_disk_mount> &mounts = list.mounts.emplace_back();
        for (const auto &[device, mount_point] : r.mounts) mounts.push_back({device.c_str(), mount_point.c_str()});
        list.disks.push_back({r.name.c_str(), r.path.c_str(), r.number, r.attachment, r.removable, r.size_bytes,
                              r.logical_block_size, r.vendor.c_str(), r.model.c_str(), r.card_name.c_str(),
                              r.card_manfid.c_str(), r.card_oemid.c_str(), r.card_date.c_str(),
                              r.backing_file.c_str(), mounts.data(), mounts.size()});
    }
}

// Fills the list; may throw std::bad_alloc. False with `error` set when the block folder cannot be read.
bool read_list(const qfs_system_paths &paths, qfs_disk_list &list, int &error) {
    std::vector<std::string> names;
    if (!read_disk_names(std::string(paths.sysfs_root) + "/block", names, error)) return false;
    char resolved[PATH_MAX];
    const std::string sysfs_real = realpath(paths.sysfs_root, resolved) ? resolved : paths.sysfs_root;
    list.records.resize(names.size());
    for (size_t i = 0; i < names.size(); ++i) qfs_disk_read(paths, sysfs_real, names[i], list.records[i]);
    qfs_disk_read_mounts(paths.mount_table, list.records);
    list.mounts.reserve(list.records.size());
    make_views(list);
    return true;
}

} // namespace

qfs_result qfs_disk_list_create(const qfs_system_paths *paths, qfs_disk_list **out_list) {
    if (paths == nullptr || paths->sysfs_root == nullptr || paths->dev_root == nullptr ||
        paths->mount_table == nullptr || out_list == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    try {
        auto list = std::make_unique<qfs_disk_list>();
        int error = 0;
        if (!read_list(*paths, *list, error)) {
            const qfs_result r = qfs_errno_result(error);
            QFS_LOG_ERROR("Error while reading the disks in \"%s/block\": %lu (%s)", paths->sysfs_root,
                          QFS_ERR_ARGS(r));
            return r;
        }
        *out_list = list.release();
        return QFS_OK;
    } catch (const std::bad_alloc &) {
        QFS_LOG_ERROR("Error while reading the disks in \"%s/block\": %lu (%s)", paths->sysfs_root,
                      QFS_ERR_ARGS(QFS_ERR_OUT_OF_MEMORY));
        return QFS_ERR_OUT_OF_MEMORY;
    }
}

qfs_result qfs_disk_list_destroy(qfs_disk_list **list) {
    if (list == nullptr || *list == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    delete *list;
    *list = nullptr;
    return QFS_OK;
}

size_t qfs_disk_list_count(const qfs_disk_list *list) { return list != nullptr ? list->disks.size() : 0; }

const qfs_disk *qfs_disk_list_at(const qfs_disk_list *list, size_t index) {
    return index < qfs_disk_list_count(list) ? &list->disks[index] : nullptr;
}

qfs_result qfs_disk_list_find(const qfs_disk_list *list, dev_t number, const qfs_disk **out_disk) {
    if (list == nullptr || out_disk == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    for (const qfs_disk &disk : list->disks) {
        if (disk.number != 0 && disk.number == number) {
            *out_disk = &disk;
            return QFS_OK;
        }
    }
    return QFS_ERR_SYS_NO_ENTRY;
}

const char *qfs_disk_attachment_name(uint32_t attachment) {
    switch (attachment) {
    case QFS_DISK_MMC: return "mmc";
    case QFS_DISK_USB: return "usb";
    case QFS_DISK_LOOP: return "loop";
    case QFS_DISK_NVME: return "nvme";
    case QFS_DISK_VIRTIO: return "virtio";
    case QFS_DISK_SATA: return "sata";
    case QFS_DISK_SCSI: return "scsi";
    case QFS_DISK_MD: return "md";
    case QFS_DISK_DEVICE_MAPPER: return "dm";
    case QFS_DISK_RAM: return "ram";
    case QFS_DISK_OTHER: return "other";
    default: return "unknown";
    }
}
