#include "exfat/format_write.h"

#include <cstring>
#include <cstdlib>

#include "support/qfs_logging.h"
#include "support/qfs_memory.h"
#include "support/qfs_support.h"

namespace {

constexpr size_t padding_chunk_size = 1u << 20;
constexpr uint32_t zero_fill_sync_interval_seconds = 10;

const format_monitor *monitor_of(const format_progress *progress) {
    return progress ? progress->monitor : nullptr;
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

struct sync_timer {
    uint32_t interval_seconds;
    int64_t interval_start = 0;
};

} // namespace

void format_progress_set_message(format_progress *progress, const char *message) {
    if (progress == nullptr) return;
    progress->message = message;
    format_monitor_info(progress->monitor, "%s", message);
}

void format_progress_add(format_progress *progress, uint64_t bytes) {
    if (progress == nullptr) return;
    progress->done += bytes;
    const format_monitor *monitor = progress->monitor;
    if (monitor == nullptr || monitor->progress == nullptr) return;
    const uint64_t percent = progress->expected ? progress->done * 100 / progress->expected : 100;
    monitor->progress(monitor->report_context, static_cast<uint32_t>(percent),
                      progress->message ? progress->message : "");
}

qfs_result exfat_format_write_with_padding(qfs_device *dev, uint64_t position, size_t data_size, const void *data,
                                           uint64_t padded_size, uint8_t padding_byte, bool compare_before_write,
                                           uint32_t sync_interval_seconds, format_progress *progress) {
    QFS_TRACE("Entering with dev=%p position=%llu data_size=%zu data=%p padded_size=%llu padding_byte=%hhu",
              static_cast<void *>(dev), static_cast<unsigned long long>(position), data_size, data,
              static_cast<unsigned long long>(padded_size), padding_byte);
    const format_monitor *monitor = monitor_of(progress);
    if (static_cast<ssize_t>(data_size) < 0) {
        format_monitor_error(monitor, "Parameter value 'data_size' out of range: %zu", data_size);
        return 22;
    }
    if (data_size > padded_size) {
        format_monitor_error(monitor, "Parameter value 'data_size' exceeds 'padded_size' (%zu > %llu).", data_size,
                             static_cast<unsigned long long>(padded_size));
        return 22;
    }

    qfs_buffer chunk, readback;
    size_t chunk_size = 0;
    if (padded_size > data_size) {
        qfs_result r = allocate_chunk(padding_chunk_size, chunk, &chunk_size);
        if (r == QFS_OK && compare_before_write) {
            size_t readback_size = 0;
            r = allocate_chunk(chunk_size, readback, &readback_size);
            chunk_size = readback_size < chunk_size ? readback_size : chunk_size;
        }
        if (r != QFS_OK) {
            format_monitor_error(monitor, "Failed to allocate memory for padding: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
    }

    sync_timer timer{sync_interval_seconds};
    if (sync_interval_seconds != 0) {
        qfs_time now{};
        const qfs_result r = qfs_get_current_time(&now);
        if (r != QFS_OK) {
            format_monitor_error(monitor, "Error while getting timestamp: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
        timer.interval_start = now.seconds;
    }

    // The data goes out in one write, except its tail, which travels with the first padding chunk.
    const size_t tail = chunk_size ? data_size % chunk_size : 0;
    const size_t head = data_size - tail;
    if (head > 0) {
        size_t written = 0;
        const qfs_result r = qfs_device_pwrite(dev, position, head, data, &written);
        if (r != QFS_OK) {
            format_monitor_error(monitor, "Failed to write data: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
        if (written != head) {
            format_monitor_error(monitor, "Partial write of data (%zu / %zu bytes). Aborting.", written, head);
            return 5;
        }
        format_progress_add(progress, head);
    }
    if (chunk_size == 0) {
        return QFS_OK;
    }

    if (tail > 0) {
        memcpy(chunk.get(), static_cast<const uint8_t *>(data) + head, tail);
    }
    if (padding_byte != 0) {
        memset(chunk.get() + tail, padding_byte, chunk_size - tail);
    }
    uint64_t offset = position + head;
    const uint64_t end = position + padded_size;
    uint64_t padding_written = 0;
    bool first_chunk = true;
    while (offset < end) {
        const size_t count = static_cast<size_t>(end - offset < chunk_size ? end - offset : chunk_size);
        bool skip = false;
        if (compare_before_write) {
            size_t got = 0;
            const qfs_result r = qfs_device_pread(dev, offset, count, readback.get(), &got);
            skip = r == QFS_OK && got == count && memcmp(readback.get(), chunk.get(), count) == 0;
            if (skip) {
                QFS_TRACE("Skipping unnecessary write of %zu 0x%hhX-padding bytes to offset %llu.", count,
                          padding_byte, static_cast<unsigned long long>(offset));
            }
        }
        if (!skip) {
            size_t written = 0;
            const qfs_result r = qfs_device_pwrite(dev, offset, count, chunk.get(), &written);
            if (r != QFS_OK) {
                format_monitor_error(monitor, "Error while writing %zu bytes of padding to offset %llu: %lu (%s)",
                                     count, static_cast<unsigned long long>(offset), QFS_ERR_ARGS(r));
                return r;
            }
            if (written != count) {
                format_monitor_error(monitor, "Partial write of padding (%zu < %zu) to offset %llu. Aborting.",
                                     written, count, static_cast<unsigned long long>(offset));
                return 5;
            }
        }
        if (first_chunk && tail > 0) {
            memset(chunk.get(), padding_byte, tail);
        }
        first_chunk = false;
        offset += count;
        padding_written += count;
        format_progress_add(progress, count);

        if (timer.interval_seconds != 0) {
            qfs_time now{};
            qfs_result r = qfs_get_current_time(&now);
            if (r != QFS_OK) {
                format_monitor_error(monitor, "Error while getting timestamp: %lu (%s)", QFS_ERR_ARGS(r));
                return r;
            }
            if (now.seconds - timer.interval_start >= timer.interval_seconds) {
                QFS_TRACE("Sync interval passed while some bytes have been written. Have written %llu bytes of "
                          "padding (out of %llu bytes). Syncing.",
                          static_cast<unsigned long long>(padding_written),
                          static_cast<unsigned long long>(padded_size - head));
                r = qfs_device_sync(dev);
                if (r != QFS_OK) {
                    format_monitor_error(monitor, "Error while syncing: %lu (%s)", QFS_ERR_ARGS(r));
                    return r;
                }
                timer.interval_start = now.seconds;
            }
        }
    }
    return QFS_OK;
}

qfs_result format_write_plan_add(format_write_plan *plan, const char *status_message, const char *failure_message,
                                 bool sync_before, const format_write_extent &extent) {
    if (plan->extent_count + 1 > format_max_extents || plan->phase_count + 1 > format_max_phases) {
        QFS_LOG_CRITICAL("Internal error: Claimed more extents than available (%zu > %zu).", plan->extent_count + 1,
                         format_max_extents);
        return format_internal_error;
    }
    plan->extents[plan->extent_count] = extent;
    plan->phases[plan->phase_count++] = {status_message, failure_message, sync_before, plan->extent_count, 1};
    plan->extent_count++;
    return QFS_OK;
}

uint64_t format_write_plan_padded_bytes(const format_write_plan *plan) {
    uint64_t total = 0;
    for (size_t i = 0; i < plan->extent_count; ++i) total += plan->extents[i].padded_size;
    return total;
}

qfs_result format_write_plan_check_overlaps(const format_write_plan *plan) {
    for (size_t i = 0; i < plan->extent_count; ++i) {
        const format_write_extent &a = plan->extents[i];
        for (size_t k = i + 1; k < plan->extent_count; ++k) {
            const format_write_extent &b = plan->extents[k];
            if (a.position < b.position + b.padded_size && b.position < a.position + a.padded_size) {
                QFS_LOG_CRITICAL("Internal error: Overlapping write extents %zu (%llu-%llu) and %zu (%llu-%llu).", i,
                                 static_cast<unsigned long long>(a.position),
                                 static_cast<unsigned long long>(a.position + a.padded_size), k,
                                 static_cast<unsigned long long>(b.position),
                                 static_cast<unsigned long long>(b.position + b.padded_size));
                return format_internal_error;
            }
        }
    }
    return QFS_OK;
}

qfs_result format_write_plan_execute(qfs_device *dev, const format_write_plan *plan, bool compare_before_write,
                                     format_progress *progress) {
    const format_monitor *monitor = monitor_of(progress);
    for (size_t p = 0; p < plan->phase_count; ++p) {
        const format_write_phase &phase = plan->phases[p];
        if (phase.sync_before) {
            const qfs_result r = qfs_device_sync(dev);
            if (r != QFS_OK) {
                format_monitor_error(monitor, "Error while syncing before write phase %zu.: %lu (%s)", p,
                                     QFS_ERR_ARGS(r));
                return r;
            }
        }
        format_progress_set_message(progress, phase.status_message);
        for (size_t e = phase.first_extent; e < phase.first_extent + phase.extent_count; ++e) {
            const format_write_extent &x = plan->extents[e];
            const qfs_result r = exfat_format_write_with_padding(dev, x.position, x.data_size, x.data, x.padded_size,
                                                                 x.padding_byte, compare_before_write, 0, progress);
            if (r != QFS_OK) {
                format_monitor_error(monitor, "%s: %lu (%s)", phase.failure_message, QFS_ERR_ARGS(r));
                return r;
            }
        }
    }
    return QFS_OK;
}

qfs_result format_zero_fill_unwritten(qfs_device *dev, const format_write_plan *plan, uint64_t end,
                                      bool compare_before_write, format_progress *progress) {
    const format_monitor *monitor = monitor_of(progress);
    uint64_t offset = 0;
    while (offset < end) {
        // The written extent that starts lowest at or after the offset.
        const format_write_extent *next = nullptr;
        for (size_t i = 0; i < plan->extent_count; ++i) {
            const format_write_extent &x = plan->extents[i];
            if (x.padded_size != 0 && x.position >= offset && (next == nullptr || x.position < next->position)) {
                next = &x;
            }
        }
        uint64_t step = 0;
        if (next != nullptr && next->position == offset) {
            step = next->padded_size;
            QFS_TRACE("Skipping written range [%llu, %llu]...", static_cast<unsigned long long>(offset),
                      static_cast<unsigned long long>(offset + step));
        } else {
            const uint64_t stop = next != nullptr && next->position < end ? next->position : end;
            step = stop - offset;
            QFS_TRACE("Zero-filling range [%llu, %llu]...", static_cast<unsigned long long>(offset),
                      static_cast<unsigned long long>(stop));
            const qfs_result r = exfat_format_write_with_padding(dev, offset, 0, nullptr, step, 0,
                                                                 compare_before_write,
                                                                 zero_fill_sync_interval_seconds, progress);
            if (r != QFS_OK) {
                format_monitor_error(monitor, "Error while zero-filling range [%llu, %llu]: %lu (%s)",
                                     static_cast<unsigned long long>(offset), static_cast<unsigned long long>(stop),
                                     QFS_ERR_ARGS(r));
                return r;
            }
        }
        if (step == 0) {
            QFS_LOG_CRITICAL("Internal error: Zero increment size at zeroing offset %llu.",
                             static_cast<unsigned long long>(offset));
            return format_internal_error;
        }
        offset += step;
    }
    return QFS_OK;
}
