// Backend questions about the medium: its size (from the block-device
// ioctls, or by probing an image with one-byte reads), logical sector size
// and CHS geometry.
#include <linux/fd.h>
#include <linux/fs.h>
#include <linux/hdreg.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "device/qfs_device_unix_io.h"
#include "support/qfs_logging.h"

static_assert(BLKGETSIZE64 == 0x80081272);
static_assert(BLKGETSIZE == 0x1260);
static_assert(FDGETPRM == 0x80200204);
static_assert(BLKSSZGET == 0x1268);
static_assert(HDIO_GETGEO == 0x301);

namespace {

bool is_power_of_two(uint32_t value) { return value != 0 && (value & (value - 1)) == 0; }

// True when a one-byte read at `offset` returns exactly one byte.
bool byte_readable(int fd, uint64_t offset) {
    uint8_t byte = 0;
    return pread(fd, &byte, 1, static_cast<off_t>(offset)) == 1;
}

// The offset of an image's last byte (0 for an empty image): double until a
// read fails, then bisect between the last success and the first failure.
uint64_t probe_last_readable_offset(int fd) {
    uint64_t low = 0;
    uint64_t high = 1024;
    while (byte_readable(fd, high)) {
        low = high;
        high *= 2;
    }
    while (high - 1 > low) {
        const uint64_t mid = (high + low) / 2;
        if (byte_readable(fd, mid)) {
            low = mid;
        } else {
            high = mid;
        }
    }
    return low;
}

qfs_result read_geometry(const qfs_device_unix_io_layer *io, struct hd_geometry *out) {
    struct hd_geometry geometry = {};
    if (ioctl(io->fd, HDIO_GETGEO, &geometry) != 0) {
        return qfs_errno_result();
    }
    *out = geometry;
    return QFS_OK;
}

} // namespace

qfs_result qfs_device_unix_io_get_device_size(qfs_device_layer *layer, uint32_t sector_size,
                                              uint64_t *out_sectors) {
    if (layer == nullptr || out_sectors == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (!is_power_of_two(sector_size)) {
        QFS_TRACE("Invalid block size: %lu", static_cast<unsigned long>(sector_size));
        return QFS_ERR_INVALID_PARAMETER;
    }
    qfs_device_unix_io_layer *io = qfs_device_unix_io_from_layer(layer);
    // A closed device would probe as empty and report 0 sectors.
    if ((layer->device->flags & QFS_DEVICE_FLAG_OPEN) == 0) {
        return QFS_ERR_INVALID_PARAMETER;
    }

    uint64_t bytes = 0;
    if (ioctl(io->fd, BLKGETSIZE64, &bytes) == 0) {
        QFS_TRACE("BLKGETSIZE64 nr bytes = %llu (0x%llX)", static_cast<unsigned long long>(bytes),
                  static_cast<unsigned long long>(bytes));
        *out_sectors = bytes / sector_size;
        return QFS_OK;
    }
    unsigned long blocks = 0;
    if (ioctl(io->fd, BLKGETSIZE, &blocks) == 0) {
        QFS_TRACE("BLKGETSIZE nr 512 byte blocks = %lu (0x%lX)", blocks, blocks);
        *out_sectors = static_cast<uint64_t>(blocks) * 512 / sector_size;
        return QFS_OK;
    }
    struct floppy_struct floppy = {};
    if (ioctl(io->fd, FDGETPRM, &floppy) == 0) {
        const unsigned long floppy_blocks = floppy.size;
        QFS_TRACE("FDGETPRM nr 512 byte blocks = %lu (0x%lX)", floppy_blocks, floppy_blocks);
        *out_sectors = static_cast<uint64_t>(floppy_blocks) * 512 / sector_size;
        return QFS_OK;
    }

    // An image: its size is what can be read, not what stat says.
    const uint64_t last = probe_last_readable_offset(io->fd);
    const qfs_result r = qfs_device_unix_io_seek(io, 0);
    if (r != QFS_OK) {
        return r;
    }
    *out_sectors = (last + 1) / sector_size;
    return QFS_OK;
}

qfs_result qfs_device_unix_io_get_sector_size(qfs_device_layer *layer, uint32_t *out_sector_size) {
    if (layer == nullptr || out_sector_size == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    qfs_device_unix_io_layer *io = qfs_device_unix_io_from_layer(layer);
    int sector_size = 0;
    if (ioctl(io->fd, BLKSSZGET, &sector_size) != 0) {
        const qfs_result r = qfs_errno_result();
        QFS_TRACE("BLKSSZGET failed");
        return r;
    }
    QFS_TRACE("BLKSSZGET sector size = %d bytes", sector_size);
    *out_sector_size = static_cast<uint32_t>(sector_size);
    return QFS_OK;
}

qfs_result qfs_device_unix_io_get_heads(qfs_device_layer *layer, uint32_t *out_heads) {
    if (layer == nullptr || out_heads == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    struct hd_geometry geometry = {};
    const qfs_result r = read_geometry(qfs_device_unix_io_from_layer(layer), &geometry);
    if (r != QFS_OK) {
        return r;
    }
    const unsigned long heads = geometry.heads;
    QFS_TRACE("HDIO_GETGEO heads = %lu (0x%lX)", heads, heads);
    *out_heads = geometry.heads;
    return QFS_OK;
}

qfs_result qfs_device_unix_io_get_sectors_per_track(qfs_device_layer *layer, uint32_t *out_sectors_per_track) {
    if (layer == nullptr || out_sectors_per_track == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    struct hd_geometry geometry = {};
    const qfs_result r = read_geometry(qfs_device_unix_io_from_layer(layer), &geometry);
    if (r != QFS_OK) {
        return r;
    }
    const unsigned long sectors = geometry.sectors;
    QFS_TRACE("HDIO_GETGEO sectors_per_track = %lu (0x%lX)", sectors, sectors);
    *out_sectors_per_track = geometry.sectors;
    return QFS_OK;
}
