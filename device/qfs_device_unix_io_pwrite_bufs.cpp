// The phantom write: the bytes that earlier phantom reads recorded in an I/O
// context are copied to consecutive device positions, descriptor by
// descriptor, without the caller ever holding them in a buffer.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "device/qfs_device_unix_io.h"
#include "support/qfs_logging.h"
#include "support/qfs_memory.h"

namespace {

// Where the walk through the context stands: the descriptor, the stream
// position of its first byte and the stream position reached.
struct buffer_iterator {
    const qfs_io_buffer *buf;
    uint64_t buf_pos;
    uint64_t pos;
};

// A read-only shared mapping of a descriptor's source, unmapped on every path.
class source_mapping {
public:
    source_mapping() = default;
    ~source_mapping() {
        if (address_ != nullptr) {
            munmap(address_, size_);
        }
    }
    source_mapping(const source_mapping &) = delete;
    source_mapping &operator=(const source_mapping &) = delete;

    bool map(int fd, size_t size, uint64_t offset) {
        void *address = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, static_cast<off_t>(offset));
        if (address == MAP_FAILED) {
            return false;
        }
        address_ = address;
        size_ = size;
        return true;
    }
    const uint8_t *data() const { return static_cast<const uint8_t *>(address_); }
    qfs_result release() {
        if (address_ == nullptr) {
            return QFS_OK;
        }
        void *address = address_;
        address_ = nullptr;
        if (munmap(address, size_) != 0) {
            const qfs_result r = qfs_errno_result();
            QFS_LOG_ERROR("Error while unmapping buffer: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
        return QFS_OK;
    }

private:
    void *address_ = nullptr;
    size_t size_ = 0;
};

void trace_descriptor(size_t index, const buffer_iterator &it, size_t bytes_to_write_in_buffer) {
    const qfs_io_buffer *b = it.buf;
    QFS_TRACE("Processing buffer %zu (%p):", index, static_cast<const void *>(b));
    QFS_TRACE("    size: %zu", static_cast<size_t>(b->size));
    QFS_TRACE("    offset: %llu", static_cast<unsigned long long>(b->offset));
    QFS_TRACE("    is_phantom: %lu", static_cast<unsigned long>((b->flags & QFS_IO_BUFFER_PHANTOM) != 0));
    QFS_TRACE("    is_fd: %lu", static_cast<unsigned long>((b->flags & QFS_IO_BUFFER_FD) != 0));
    QFS_TRACE("    use_offset: %lu", static_cast<unsigned long>((b->flags & QFS_IO_BUFFER_USE_OFFSET) != 0));
    QFS_TRACE("    reserved: 0x%lX", static_cast<unsigned long>(
                                          b->flags & ~static_cast<uint32_t>(QFS_IO_BUFFER_PHANTOM | QFS_IO_BUFFER_FD |
                                                                            QFS_IO_BUFFER_USE_OFFSET)));
    if (b->flags & QFS_IO_BUFFER_FD) {
        QFS_TRACE("    fd: %d", b->fd);
    } else {
        QFS_TRACE("    mem: %p", b->memory);
    }
    QFS_TRACE("Iterator state:");
    QFS_TRACE("    buf: %p", static_cast<const void *>(it.buf));
    QFS_TRACE("    buf_pos: %llu", static_cast<unsigned long long>(it.buf_pos));
    QFS_TRACE("    pos: %llu", static_cast<unsigned long long>(it.pos));
    QFS_TRACE("bytes_to_write_in_buffer: %zu", bytes_to_write_in_buffer);
}

// Fills `buffer` with `size` bytes of the descriptor's source fd.
qfs_result fill_from_fd(const qfs_io_buffer &b, uint8_t *buffer, size_t size) {
    const bool seekable = (b.flags & QFS_IO_BUFFER_USE_OFFSET) != 0;
    size_t bytes_read = 0;
    while (bytes_read < size) {
        const size_t remaining = size - bytes_read;
        QFS_TRACE("Reading from %d:", b.fd);
        const ssize_t got = seekable ? pread(b.fd, buffer + bytes_read, remaining,
                                             static_cast<off_t>(b.offset + bytes_read))
                                     : read(b.fd, buffer + bytes_read, remaining);
        if (got < 0) {
            const qfs_result r = qfs_errno_result();
            QFS_LOG_ERROR("Error while reading %zu bytes from fd %d: %lu (%s)", remaining, b.fd, QFS_ERR_ARGS(r));
            return r;
        }
        if (static_cast<size_t>(got) > remaining) {
            QFS_LOG_ERROR("Unexpected: More bytes read than requested (%zd > %zu).", got, remaining);
            return QFS_ERR_IO_ERROR;
        }
        if (got == 0) {
            QFS_LOG_ERROR("Unexpected: End of file before requested bytes were read (%zu / %zu bytes read).",
                          bytes_read, size);
            return QFS_ERR_IO_ERROR;
        }
        bytes_read += static_cast<size_t>(got);
        QFS_TRACE("  bytes_read: %zu", bytes_read);
        QFS_TRACE("  bytes_to_write_in_buffer: %zu", size);
        QFS_TRACE("  remaining_bytes_to_read: %zu", size - bytes_read);
    }
    return QFS_OK;
}

// Writes all of `size` bytes unless the device stops taking them; returns the bytes written.
qfs_result write_through_backend(qfs_device_layer *layer, const uint8_t *source, size_t size, uint64_t position,
                                 uint32_t flags, size_t *out_written) {
    size_t written = 0;
    while (written < size) {
        size_t put = 0;
        const qfs_result r = qfs_device_unix_io_pwrite(layer, nullptr, source + written, size - written,
                                                       position + written, flags, &put);
        if (r != QFS_OK) {
            return r;
        }
        if (put == 0) {
            break;
        }
        written += put;
    }
    *out_written = written;
    return QFS_OK;
}

// A memory descriptor carries no position of its own, so it cannot be mixed with others.
qfs_result check_descriptors(const std::vector<qfs_io_buffer> &buffers) {
    const bool has_memory = std::any_of(buffers.begin(), buffers.end(), [](const qfs_io_buffer &b) {
        return (b.flags & (QFS_IO_BUFFER_FD | QFS_IO_BUFFER_PHANTOM)) == 0;
    });
    if (has_memory && buffers.size() > 1) {
        QFS_LOG_ERROR("Only one in-memory buffer is supported. Has %lu bufs.",
                      static_cast<unsigned long>(buffers.size()));
        return QFS_ERR_UNSUPPORTED_FEATURE;
    }
    return QFS_OK;
}

// The descriptor's bytes in memory: its own memory, a mapping of its fd, or a copy read from the fd.
qfs_result source_bytes(size_t index, const qfs_io_buffer &b, size_t size, source_mapping &mapping,
                        qfs_buffer &filled, const uint8_t **out_source) {
    if ((b.flags & QFS_IO_BUFFER_FD) == 0 && (b.flags & QFS_IO_BUFFER_PHANTOM) != 0) {
        // A phantom-only descriptor names no bytes at all; writing it would invent data.
        QFS_LOG_ERROR("Buffer %zu has no source to write from: %lu (%s)", index,
                      QFS_ERR_ARGS(QFS_ERR_UNSUPPORTED_FEATURE));
        return QFS_ERR_UNSUPPORTED_FEATURE;
    }
    if ((b.flags & QFS_IO_BUFFER_FD) == 0) {
        *out_source = static_cast<const uint8_t *>(b.memory);
        return QFS_OK;
    }
    const bool seekable = (b.flags & QFS_IO_BUFFER_USE_OFFSET) != 0;
    if (seekable && size > 0) {
        if (mapping.map(b.fd, size, b.offset)) {
            QFS_TRACE("Successfully mapped %zu bytes of fd %d at offset %llu: %p", size, b.fd,
                      static_cast<unsigned long long>(b.offset), static_cast<const void *>(mapping.data()));
            *out_source = mapping.data();
            return QFS_OK;
        }
        QFS_TRACE("Falling back to memory backed buffer due to error while mapping %zu bytes of fd %d at offset %llu",
                  size, b.fd, static_cast<unsigned long long>(b.offset));
    }
    qfs_result r = qfs_buffer_alloc(size, filled);
    if (r != QFS_OK) {
        return r;
    }
    r = fill_from_fd(b, filled.get(), size);
    if (r != QFS_OK) {
        return r;
    }
    *out_source = filled.get();
    return QFS_OK;
}

// Writes what the caller wants of one descriptor and moves the iterator past it.
qfs_result write_descriptor(qfs_device_layer *layer, size_t index, buffer_iterator &it, size_t count,
                            uint64_t position, uint32_t flags) {
    const qfs_io_buffer &b = *it.buf;
    const size_t size = static_cast<size_t>(std::min<uint64_t>(b.size - (it.pos - it.buf_pos), count - it.pos));
    trace_descriptor(index, it, size);
    source_mapping mapping;
    qfs_buffer filled;
    const uint8_t *source = nullptr;
    qfs_result r = source_bytes(index, b, size, mapping, filled, &source);
    if (r != QFS_OK) {
        return r;
    }
    size_t written = 0;
    r = write_through_backend(layer, source, size, position + it.pos, flags, &written);
    if (r != QFS_OK) {
        return r;
    }
    it.pos += written;
    return mapping.release();
}

// After a descriptor: true when the walk goes on to the next one. A seekable
// descriptor written short is an internal error; a stream that ran dry ends the walk.
qfs_result continue_after(buffer_iterator &it, size_t count, bool *out_more) {
    *out_more = false;
    if (it.pos == count) {
        return QFS_OK; // the caller asked for no more than this
    }
    const qfs_io_buffer &b = *it.buf;
    const bool seekable = (b.flags & QFS_IO_BUFFER_USE_OFFSET) != 0;
    const uint64_t buffer_end = it.buf_pos + b.size;
    if (it.pos != buffer_end) {
        if (seekable) {
            QFS_LOG_CRITICAL("Unexpected mismatch between logical position and buffer position for %sseekable "
                             "buffer: %llu != %llu",
                             seekable ? "" : "non-", static_cast<unsigned long long>(it.pos),
                             static_cast<unsigned long long>(buffer_end));
            return QFS_ERR_INTERNAL_ERROR;
        }
        QFS_TRACE("Mismatch between logical position and buffer position for non-seekable buffer: %llu != %llu "
                  "Breaking read here.",
                  static_cast<unsigned long long>(it.pos), static_cast<unsigned long long>(buffer_end));
        return QFS_OK;
    }
    it.buf_pos = buffer_end;
    *out_more = true;
    return QFS_OK;
}

} // namespace

qfs_result qfs_device_unix_io_pwrite_bufs(qfs_device_layer *layer, qfs_io_context *context, size_t count,
                                          uint64_t position, uint32_t flags, size_t *out_bytes_written) {
    QFS_TRACE("Entering: dev=%p bufs=%p count=%zu offset=%llu flags=0x%X out_bytes_written=%p",
              static_cast<void *>(layer), static_cast<void *>(context), count,
              static_cast<unsigned long long>(position), flags, static_cast<void *>(out_bytes_written));
    if (layer == nullptr || context == nullptr || out_bytes_written == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    const std::vector<qfs_io_buffer> &buffers = context->buffers;
    if (buffers.empty() || count == 0) {
        *out_bytes_written = 0;
        return QFS_OK;
    }
    qfs_result r = check_descriptors(buffers);
    if (r != QFS_OK) {
        return r;
    }
    buffer_iterator it = {&buffers[0], 0, 0};
    if (it.buf_pos != it.pos) {
        QFS_LOG_ERROR("Invalid buffer state passed to pwrite_bufs: Logical and buffer positions don't match at "
                      "start (%llu != %llu).",
                      static_cast<unsigned long long>(it.pos), static_cast<unsigned long long>(it.buf_pos));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    bool more = true;
    for (size_t index = 0; more && index < buffers.size() && it.pos < count; ++index) {
        it.buf = &buffers[index];
        r = write_descriptor(layer, index, it, count, position, flags);
        if (r == QFS_OK) {
            r = continue_after(it, count, &more);
        }
        if (r != QFS_OK) {
            return r;
        }
    }
    *out_bytes_written = static_cast<size_t>(it.pos);
    return QFS_OK;
}
