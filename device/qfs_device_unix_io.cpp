// Backend life cycle: init and destroy, open with the image lock, close with
// flush and unlock, and the operations table.
#include "device/qfs_device_unix_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "support/qfs_logging.h"
#include "support/qfs_memory.h"
#include "support/qfs_support.h"

const qfs_device_operations qfs_device_unix_io_operations = {
    qfs_device_unix_io_init,
    qfs_device_unix_io_destroy,
    qfs_device_unix_io_open,
    qfs_device_unix_io_close,
    qfs_device_unix_io_pread,
    qfs_device_unix_io_pwrite,
    qfs_device_unix_io_sync,
    qfs_device_unix_io_get_device_size,
    qfs_device_unix_io_set_device_size,
    qfs_device_unix_io_get_sector_size,
    qfs_device_unix_io_get_heads,
    qfs_device_unix_io_get_sectors_per_track,
    qfs_device_unix_io_get_partition_start_sector,
    qfs_device_unix_io_discard_byte_range,
    qfs_device_unix_io_refresh_partition_table,
    qfs_device_unix_io_clear_partition_table,
    qfs_device_unix_io_check_if_in_use,
    qfs_map_page,
    qfs_unmap_page,
};

qfs_device_unix_io_layer *qfs_device_unix_io_from_layer(qfs_device_layer *layer) {
    // The common head is the first member, so the layer is the backend object.
    return reinterpret_cast<qfs_device_unix_io_layer *>(layer);
}

namespace {

bool is_regular_file(const qfs_device_unix_io_layer *io) {
    return (io->base.device->flags & QFS_DEVICE_FLAG_BLOCK_OR_CHAR) == 0;
}

bool locking_wanted(const qfs_device_unix_io_layer *io) {
    return (io->base.device->flags & QFS_DEVICE_FLAG_NO_LOCKING) == 0;
}

// A whole-file record lock; only images are locked, devices never.
qfs_result set_image_lock(qfs_device_unix_io_layer *io, short type) {
    if (!is_regular_file(io)) {
        return QFS_OK;
    }
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0;
    if (fcntl(io->fd, F_SETLK, &lock) != 0) {
        return qfs_errno_result();
    }
    return QFS_OK;
}

} // namespace

