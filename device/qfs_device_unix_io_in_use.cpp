// Whether a device is mounted (found in the mount table by its path or, for
// another path to the same device node, by its device number) or held open
// exclusively by someone else. An image file counts as every loop device it
// backs: a file system mounted from such a loop device lives in the image.
#include <dirent.h>
#include <fcntl.h>
#include <linux/loop.h>
#include <mntent.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "device/qfs_device_hold.h"
#include "device/qfs_device_unix_io.h"
#include "support/qfs_fd.h"
#include "support/qfs_logging.h"

namespace {

// Room for one mount-table line as getmntent_r splits it.
constexpr size_t mount_entry_buffer_size = 4096;

struct mount_table_closer {
    void operator()(FILE *table) const { endmntent(table); }
};
struct directory_closer {
    void operator()(DIR *directory) const { closedir(directory); }
};

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

struct mount_hit {
    char *mount_point;
    size_t mount_point_size;
    char *fs_type;
    size_t fs_type_size;
};

// Looks `path` up in the mount table; `mounted` tells whether an entry names it.
qfs_result find_mount(const char *path, const struct stat &device_info, const mount_hit &hit, bool *mounted) {
    const char *table_path = access("/proc/mounts", R_OK) == 0 ? "/proc/mounts" : "/etc/mtab";
    std::unique_ptr<FILE, mount_table_closer> table(setmntent(table_path, "r"));
    if (!table) {
        return qfs_errno_result();
    }
    struct mntent entry = {};
    char line[mount_entry_buffer_size];
    while (getmntent_r(table.get(), &entry, line, sizeof(line)) != nullptr) {
        if (same_device(path, device_info, entry.mnt_fsname)) {
            copy_text(hit.mount_point, hit.mount_point_size, entry.mnt_dir);
            copy_text(hit.fs_type, hit.fs_type_size, entry.mnt_type);
            *mounted = true;
            return QFS_OK;
        }
    }
    *mounted = false;
    return QFS_OK;
}

// Someone holding the block device exclusively (a mount, a mapper, another
// formatter, a mounted partition of it) makes an exclusive open fail with EBUSY.
bool held_exclusively(const char *path) {
    qfs_unique_fd fd(open(path, O_RDONLY | O_EXCL | O_CLOEXEC));
    return !fd.valid() && errno == EBUSY;
}

// True when the loop device at `loop_path` reads from the file `image` describes.
// Device and inode are compared, since the loop device may know the file by another path.
bool loop_backed_by(const char *loop_path, const struct stat &image) {
    qfs_unique_fd fd(open(loop_path, O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) {
        return false;
    }
    struct loop_info64 info = {};
    if (ioctl(fd.get(), LOOP_GET_STATUS64, &info) != 0) {
        return false; // not bound to a file
    }
    return info.lo_device == static_cast<uint64_t>(image.st_dev) && info.lo_inode == static_cast<uint64_t>(image.st_ino);
}

// Applies the mounted and busy tests to every loop device backed by `image`.
qfs_result check_loop_devices(const struct stat &image, const mount_hit &hit, bool *mounted, bool *in_use) {
    std::unique_ptr<DIR, directory_closer> block(opendir("/sys/block"));
    if (!block) {
        return QFS_OK; // no sysfs: no loop devices to know of
    }
    while (const struct dirent *entry = readdir(block.get())) {
        if (strncmp(entry->d_name, "loop", 4) != 0) continue;
        char loop_path[sizeof("/dev/") + sizeof(entry->d_name)];
        snprintf(loop_path, sizeof(loop_path), "/dev/%s", entry->d_name);
        if (!loop_backed_by(loop_path, image)) continue;
        struct stat loop_info = {};
        if (stat(loop_path, &loop_info) != 0) continue;
        bool loop_mounted = false;
        const qfs_result r = find_mount(loop_path, loop_info, hit, &loop_mounted);
        if (r != QFS_OK) return r;
        if (loop_mounted) {
            *mounted = true;
            return QFS_OK;
        }
        *in_use = *in_use || held_exclusively(loop_path);
    }
    return QFS_OK;
}

} // namespace

qfs_result qfs_device_unix_io_check_if_in_use(qfs_device_layer *layer, uint32_t *out_mounted,
                                              uint32_t *out_in_use, char *mount_point, size_t mount_point_size,
                                              char *fs_type, size_t fs_type_size) {
    if (layer == nullptr || out_mounted == nullptr || out_in_use == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    const char *path = qfs_device_unix_io_from_layer(layer)->path;
    const mount_hit hit{mount_point, mount_point_size, fs_type, fs_type_size};
    struct stat device_info = {};
    if (stat(path, &device_info) != 0) {
        device_info = {};
    }
    bool mounted = false;
    qfs_result r = find_mount(path, device_info, hit, &mounted);
    if (r != QFS_OK) {
        return r;
    }
    bool in_use = S_ISBLK(device_info.st_mode) && !qfs_device_hold_is_ours(device_info.st_rdev) &&
                  held_exclusively(path);
    if (S_ISREG(device_info.st_mode) && !mounted) {
        r = check_loop_devices(device_info, hit, &mounted, &in_use);
        if (r != QFS_OK) {
            return r;
        }
    }
    *out_mounted = mounted ? 1 : 0;
    *out_in_use = in_use ? 1 : 0;
    return QFS_OK;
}
