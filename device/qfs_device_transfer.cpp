// Reads and writes through the device object: confined to the range, refused
// on a read-only device, and repeated until the layer has moved every byte.
#include <cstdint>

#include "device/qfs_device.h"
#include "support/qfs_logging.h"

namespace {

// Shortens `count` so that a transfer at `position` (relative to the range
// start) ends at the range's end at the latest.
size_t clip_to_range(const qfs_device *device, uint64_t position, size_t count) {
    if (device->size == 0) {
        return count;
    }
    if (position >= device->size) {
        return 0;
    }
    const uint64_t room = device->size - position;
    return count > room ? static_cast<size_t>(room) : count;
}

struct loop_outcome {
    qfs_result result = QFS_OK;
    size_t done = 0;
    size_t missing = 0; // bytes of the (clipped) request still not moved
};

// The loop shared by reads and writes: one layer call after another until
// the count is moved, the layer reports an error or moves nothing. A phantom
// transfer (no buffer) is a single call.
template <typename Transfer>
loop_outcome transfer_loop(qfs_device *device, bool has_buffer, size_t count, uint64_t position,
                           size_t contiguous_bytes, Transfer &&transfer) {
    loop_outcome out;
    do {
        const size_t contiguity_left = contiguous_bytes != 0 ? contiguous_bytes - out.done : 0;
        count = clip_to_range(device, position + out.done, count);
        if (count == 0) {
            break; // nothing of the request lies inside the range
        }
        size_t moved = 0;
        out.result = transfer(out.done, count, device->start + position + out.done, contiguity_left, &moved);
        if (out.result != QFS_OK || moved == 0) {
            break;
        }
        if (moved > count) {
            QFS_LOG_CRITICAL("Internal error: layer moved %zu bytes for a transfer of %zu bytes.", moved, count);
            out.result = QFS_ERR_INTERNAL_ERROR;
            break;
        }
        count -= moved;
        out.done += moved;
    } while (has_buffer && count != 0);
    out.missing = count;
    return out;
}

} // namespace

