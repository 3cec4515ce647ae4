// Backend operations on the card as a whole: discarding a byte range,
// making the kernel re-read the partition table and wiping the table.
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <cstdint>

#include "device/qfs_device_hold.h"
#include "device/qfs_device_unix_io.h"
#include "support/qfs_logging.h"

static_assert(BLKDISCARD == 0x1277);
static_assert(BLKSECDISCARD == 0x127D);
static_assert(BLKRRPART == 0x125F);

namespace {

// Size of the MBR sector and of the GPT header sector behind it.
constexpr size_t partition_table_sector_size = 512;

} // namespace

qfs_result qfs_device_unix_io_discard_byte_range(qfs_device_layer *layer, uint64_t position, uint64_t count,
                                                 uint32_t secure) {
    if (layer == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    qfs_device_unix_io_layer *io = qfs_device_unix_io_from_layer(layer);
    int sector_size = 0;
    if (ioctl(io->fd, BLKSSZGET, &sector_size) != 0) {
        const qfs_result r = qfs_errno_result();
        QFS_TRACE("Error while getting device block size");
        return r;
    }
    if (sector_size <= 0 || sector_size % 512 != 0) {
        QFS_LOG_ERROR("Got unexpected sector size: %d", sector_size);
        return QFS_ERR_IO_ERROR;
    }
    if (position % static_cast<uint64_t>(sector_size) != 0) {
        QFS_LOG_ERROR("'pos' is not aligned to sector size (%d).", sector_size);
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (count % static_cast<uint64_t>(sector_size) != 0) {
        QFS_LOG_ERROR("'count' is not aligned to sector size (%d).", sector_size);
        return QFS_ERR_INVALID_PARAMETER;
    }
    uint64_t range[2] = {position, count};
    const unsigned long request = secure ? BLKSECDISCARD : BLKDISCARD;
    if (ioctl(io->fd, request, range) != 0) {
        const qfs_result r = qfs_errno_result();
        QFS_TRACE("Error while issuing '%s' ioctl", secure ? "BLKSECDISCARD" : "BLKDISCARD");
        return r;
    }
    return QFS_OK;
}

qfs_result qfs_device_unix_io_refresh_partition_table(qfs_device_layer *layer) {
    if (layer == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    qfs_device_unix_io_layer *io = qfs_device_unix_io_from_layer(layer);
    // While this process claims the device exclusively the kernel re-reads
    // its partitions only through the claiming descriptor.
    struct stat info = {};
    const int claiming_fd = fstat(io->fd, &info) == 0 && S_ISBLK(info.st_mode) ? qfs_device_hold_fd(info.st_rdev) : -1;
    if (ioctl(claiming_fd >= 0 ? claiming_fd : io->fd, BLKRRPART) != 0) {
        const qfs_result r = qfs_errno_result();
        QFS_TRACE("Error while issuing BLKRRPART ioctl");
        return r;
    }
    return QFS_OK;
}

// The wiping writes go through the device object, so its range and read-only flag apply.
qfs_result qfs_device_unix_io_clear_partition_table(qfs_device_layer *layer, void *) {
    if (layer == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    qfs_device *device = layer->device;
    static constexpr uint8_t zeros[partition_table_sector_size] = {};

    // A partly wiped MBR is not wiped.
    qfs_result r = qfs_device_write_exact(device, 0, sizeof(zeros), zeros);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while clearing MBR: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    r = qfs_device_write_exact(device, partition_table_sector_size, sizeof(zeros), zeros);
    if (r != QFS_OK) {
        QFS_TRACE("Error while clearing first GPT sector");
    }
    r = qfs_device_refresh_partition_table(device);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while refreshing partition table info in kernel: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    return QFS_OK;
}
