// Where the opened block device starts on its disk. The kernel publishes a
// partition's start in sysfs in 512-byte units; a whole disk has no such
// entry. Anything that is not a block device falls back to HDIO_GETGEO.
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/hdreg.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "device/qfs_device_unix_io.h"
#include "support/qfs_fd.h"
#include "support/qfs_logging.h"

namespace {

// The start entry holds a decimal sector number; 19 digits cover any disk.
constexpr size_t sysfs_start_max_length = 19;

qfs_result start_from_geometry(const qfs_device_unix_io_layer *io, uint64_t *out_start_sector) {
    struct hd_geometry geometry = {};
    if (ioctl(io->fd, HDIO_GETGEO, &geometry) != 0) {
        return qfs_errno_result();
    }
    QFS_TRACE("HDIO_GETGEO start_sect = %lu (0x%lX)", geometry.start, geometry.start);
    *out_start_sector = geometry.start;
    return QFS_OK;
}

// Reads the entry's text; *out_length excludes the terminating NUL.
qfs_result read_sysfs_entry(const char *entry, char (&text)[sysfs_start_max_length + 2], size_t *out_length) {
    const qfs_unique_fd fd(open(entry, O_RDONLY));
    if (!fd.valid()) {
        const qfs_result r = qfs_errno_result();
        QFS_TRACE("Error while opening sysfs entry \"%s\"", entry);
        return r;
    }
    // Ask for one byte more than an entry may hold, so an overlong entry shows itself.
    const ssize_t got = read(fd.get(), text, sysfs_start_max_length + 1);
    if (got < 0) {
        const qfs_result r = qfs_errno_result();
        QFS_LOG_ERROR("Error while reading data of sysfs entry \"%s\": %lu (%s)", entry, QFS_ERR_ARGS(r));
        return r;
    }
    if (static_cast<size_t>(got) > sysfs_start_max_length) {
        QFS_LOG_CRITICAL("Read too much data from sysfs entry \"%s\".", entry);
        return QFS_ERR_IO_ERROR;
    }
    text[got] = '\0';
    *out_length = static_cast<size_t>(got);
    return QFS_OK;
}

qfs_result parse_sector_number(const char *entry, char *text, size_t length, uint64_t *out_number) {
    if (length > 0 && text[length - 1] == '\n') {
        text[--length] = '\0';
    }
    errno = 0;
    char *end = nullptr;
    const unsigned long long number = strtoull(text, &end, 10);
    const bool digits_only = length > 0 && isdigit(static_cast<unsigned char>(text[0])) && *end == '\0';
    if (!digits_only || errno != 0) {
        const qfs_result r = errno != 0 ? qfs_errno_result() : QFS_ERR_SYS_INVALID_ARGUMENT;
        QFS_LOG_ERROR("Error while parsing sysfs entry \"%s\": %lu (%s)", entry, QFS_ERR_ARGS(r));
        return r;
    }
    *out_number = number;
    return QFS_OK;
}

} // namespace

qfs_result qfs_device_unix_io_get_partition_start_sector(qfs_device_layer *layer, uint64_t *out_start_sector) {
    if (layer == nullptr || out_start_sector == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    qfs_device_unix_io_layer *io = qfs_device_unix_io_from_layer(layer);

    struct stat info = {};
    if (fstat(io->fd, &info) != 0) {
        QFS_TRACE("Error while issuing stat for device");
        return start_from_geometry(io, out_start_sector);
    }
    if (!S_ISBLK(info.st_mode)) {
        QFS_TRACE("Not a block device");
        return start_from_geometry(io, out_start_sector);
    }
    int sector_size = 0;
    const bool sector_size_known = ioctl(io->fd, BLKSSZGET, &sector_size) == 0;
    if (!sector_size_known || sector_size <= 0) {
        // A zero size would divide by zero below; treat it as a failed request.
        const qfs_result r = sector_size_known ? QFS_ERR_IO_ERROR : qfs_errno_result();
        QFS_LOG_ERROR("Error while getting device sector size: %lu (%s)", QFS_ERR_ARGS(r));
        return start_from_geometry(io, out_start_sector);
    }

    char entry[64];
    snprintf(entry, sizeof(entry), "/sys/dev/block/%u:%u/start", major(info.st_rdev), minor(info.st_rdev));
    char text[sysfs_start_max_length + 2] = {};
    size_t length = 0;
    qfs_result r = read_sysfs_entry(entry, text, &length);
    if (r != QFS_OK) {
        return r;
    }
    uint64_t start_512 = 0;
    r = parse_sector_number(entry, text, length, &start_512);
    if (r != QFS_OK) {
        return r;
    }
    *out_start_sector = start_512 * 512 / static_cast<uint64_t>(sector_size);
    return QFS_OK;
}