qfs_result qfs_device_pread_common(qfs_device *device, qfs_io_context *context, void *buffer, size_t count,
                                   uint64_t position, size_t contiguous_bytes, uint32_t flags,
                                   size_t *out_bytes_read) {
    QFS_TRACE("pos %llu, count %llu", static_cast<unsigned long long>(position),
              static_cast<unsigned long long>(count));
    if (device == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (count == 0) {
        if (out_bytes_read != nullptr) {
            *out_bytes_read = 0;
        }
        return QFS_OK;
    }
    const qfs_device_operations *ops = device->layer->operations;
    if (ops->pread == nullptr) {
        return QFS_ERR_UNSUPPORTED_FEATURE;
    }
    auto *bytes = static_cast<uint8_t *>(buffer);
    const loop_outcome out = transfer_loop(
        device, buffer != nullptr, count, position, contiguous_bytes,
        [&](size_t done, size_t n, uint64_t absolute, size_t contiguity, size_t *moved) {
            return ops->pread(device->layer, context, bytes ? bytes + done : nullptr, n, absolute, contiguity,
                              flags, moved);
        });
    if (out.result != QFS_OK && out.done == 0) {
        return out.result;
    }
    if (out_bytes_read != nullptr) {
        if (out.result != QFS_OK) {
            // Partial progress: the caller learns how much arrived and judges for itself.
            QFS_LOG_WARNING("Error while reading %zu bytes from offset %llu: %lu (%s)", out.missing,
                            static_cast<unsigned long long>(device->start + position + out.done),
                            QFS_ERR_ARGS(out.result));
        }
        *out_bytes_read = out.done;
        return QFS_OK;
    }
    // Without a count to report, anything short of the request is a failure,
    // also when the range cut the request short.
    if (out.done != count) {
        return out.result != QFS_OK ? out.result : QFS_ERR_IO_ERROR;
    }
    return QFS_OK;
}

qfs_result qfs_device_pwrite_common(qfs_device *device, qfs_io_context *context, const void *buffer,
                                    size_t count, uint64_t position, uint32_t flags,
                                    size_t *out_bytes_written) {
    if (device == nullptr || out_bytes_written == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (count == 0) {
        *out_bytes_written = 0;
        return QFS_OK;
    }
    if (device->flags & QFS_DEVICE_FLAG_READ_ONLY) {
        return QFS_ERR_DEVICE_READ_ONLY;
    }
    const qfs_device_operations *ops = device->layer->operations;
    if (ops->pwrite == nullptr) {
        return QFS_ERR_UNSUPPORTED_FEATURE;
    }
    device->flags |= QFS_DEVICE_FLAG_WRITTEN;
    const auto *bytes = static_cast<const uint8_t *>(buffer);
    const loop_outcome out = transfer_loop(
        device, buffer != nullptr, count, position, 0,
        [&](size_t done, size_t n, uint64_t absolute, size_t, size_t *moved) {
            return ops->pwrite(device->layer, context, bytes ? bytes + done : nullptr, n, absolute, flags, moved);
        });
    if (out.result != QFS_OK && out.done == 0) {
        return out.result;
    }
    // A partial write succeeds with its count; the writer compares it with what it asked for.
    *out_bytes_written = out.done;
    return QFS_OK;
}

qfs_result qfs_device_pread_ioc(qfs_device *device, qfs_io_context *context, void *buffer, size_t count,
                                uint64_t position, size_t contiguous_bytes, uint32_t flags,
                                size_t *out_bytes_read) {
    if (device == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (buffer == nullptr &&
        (device->alignment != 0 || (device->flags & QFS_DEVICE_FLAG_PHANTOM_ALLOWED) == 0)) {
        return QFS_ERR_UNSUPPORTED_FEATURE;
    }
    flags |= QFS_TRANSFER_READ;
    if (device->alignment != 0) {
        return qfs_device_aligned_ptransfer(device, context, buffer, count, position, flags, out_bytes_read);
    }
    return qfs_device_pread_common(device, context, buffer, count, position, contiguous_bytes, flags,
                                   out_bytes_read);
}

qfs_result qfs_device_pwrite_ioc(qfs_device *device, qfs_io_context *context, const void *buffer, size_t count,
                                 uint64_t position, uint32_t flags, size_t *out_bytes_written) {
    if (device == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (buffer == nullptr &&
        (device->alignment != 0 || (device->flags & QFS_DEVICE_FLAG_PHANTOM_ALLOWED) == 0)) {
        return QFS_ERR_UNSUPPORTED_FEATURE;
    }
    // The read bit picks the direction of an aligned transfer; a write must never carry it.
    flags &= ~static_cast<uint32_t>(QFS_TRANSFER_READ);
    if (device->alignment != 0) {
        // The aligned path only reads from the buffer when writing.
        return qfs_device_aligned_ptransfer(device, context, const_cast<void *>(buffer), count, position, flags,
                                            out_bytes_written);
    }
    return qfs_device_pwrite_common(device, context, buffer, count, position, flags, out_bytes_written);
}

qfs_result qfs_device_pread(qfs_device *device, uint64_t position, size_t count, void *buffer,
                            size_t *out_bytes_read) {
    QFS_TRACE("Entering: dev=%p pos=%llu count=%zu b=%p bytes_read=%p", static_cast<void *>(device),
              static_cast<unsigned long long>(position), count, buffer, static_cast<void *>(out_bytes_read));
    return qfs_device_pread_ioc(device, nullptr, buffer, count, position, 0, QFS_TRANSFER_CLASS_4,
                                out_bytes_read);
}

qfs_result qfs_device_pwrite(qfs_device *device, uint64_t position, size_t count, const void *buffer,
                             size_t *out_bytes_written) {
    QFS_TRACE("Entering: dev=%p pos=%llu count=%zu b=%p bytes_written=%p", static_cast<void *>(device),
              static_cast<unsigned long long>(position), count, buffer, static_cast<void *>(out_bytes_written));
    return qfs_device_pwrite_ioc(device, nullptr, buffer, count, position, QFS_TRANSFER_CLASS_4,
                                 out_bytes_written);
}

qfs_result qfs_device_pread_2(qfs_device *device, uint64_t position, size_t count, void *buffer,
                              size_t *out_bytes_read) {
    QFS_TRACE("Entering: dev=%p pos=%llu count=%zu b=%p bytes_read=%p", static_cast<void *>(device),
              static_cast<unsigned long long>(position), count, buffer, static_cast<void *>(out_bytes_read));
    return qfs_device_pread_ioc(device, nullptr, buffer, count, position, 0, QFS_TRANSFER_CLASS_2,
                                out_bytes_read);
}

qfs_result qfs_device_pwrite_2(qfs_device *device, uint64_t position, size_t count, const void *buffer,
                               size_t *out_bytes_written) {
    QFS_TRACE("Entering: dev=%p pos=%llu count=%zu b=%p bytes_written=%p", static_cast<void *>(device),
              static_cast<unsigned long long>(position), count, buffer, static_cast<void *>(out_bytes_written));
    return qfs_device_pwrite_ioc(device, nullptr, buffer, count, position, QFS_TRANSFER_CLASS_2,
                                 out_bytes_written);
}
