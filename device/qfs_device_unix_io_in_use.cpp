// Whether a device is mounted (found in the mount table by its path or, for
// another path to the same device node, by its device number) or held open
// exclusively by someone else.
#include <fcntl.h>
#include <mntent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "device/qfs_device_unix_io.h"
#include "support/qfs_logging.h"

namespace {

// Room for one mount-table line as getmntent_r splits it.
constexpr size_t mount_entry_buffer_size = 4096;

bool is_device_node(mode_t mode) { return S_ISBLK(mode) || S_ISCHR(mode); }

bool same_device(const char *path, const struct stat &device_info, const char *source) {
    if (strcmp(source, path) == 0) {
        return true;
    }
    struct stat source_info = {};
    if (stat(source, &source_info) != 0) {
        return false;
    }
    return (source_info.st_mode & S_IFMT) == (device_info.st_mode & S_IFMT) && is_device_node(source_info.st_mode) &&
           source_info.st_rdev == device_info.st_rdev;
}

void copy_text(char *destination, size_t size, const char *text) {
    if (destination != nullptr && size > 0) {
        snprintf(destination, size, "%s", text);
    }
}

// Someone holding the block device exclusively (a mount, a mapper, another
// formatter) makes an exclusive open fail with EBUSY.
bool held_exclusively(const char *path) {
    const int fd = open(path, O_RDONLY | O_EXCL);
    if (fd >= 0) {
        close(fd);
        return false;
    }
    return errno == EBUSY;
}

} // namespace

qfs_result qfs_device_unix_io_check_if_in_use(qfs_device_layer *layer, uint32_t *out_mounted,
                                              uint32_t *out_in_use, char *mount_point, size_t mount_point_size,
                                              char *fs_type, size_t fs_type_size) {
    if (layer == nullptr || out_mounted == nullptr || out_in_use == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    const char *path = qfs_device_unix_io_from_layer(layer)->path;

    const char *table_path = access("/proc/mounts", R_OK) == 0 ? "/proc/mounts" : "/etc/mtab";
    FILE *table = setmntent(table_path, "r");
    if (table == nullptr) {
        return qfs_errno_result();
    }
    struct stat device_info = {};
    if (stat(path, &device_info) != 0) {
        device_info = {};
    }

    bool mounted = false;
    struct mntent entry = {};
    char line[mount_entry_buffer_size];
    while (getmntent_r(table, &entry, line, sizeof(line)) != nullptr) {
        if (same_device(path, device_info, entry.mnt_fsname)) {
            mounted = true;
            copy_text(mount_point, mount_point_size, entry.mnt_dir);
            copy_text(fs_type, fs_type_size, entry.mnt_type);
            break;
        }
    }
    endmntent(table);

    const bool in_use = S_ISBLK(device_info.st_mode) && held_exclusively(path);
    *out_mounted = mounted ? 1 : 0;
    *out_in_use = in_use ? 1 : 0;
    return QFS_OK;
}
