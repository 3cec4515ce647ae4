// Backend transfers: positioned reads and writes (a read without a buffer
// records where its bytes are instead of moving them), sync, resizing an
// image and read-only page mappings.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

#include "device/qfs_device_unix_io.h"
#include "support/qfs_logging.h"

namespace {

bool is_open(const qfs_device_unix_io_layer *io) {
    return (io->base.device->flags & QFS_DEVICE_FLAG_OPEN) != 0;
}

bool is_negative(uint64_t position) { return position > static_cast<uint64_t>(INT64_MAX); }

// A phantom read: the bytes stay where they are and the context remembers them.
qfs_result record_phantom_read(qfs_device_unix_io_layer *io, qfs_io_context *context, size_t count,
                               uint64_t position, uint32_t flags) {
    if (context == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    qfs_io_buffer descriptor = {};
    descriptor.size = count;
    if (flags & QFS_TRANSFER_PHANTOM_ONLY) {
        descriptor.flags = QFS_IO_BUFFER_PHANTOM;
        descriptor.fd = -1;
    } else {
        descriptor.flags = QFS_IO_BUFFER_FD | QFS_IO_BUFFER_USE_OFFSET;
        descriptor.offset = position;
        descriptor.fd = io->fd;
    }
    return qfs_io_context_append(context, descriptor);
}

} // namespace

qfs_result qfs_device_unix_io_pread(qfs_device_layer *layer, qfs_io_context *context, void *buffer, size_t count,
                                    uint64_t position, size_t, uint32_t flags, size_t *out_bytes_read) {
    if (layer == nullptr || out_bytes_read == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    qfs_device_unix_io_layer *io = qfs_device_unix_io_from_layer(layer);
    if (!is_open(io)) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (is_negative(position)) {
        QFS_LOG_ERROR("Invalid offset: %llu", static_cast<unsigned long long>(position));
        return QFS_ERR_IO_ERROR;
    }
    if (buffer == nullptr) {
        const qfs_result r = record_phantom_read(io, context, count, position, flags);
        if (r != QFS_OK) {
            return r;
        }
        *out_bytes_read = count;
        return QFS_OK;
    }
    const ssize_t got = pread(io->fd, buffer, count, static_cast<off_t>(position));
    if (got == -1) {
        return qfs_errno_result();
    }
    if (got < 0) {
        QFS_LOG_ERROR("Unexpected return value from pread: %zd", got);
        return QFS_ERR_IO_ERROR;
    }
    *out_bytes_read = static_cast<size_t>(got);
    return QFS_OK;
}

qfs_result qfs_device_unix_io_pwrite(qfs_device_layer *layer, qfs_io_context *context, const void *buffer,
                                     size_t count, uint64_t position, uint32_t flags, size_t *out_bytes_written) {
    if (layer == nullptr || out_bytes_written == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    qfs_device_unix_io_layer *io = qfs_device_unix_io_from_layer(layer);
    qfs_device *device = layer->device;
    if (!is_open(io)) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (device->flags & QFS_DEVICE_FLAG_READ_ONLY) {
        return QFS_ERR_DEVICE_READ_ONLY;
    }
    if (is_negative(position)) {
        QFS_LOG_ERROR("Invalid offset: %llu", static_cast<unsigned long long>(position));
        return QFS_ERR_OVERFLOW;
    }
    if (buffer == nullptr) {
        return qfs_device_unix_io_pwrite_bufs(layer, context, count, position, flags, out_bytes_written);
    }
    device->flags |= QFS_DEVICE_FLAG_WRITTEN;
    const ssize_t put = pwrite(io->fd, buffer, count, static_cast<off_t>(position));
    if (put == -1) {
        return qfs_errno_result();
    }
    if (put < 0) {
        QFS_LOG_ERROR("Unexpected return value from pwrite: %zd", put);
        return QFS_ERR_IO_ERROR;
    }
    *out_bytes_written = static_cast<size_t>(put);
    return QFS_OK;
}

qfs_result qfs_device_unix_io_sync(qfs_device_layer *layer) {
    if (layer == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    qfs_device_unix_io_layer *io = qfs_device_unix_io_from_layer(layer);
    qfs_device *device = layer->device;
    if (!is_open(io)) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (device->flags & QFS_DEVICE_FLAG_READ_ONLY) {
        return QFS_ERR_DEVICE_READ_ONLY;
    }
    if (fsync(io->fd) != 0) {
        const qfs_result r = qfs_errno_result();
        QFS_LOG_ERROR("Failed to sync device %s: %lu (%s)", io->path, QFS_ERR_ARGS(r));
        return r;
    }
    device->flags &= ~static_cast<uint64_t>(QFS_DEVICE_FLAG_WRITTEN);
    return QFS_OK;
}

qfs_result qfs_device_unix_io_set_device_size(qfs_device_layer *layer, int64_t size_bytes) {
    if (layer == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    qfs_device_unix_io_layer *io = qfs_device_unix_io_from_layer(layer);
    const uint64_t flags = layer->device->flags;
    if (flags & QFS_DEVICE_FLAG_BLOCK_OR_CHAR) {
        return QFS_ERR_INVALID_PARAMETER; // only an image can change its size
    }
    if (size_bytes < 0) {
        return QFS_ERR_OVERFLOW;
    }
    if (!is_open(io)) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (flags & QFS_DEVICE_FLAG_READ_ONLY) {
        return QFS_ERR_DEVICE_READ_ONLY;
    }
    if (ftruncate(io->fd, size_bytes) != 0) {
        return qfs_errno_result();
    }
    return QFS_OK;
}

qfs_result qfs_map_page(qfs_device_layer *layer, int32_t size, void **out_address, int64_t offset) {
    if (layer == nullptr || out_address == nullptr || size < 0 || offset < 0) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    qfs_device_unix_io_layer *io = qfs_device_unix_io_from_layer(layer);
    void *address = mmap(nullptr, static_cast<size_t>(size), PROT_READ, MAP_PRIVATE, io->fd, offset);
    if (address == MAP_FAILED) {
        const qfs_result r = qfs_errno_result();
        QFS_LOG_ERROR("Failed to memory map %d bytes at offset %llu (0x%llX): %lu (%s)", size,
                      static_cast<unsigned long long>(offset), static_cast<unsigned long long>(offset),
                      QFS_ERR_ARGS(r));
        return r;
    }
    *out_address = address;
    return QFS_OK;
}

qfs_result qfs_unmap_page(qfs_device_layer *layer, int32_t size, void *address) {
    if (layer == nullptr || size < 0) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (munmap(address, static_cast<size_t>(size)) != 0) {
        const qfs_result r = qfs_errno_result();
        QFS_LOG_ERROR("Failed to unmap %d bytes mapped to %p: %lu (%s)", size, address, QFS_ERR_ARGS(r));
        return r;
    }
    return QFS_OK;
}
