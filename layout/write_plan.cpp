#include "layout/write_plan.h"

#include "layout/padded_write.h"
#include "support/qfs_logging.h"

namespace {

constexpr uint32_t zero_fill_sync_interval_seconds = 10;

// The written extent that starts lowest at or after `offset`, or null.
const format_write_extent *next_extent(const format_write_plan *plan, uint64_t offset) {
    const format_write_extent *next = nullptr;
    for (size_t i = 0; i < plan->extent_count; ++i) {
        const format_write_extent &x = plan->extents[i];
        if (x.padded_size != 0 && x.position >= offset && (next == nullptr || x.position < next->position)) {
            next = &x;
        }
    }
    return next;
}

qfs_result zero_fill(qfs_device *dev, uint64_t offset, uint64_t stop, bool compare_before_write,
                     format_progress *progress) {
    QFS_TRACE("Zero-filling range [%llu, %llu]...", static_cast<unsigned long long>(offset),
              static_cast<unsigned long long>(stop));
    const qfs_result r = exfat_format_write_with_padding(dev, offset, 0, nullptr, stop - offset, 0,
                                                         compare_before_write, zero_fill_sync_interval_seconds,
                                                         progress);
    if (r != QFS_OK) {
        format_monitor_error(format_progress_monitor(progress), "Error while zero-filling range [%llu, %llu]: %lu (%s)",
                             static_cast<unsigned long long>(offset), static_cast<unsigned long long>(stop),
                             QFS_ERR_ARGS(r));
    }
    return r;
}

} // namespace

qfs_result format_write_plan_add(format_write_plan *plan, const char *status_message, const char *failure_message,
                                 bool sync_before, std::span<const format_write_extent> extents) {
    if (plan->extent_count + extents.size() > format_max_extents || plan->phase_count + 1 > format_max_phases) {
        QFS_LOG_CRITICAL("Internal error: Claimed more extents than available (%zu > %zu).",
                         plan->extent_count + extents.size(), format_max_extents);
        return QFS_ERR_SYS_INTERNAL;
    }
    plan->phases[plan->phase_count++] = {status_message, failure_message, sync_before, plan->extent_count,
                                         extents.size()};
    for (const format_write_extent &extent : extents) plan->extents[plan->extent_count++] = extent;
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
                return QFS_ERR_SYS_INTERNAL;
            }
        }
    }
    return QFS_OK;
}

qfs_result format_write_plan_execute(qfs_device *dev, const format_write_plan *plan, bool compare_before_write,
                                     format_progress *progress) {
    const format_monitor *monitor = format_progress_monitor(progress);
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
        if (phase.extent_count == 0) continue;
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
    for (uint64_t offset = 0; offset < end;) {
        const format_write_extent *next = next_extent(plan, offset);
        uint64_t step = 0;
        if (next != nullptr && next->position == offset) {
            step = next->padded_size;
            QFS_TRACE("Skipping written range [%llu, %llu]...", static_cast<unsigned long long>(offset),
                      static_cast<unsigned long long>(offset + step));
        } else {
            const uint64_t stop = next != nullptr && next->position < end ? next->position : end;
            step = stop - offset;
            const qfs_result r = zero_fill(dev, offset, stop, compare_before_write, progress);
            if (r != QFS_OK) return r;
        }
        if (step == 0) {
            QFS_LOG_CRITICAL("Internal error: Zero increment size at zeroing offset %llu.",
                             static_cast<unsigned long long>(offset));
            return QFS_ERR_SYS_INTERNAL;
        }
        offset += step;
    }
    return QFS_OK;
}