qfs_result qfs_device_unix_io_init(qfs_device *device, const char *path) {
    if (device == nullptr || path == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    struct stat info = {};
    if (stat(path, &info) != 0) {
        const qfs_result r = errno != 0 ? errno : QFS_ERR_IO_ERROR;
        QFS_LOG_ERROR("Failed to stat device \"%s\": %lu (%s)", path, QFS_ERR_ARGS(r));
        return r;
    }
    qfs_unique<qfs_device_unix_io_layer> io;
    qfs_result r = qfs_object_alloc(io);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Failed to allocate context struct for I/O layer: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    char *path_copy = nullptr;
    r = qfs_strdup(path, &path_copy);
    if (r != QFS_OK) {
        return r;
    }
    io->base.operations = &qfs_device_unix_io_operations;
    io->base.private_data = io.get();
    io->base.device = device;
    io->base.unused = nullptr;
    io->path = path_copy;
    io->fd = -1;
    io->sector_size_at_open = 0;

    device->flags |= QFS_DEVICE_FLAG_PHANTOM_ALLOWED;
    if (S_ISBLK(info.st_mode) || S_ISCHR(info.st_mode)) {
        device->flags |= QFS_DEVICE_FLAG_BLOCK_OR_CHAR;
    }
    device->layer = &io.release()->base;
    return QFS_OK;
}

qfs_result qfs_device_unix_io_destroy(qfs_device *device) {
    if (device == nullptr || device->layer == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    qfs_device_unix_io_layer *io = qfs_device_unix_io_from_layer(device->layer);
    qfs_free(io->path);
    device->flags &= ~static_cast<uint64_t>(QFS_DEVICE_FLAG_BLOCK_OR_CHAR);
    device->layer = nullptr;
    qfs_free(io);
    return QFS_OK;
}

qfs_result qfs_device_unix_io_open(qfs_device_layer *layer) {
    if (layer == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    qfs_device_unix_io_layer *io = qfs_device_unix_io_from_layer(layer);
    qfs_device *device = layer->device;
    if (device->flags & QFS_DEVICE_FLAG_OPEN) {
        QFS_LOG_ERROR("Device '%s' is already open.", io->path);
        return QFS_ERR_INVALID_PARAMETER;
    }
    const bool read_only = (device->flags & QFS_DEVICE_FLAG_READ_ONLY) != 0;
    int open_flags = read_only ? O_RDONLY : O_RDWR;
    // Exclusive open guards a writable image only; devices get the busy probe instead.
    if (!read_only && is_regular_file(io)) {
        open_flags |= O_EXCL;
    }
    if (device->flags & QFS_DEVICE_FLAG_SYNC_WRITES) {
        open_flags |= O_DSYNC;
    }
    if (device->flags & QFS_DEVICE_FLAG_DIRECT_IO) {
        open_flags |= O_DIRECT;
    }
    const int fd = open(io->path, open_flags);
    if (fd < 0) {
        const qfs_result r = qfs_errno_result();
        QFS_LOG_ERROR("Failed to open '%s' with flags 0x%X: %lu (%s)", io->path,
                      static_cast<unsigned>(open_flags), QFS_ERR_ARGS(r));
        return r;
    }
    io->fd = fd;

    if (locking_wanted(io)) {
        const qfs_result r = set_image_lock(io, read_only ? F_RDLCK : F_WRLCK);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Failed to %s lock '%s': %lu (%s)", read_only ? "read" : "write", io->path,
                          QFS_ERR_ARGS(r));
            if (close(io->fd) != 0) {
                const qfs_result close_r = qfs_errno_result();
                QFS_LOG_WARNING("Failed to close '%s': %lu (%s)", io->path, QFS_ERR_ARGS(close_r));
            }
            io->fd = -1;
            return r;
        }
    }

    if (io->sector_size_at_open) {
        uint32_t sector_size = 0;
        if (qfs_device_unix_io_get_sector_size(layer, &sector_size) != QFS_OK || sector_size == 0) {
            QFS_LOG_WARNING("Unable to get sector size. Assuming 512 bytes.");
            sector_size = 512;
        }
        device->alignment = sector_size;
    }
    device->flags |= QFS_DEVICE_FLAG_OPEN;
    return QFS_OK;
}

qfs_result qfs_device_unix_io_close(qfs_device_layer *layer) {
    if (layer == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    qfs_device_unix_io_layer *io = qfs_device_unix_io_from_layer(layer);
    qfs_device *device = layer->device;
    if ((device->flags & QFS_DEVICE_FLAG_OPEN) == 0) {
        QFS_LOG_ERROR("Device %s is not open.", io->path);
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (device->flags & QFS_DEVICE_FLAG_WRITTEN) {
        if (fsync(io->fd) != 0) {
            const qfs_result r = qfs_errno_result();
            QFS_LOG_ERROR("Failed to fsync device %s: %lu (%s)", io->path, QFS_ERR_ARGS(r));
            return r;
        }
        device->flags &= ~static_cast<uint64_t>(QFS_DEVICE_FLAG_WRITTEN);
    }
    if (locking_wanted(io)) {
        const qfs_result r = set_image_lock(io, F_UNLCK);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Could not unlock %s: %lu (%s)", io->path, QFS_ERR_ARGS(r));
            return r;
        }
    }
    const int fd = io->fd;
    // Linux releases the descriptor even when close reports an error, so it must never be closed twice.
    io->fd = -1;
    if (close(fd) != 0) {
        const qfs_result r = qfs_errno_result();
        QFS_LOG_ERROR("Failed to close device %s: %lu (%s)", io->path, QFS_ERR_ARGS(r));
        return r;
    }
    device->flags &= ~static_cast<uint64_t>(QFS_DEVICE_FLAG_OPEN);
    return QFS_OK;
}

qfs_result qfs_device_unix_io_seek(qfs_device_unix_io_layer *io, int64_t offset) {
    if ((io->base.device->flags & QFS_DEVICE_FLAG_OPEN) == 0) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (offset < 0) {
        QFS_LOG_ERROR("Invalid offset: %llu", static_cast<unsigned long long>(offset));
        return QFS_ERR_INVALID_PARAMETER;
    }
    const off_t reached = lseek(io->fd, offset, SEEK_SET);
    if (reached == -1) {
        return qfs_errno_result();
    }
    if (reached < 0) {
        QFS_LOG_ERROR("Unexpected return value from lseek: %lld", static_cast<long long>(reached));
        return QFS_ERR_IO_ERROR;
    }
    return QFS_OK;
}
