// Write-back of a written range: the page cache would otherwise hold
// gigabytes that a slow card has not taken yet, and report them as done.
// Only the backend has a page cache in front of the card; every other layer
// (the dry-run pages, test layers) holds its bytes where they are.
#define _GNU_SOURCE 1
#include <fcntl.h>

#include <cerrno>

#include "device/qfs_device.h"
#include "device/qfs_device_unix_io.h"
#include "support/qfs_logging.h"

namespace {

// Files and devices that cannot take the request are left to the syncs.
bool write_back_unsupported(int error) { return error == EINVAL || error == ESPIPE || error == ENOSYS; }

} // namespace

qfs_result qfs_device_write_back(qfs_device *device, uint64_t position, uint64_t count, bool wait) {
    if (device == nullptr || device->layer == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (device->layer->operations != &qfs_device_unix_io_operations || count == 0) {
        return QFS_OK;
    }
    const qfs_device_unix_io_layer *io = qfs_device_unix_io_from_layer(device->layer);
    const unsigned flags = wait ? SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER
                                : SYNC_FILE_RANGE_WRITE;
    if (sync_file_range(io->fd, static_cast<off64_t>(device->start + position), static_cast<off64_t>(count), flags) ==
        0) {
        return QFS_OK;
    }
    const int error = errno;
    return write_back_unsupported(error) ? QFS_OK : qfs_errno_result(error);
}
