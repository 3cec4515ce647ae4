#include "layout/padded_write.h"

#include <sys/types.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "support/qfs_logging.h"
#include "support/qfs_memory.h"
#include "support/qfs_support.h"

namespace {

constexpr size_t padding_chunk_size = 1u << 20;
// Padding handed to the kernel but not yet taken by the card stays below
// this much, so that progress follows the card and not the page cache.
constexpr uint64_t write_back_window = 32u << 20;

// One call of the padded writer.
struct padded_write {
    qfs_device *dev;
    uint64_t position;
    size_t data_size;
    const uint8_t *data;
    uint64_t padded_size;
    uint8_t padding_byte;
    bool compare_before_write;
    format_progress *progress;
    const format_monitor *monitor;
};

qfs_result check_sizes(const padded_write &w) {
    if (static_cast<ssize_t>(w.data_size) < 0) {
        format_monitor_error(w.monitor, "Parameter value 'data_size' out of range: %zu", w.data_size);
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    if (w.data_size > w.padded_size) {
        format_monitor_error(w.monitor, "Parameter value 'data_size' exceeds 'padded_size' (%zu > %llu).",
                             w.data_size, static_cast<unsigned long long>(w.padded_size));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    return QFS_OK;
}

// A zeroed chunk buffer of at most `wanted` bytes, halving the size after each
// failed allocation. Fresh zero pages cost nothing to fill with zero padding.
qfs_result allocate_chunk(size_t wanted, qfs_buffer &out, size_t *out_size) {
    for (size_t size = wanted;; size /= 2) {
        void *block = calloc(1, size);
        if (block != nullptr) {
            out.reset(static_cast<uint8_t *>(block));
            *out_size = size;
            return QFS_OK;
        }
        if (size <= 1) {
            return qfs_errno_result();
        }
    }
}

// The chunk the padding goes out from, and a second one that holds the
// device's bytes for comparison.
struct padding_chunks {
    qfs_buffer chunk;
    qfs_buffer readback;
    size_t size = 0;
};

qfs_result allocate_chunks(const padded_write &w, padding_chunks *out) {
    qfs_result r = allocate_chunk(padding_chunk_size, out->chunk, &out->size);
    if (r == QFS_OK && w.compare_before_write) {
        size_t readback_size = 0;
        r = allocate_chunk(out->size, out->readback, &readback_size);
        out->size = std::min(out->size, readback_size);
    }
    if (r != QFS_OK) {
        format_monitor_error(w.monitor, "Failed to allocate memory for padding: %lu (%s)", QFS_ERR_ARGS(r));
    }
    return r;
}

// Syncs the device whenever the interval passed while padding was written; an interval of 0 never syncs.
class sync_timer {
public:
    explicit sync_timer(uint32_t interval_seconds) : interval_seconds_(interval_seconds) {}

    qfs_result start(const format_monitor *monitor) {
        return interval_seconds_ == 0 ? QFS_OK : now(monitor, &interval_start_);
    }

    qfs_result after_chunk(const padded_write &w, uint64_t padding_written, uint64_t padding_total) {
        if (interval_seconds_ == 0) return QFS_OK;
        int64_t seconds = 0;
        qfs_result r = now(w.monitor, &seconds);
        if (r != QFS_OK || seconds - interval_start_ < interval_seconds_) return r;
        QFS_TRACE("Sync interval passed while some bytes have been written. Have written %llu bytes of padding (out "
                  "of %llu bytes). Syncing.",
                  static_cast<unsigned long long>(padding_written), static_cast<unsigned long long>(padding_total));
        r = qfs_device_sync(w.dev);
        if (r != QFS_OK) {
            format_monitor_error(w.monitor, "Error while syncing: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
        interval_start_ = seconds;
        return QFS_OK;
    }

private:
    static qfs_result now(const format_monitor *monitor, int64_t *out_seconds) {
        qfs_time time{};
        const qfs_result r = qfs_get_current_time(&time);
        if (r != QFS_OK) {
            format_monitor_error(monitor, "Error while getting timestamp: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
        *out_seconds = time.seconds;
        return QFS_OK;
    }

    uint32_t interval_seconds_;
    int64_t interval_start_ = 0;
};

// Starts write-back of each chunk at once and waits for the chunks that lie
// more than the window behind, before they are reported as done.
class write_back_lag {
public:
    explicit write_back_lag(uint64_t first) : waited_until_(first) {}

    qfs_result after_chunk(const padded_write &w, uint64_t offset, size_t count) {
        qfs_result r = qfs_device_write_back(w.dev, offset, count, false);
        const uint64_t behind = offset + count > write_back_window ? offset + count - write_back_window : 0;
        if (r == QFS_OK && behind > waited_until_) {
            r = qfs_device_write_back(w.dev, waited_until_, behind - waited_until_, true);
            waited_until_ = behind;
        }
        if (r != QFS_OK) {
            format_monitor_error(w.monitor, "Error while writing padding out to the card at offset %llu: %lu (%s)",
                                 static_cast<unsigned long long>(offset), QFS_ERR_ARGS(r));
        }
        return r;
    }

private:
    uint64_t waited_until_;
};

// The data's leading part, in one write.
qfs_result write_data(const padded_write &w, size_t head) {
    if (head == 0) return QFS_OK;
    size_t written = 0;
    const qfs_result r = qfs_device_pwrite(w.dev, w.position, head, w.data, &written);
    if (r != QFS_OK) {
        format_monitor_error(w.monitor, "Failed to write data: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    if (written != head) {
        format_monitor_error(w.monitor, "Partial write of data (%zu / %zu bytes). Aborting.", written, head);
        return QFS_ERR_SYS_IO;
    }
    format_progress_add(w.progress, head);
    return QFS_OK;
}

// True when comparing found the chunk on the device already.
bool device_holds(const padded_write &w, const padding_chunks &chunks, uint64_t offset, size_t count) {
    if (!w.compare_before_write) return false;
    size_t got = 0;
    const qfs_result r = qfs_device_pread(w.dev, offset, count, chunks.readback.get(), &got);
    const bool same = r == QFS_OK && got == count && memcmp(chunks.readback.get(), chunks.chunk.get(), count) == 0;
    if (same) {
        QFS_TRACE("Skipping unnecessary write of %zu 0x%hhX-padding bytes to offset %llu.", count, w.padding_byte,
                  static_cast<unsigned long long>(offset));
    }
    return same;
}

qfs_result write_chunk(const padded_write &w, const padding_chunks &chunks, uint64_t offset, size_t count) {
    if (device_holds(w, chunks, offset, count)) return QFS_OK;
    size_t written = 0;
    const qfs_result r = qfs_device_pwrite(w.dev, offset, count, chunks.chunk.get(), &written);
    if (r != QFS_OK) {
        format_monitor_error(w.monitor, "Error while writing %zu bytes of padding to offset %llu: %lu (%s)", count,
                             static_cast<unsigned long long>(offset), QFS_ERR_ARGS(r));
        return r;
    }
    if (written != count) {
        format_monitor_error(w.monitor, "Partial write of padding (%zu < %zu) to offset %llu. Aborting.", written,
                             count, static_cast<unsigned long long>(offset));
        return QFS_ERR_SYS_IO;
    }
    return QFS_OK;
}

// The data's last `tail` bytes travel in the first chunk; the rest is padding.
qfs_result write_padding(const padded_write &w, padding_chunks &chunks, size_t head, sync_timer &timer) {
    const size_t tail = w.data_size - head;
    if (tail > 0) {
        memcpy(chunks.chunk.get(), w.data + head, tail);
    }
    if (w.padding_byte != 0) {
        memset(chunks.chunk.get() + tail, w.padding_byte, chunks.size - tail);
    }
    const uint64_t end = w.position + w.padded_size;
    uint64_t padding_written = 0;
    write_back_lag lag(w.position + head);
    for (uint64_t offset = w.position + head; offset < end;) {
        const size_t count = static_cast<size_t>(std::min<uint64_t>(end - offset, chunks.size));
        qfs_result r = write_chunk(w, chunks, offset, count);
        if (r == QFS_OK) r = lag.after_chunk(w, offset, count);
        if (r != QFS_OK) return r;
        if (offset == w.position + head && tail > 0) {
            memset(chunks.chunk.get(), w.padding_byte, tail);
        }
        offset += count;
        padding_written += count;
        format_progress_add(w.progress, count);
        r = timer.after_chunk(w, padding_written, w.padded_size - head);
        if (r != QFS_OK) return r;
    }
    return QFS_OK;
}

} // namespace

qfs_result exfat_format_write_with_padding(qfs_device *dev, uint64_t position, size_t data_size, const void *data,
                                           uint64_t padded_size, uint8_t padding_byte, bool compare_before_write,
                                           uint32_t sync_interval_seconds, format_progress *progress) {
    QFS_TRACE("Entering with dev=%p position=%llu data_size=%zu data=%p padded_size=%llu padding_byte=%hhu",
              static_cast<void *>(dev), static_cast<unsigned long long>(position), data_size, data,
              static_cast<unsigned long long>(padded_size), padding_byte);
    const padded_write w{
        .dev = dev,
        .position = position,
        .data_size = data_size,
        .data = static_cast<const uint8_t *>(data),
        .padded_size = padded_size,
        .padding_byte = padding_byte,
        .compare_before_write = compare_before_write,
        .progress = progress,
        .monitor = format_progress_monitor(progress),
    };
    qfs_result r = check_sizes(w);
    if (r != QFS_OK) return r;
    padding_chunks chunks;
    if (padded_size > data_size) {
        r = allocate_chunks(w, &chunks);
        if (r != QFS_OK) return r;
    }
    sync_timer timer(sync_interval_seconds);
    r = timer.start(w.monitor);
    if (r != QFS_OK) return r;
    // The data goes out in one write, except its tail, which travels with the first padding chunk.
    const size_t head = data_size - (chunks.size ? data_size % chunks.size : 0);
    r = write_data(w, head);
    if (r != QFS_OK || chunks.size == 0) return r;
    return write_padding(w, chunks, head, timer);
}
