// The journal of the capacity check: every range the probe is about to
// overwrite is read from the card and appended to an unlinked temporary
// file, so that memory stays small whatever the card's size.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "device/qfs_capacity_internal.h"
#include "device/qfs_device.h"
#include "support/qfs_logging.h"
#include "support/qfs_endian.h"

namespace qfs_capacity {

namespace {

// A file nobody else can open and that vanishes with the process.
int open_unlinked(const char *folder) {
    int fd = ::open(folder, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd >= 0 || (errno != EOPNOTSUPP && errno != EISDIR)) {
        return fd;
    }
    // Older file systems: a named file, unlinked at once.
    std::string name = std::string(folder) + "/format_tarn-capacity-XXXXXX";
    fd = mkostemp(name.data(), O_CLOEXEC);
    if (fd >= 0) unlink(name.c_str());
    return fd;
}

qfs_result write_all(int fd, const uint8_t *bytes, uint64_t length, uint64_t offset) {
    while (length > 0) {
        const ssize_t n = pwrite(fd, bytes, length, static_cast<off_t>(offset));
        if (n <= 0) return n < 0 ? qfs_errno_result() : QFS_ERR_SYS_NO_SPACE;
        bytes += n;
        length -= static_cast<uint64_t>(n);
        offset += static_cast<uint64_t>(n);
    }
    return QFS_OK;
}

qfs_result read_all(int fd, uint8_t *bytes, uint64_t length, uint64_t offset) {
    while (length > 0) {
        const ssize_t n = pread(fd, bytes, length, static_cast<off_t>(offset));
        if (n <= 0) return n < 0 ? qfs_errno_result() : QFS_ERR_IO_ERROR;
        bytes += n;
        length -= static_cast<uint64_t>(n);
        offset += static_cast<uint64_t>(n);
    }
    return QFS_OK;
}

} // namespace

qfs_result journal::open(const char *folder) {
    const char *const fallbacks[] = {"/var/tmp", "/tmp"};
    for (const char *candidate : fallbacks) {
        const char *path = folder != nullptr ? folder : candidate;
        file_.reset(open_unlinked(path));
        if (file_.valid() || folder != nullptr) break;
    }
    if (!file_.valid()) {
        const qfs_result r = qfs_errno_result();
        QFS_LOG_ERROR("Error while creating the file for saved blocks: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    return QFS_OK;
}

qfs_result journal::save(qfs_device *device, uint64_t position, uint64_t length, uint8_t *buffer) {
    qfs_result r = qfs_device_read_exact(device, position, length, buffer);
    if (r != QFS_OK) {
        return r; // the caller leaves an unreadable range alone
    }
    r = write_all(file_.get(), buffer, length, file_size_);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while saving %llu bytes of the card: %lu (%s)", static_cast<unsigned long long>(length),
                      QFS_ERR_ARGS(r));
        return QFS_ERR_INTERNAL_ERROR; // not the card's fault: the run must stop
    }
    entries_.push_back({file_size_, position, length});
    file_size_ += length;
    return QFS_OK;
}

qfs_result journal::restore(qfs_device *device, uint64_t *bytes_written) {
    aligned_buffer buffer;
    qfs_result r = aligned_alloc_buffer(chunk_bytes, &buffer);
    if (r != QFS_OK) return r;
    qfs_result first = QFS_OK;
    for (auto e = entries_.rbegin(); e != entries_.rend(); ++e) {
        // A range that cannot go back is reported, and the others still go back.
        r = read_all(file_.get(), buffer.get(), e->length, e->file_offset);
        if (r == QFS_OK) r = qfs_device_write_exact(device, e->position, e->length, buffer.get());
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Error while putting back %llu bytes at offset %llu: %lu (%s)",
                          static_cast<unsigned long long>(e->length), static_cast<unsigned long long>(e->position),
                          QFS_ERR_ARGS(r));
            if (first == QFS_OK) first = r;
            continue;
        }
        *bytes_written += e->length;
    }
    if (first == QFS_OK) first = qfs_device_sync(device);
    // A layer without a cache has nothing to sync.
    return first == QFS_ERR_UNSUPPORTED_FEATURE ? QFS_OK : first;
}

} // namespace qfs_capacity
