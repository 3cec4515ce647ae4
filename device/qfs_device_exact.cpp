#include "device/qfs_device.h"

qfs_result qfs_device_read_exact(qfs_device *device, uint64_t position, size_t count, void *buffer) {
    size_t got = 0;
    const qfs_result r = qfs_device_pread(device, position, count, buffer, &got);
    if (r != QFS_OK) return r;
    return got == count ? QFS_OK : QFS_ERR_IO_ERROR;
}

qfs_result qfs_device_write_exact(qfs_device *device, uint64_t position, size_t count, const void *buffer) {
    size_t written = 0;
    const qfs_result r = qfs_device_pwrite(device, position, count, buffer, &written);
    if (r != QFS_OK) return r;
    return written == count ? QFS_OK : QFS_ERR_IO_ERROR;
}
