#include "layout/card_writer.h"

#include <algorithm>

#include "layout/padded_write.h"
#include "layout/partition_table.h"
#include "support/qfs_logging.h"

namespace {

// Head and tail areas zeroed beyond the partition's start and the device's end.
constexpr uint64_t zero_margin_bytes = 1048576;

// An image file has no partition table for the kernel to re-read.
bool refresh_unsupported(qfs_result r) { return r == QFS_ERR_UNSUPPORTED_FEATURE || r == QFS_ERR_SYS_NOT_TTY; }

struct card_areas {
    uint64_t device_bytes;    // D
    uint64_t partition_start; // Ps
    uint64_t partition_bytes; // Pl
    uint64_t leading_zero;    // L
    uint64_t trailing_zero;   // T
};

bool whole_card(const card_write_request &request) { return request.write_partition_table != nullptr; }

card_areas measure(const card_write_request &request) {
    card_areas a{};
    a.device_bytes = static_cast<uint64_t>(request.sector_size) * request.device_sector_count;
    if (whole_card(request)) {
        a.partition_start = request.partition_start_sector * request.sector_size;
        a.partition_bytes = request.partition_sector_count * request.sector_size;
    } else {
        a.partition_start = 0;
        a.partition_bytes = a.device_bytes;
    }
    a.leading_zero = std::min(a.device_bytes, a.partition_start + zero_margin_bytes);
    a.trailing_zero = std::min(a.device_bytes - (a.partition_start + a.partition_bytes) + zero_margin_bytes,
                               a.device_bytes - a.leading_zero);
    return a;
}

struct progress_budget {
    uint64_t expected;
    uint64_t discard_share;
};

// Every byte the run will write, and the share a discard stands for: a tenth
// of what is written, not counting a zero-filled volume.
progress_budget budget(const card_write_request &request, const card_areas &areas) {
    uint64_t expected = areas.leading_zero + areas.trailing_zero;
    if (whole_card(request)) {
        expected += areas.partition_start;
        // A GPT writes its backup into the boundary unit kept free at the card's end.
        if (areas.device_bytes / TCA_SECTOR_SIZE > TCA_MBR_MAX_SECTORS) {
            expected += static_cast<uint64_t>(request.tca->boundary_unit) * TCA_SECTOR_SIZE;
        }
    }
    uint64_t data_share = 0;
    if (!request.choices.partitioning_only) {
        data_share = request.choices.zero_data ? areas.partition_bytes : format_write_plan_padded_bytes(request.plan);
    }
    expected += data_share;
    uint64_t discard_share = 0;
    if (request.choices.discard_method != CARD_DISCARD_NONE) {
        discard_share = (expected - (request.choices.zero_data ? data_share : 0)) / 10;
        expected += discard_share;
    }
    return {expected, discard_share};
}

qfs_result zero_range(qfs_device *dev, const card_write_request &request, uint64_t position, uint64_t length,
                      format_progress *progress) {
    return exfat_format_write_with_padding(dev, position, 0, nullptr, length, 0, request.choices.compare_before_write,
                                           0, progress);
}

// The head's zeros up to the end of the MiB that holds the partition's first
// sector go first, and are made durable on their own: they take the card's
// partition table and the old volume's boot sector, so that no old volume can
// be found any more. Only then may the rest of the head and the tail land, in
// whatever order the card stores them; on a small FAT card they cut through
// the old volume's files, which would otherwise read back damaged under an
// intact boot sector. Also on a run that skips the other syncs.
qfs_result zero_head(qfs_device *dev, const card_write_request &request, const card_areas &areas,
                     format_progress *progress) {
    const format_monitor *monitor = progress->monitor;
    const uint64_t first_part =
        std::min(areas.leading_zero, (areas.partition_start / zero_margin_bytes + 1) * zero_margin_bytes);
    format_progress_set_message(progress, "Overwriting the beginning of the device with zeroed data...");
    qfs_result r = zero_range(dev, request, 0, first_part, progress);
    if (r == QFS_OK) {
        r = qfs_device_sync(dev);
        if (r != QFS_OK) {
            format_monitor_error(monitor, "Error while synchronizing device data after zeroing its beginning: %lu (%s)",
                                 QFS_ERR_ARGS(r));
            return r;
        }
    }
    if (r == QFS_OK && first_part < areas.leading_zero) {
        r = zero_range(dev, request, first_part, areas.leading_zero - first_part, progress);
    }
    if (r != QFS_OK) {
        format_monitor_error(monitor, "Error filling leading part of device with zeroes: %lu (%s)", QFS_ERR_ARGS(r));
    }
    return r;
}

qfs_result zero_card_ends(qfs_device *dev, const card_write_request &request, const card_areas &areas,
                          format_progress *progress) {
    qfs_result r = zero_head(dev, request, areas, progress);
    if (r != QFS_OK || areas.trailing_zero == 0) {
        return r;
    }
    format_progress_set_message(progress, "Overwriting the end of the device with zeroed data...");
    r = zero_range(dev, request, areas.device_bytes - areas.trailing_zero, areas.trailing_zero, progress);
    if (r != QFS_OK) {
        format_monitor_error(progress->monitor, "Error filling trailing part of device with zeroes: %lu (%s)",
                             QFS_ERR_ARGS(r));
    }
    return r;
}

// A discard never fails the format: a failing secure discard falls back to a
// regular one, and a failing regular one is only a warning.
void discard_card(qfs_device *dev, uint64_t device_bytes, uint32_t method, const format_monitor *monitor) {
    if (method == CARD_DISCARD_SECURE) {
        const qfs_result r = qfs_device_discard_byte_range(dev, 0, device_bytes, 1);
        if (r == QFS_OK) return;
        format_monitor_warning(monitor,
                               "Error while securely discarding data on device: %s Falling back to regular discard...",
                               qfs_error_text(r));
    }
    const qfs_result r = qfs_device_discard_byte_range(dev, 0, device_bytes, 0);
    if (r != QFS_OK) {
        format_monitor_warning(monitor, "Error while performing regular discard of data on device: %s",
                               qfs_error_text(r));
    }
}

// While it lives the device addresses the whole card; then the range it had before again.
class whole_card_view {
public:
    explicit whole_card_view(qfs_device *dev) : dev_(dev), start_(dev->start), size_(dev->size) {
        // A range change fails only without a device, and this view always has one.
        (void)qfs_device_clear_range(dev_);
    }
    ~whole_card_view() { (void)qfs_device_set_range(dev_, start_, size_); }
    whole_card_view(const whole_card_view &) = delete;
    whole_card_view &operator=(const whole_card_view &) = delete;

private:
    qfs_device *dev_;
    uint64_t start_;
    uint64_t size_;
};

qfs_result write_partition_table(qfs_device *dev, const card_write_request &request, const card_areas &areas,
                                 format_progress *progress) {
    const whole_card_view whole(dev);
    format_progress_set_message(progress, "Creating partition table...");
    const qfs_result r = request.write_partition_table(
        dev, request.tca, request.partition_start_sector, request.partition_sector_count,
        areas.device_bytes / TCA_SECTOR_SIZE, request.choices.compare_before_write, progress, progress->monitor);
    if (r != QFS_OK) {
        format_monitor_error(progress->monitor, "Error while creating Tarn card partition layout: %lu (%s)",
                             QFS_ERR_ARGS(r));
    }
    return r;
}

// The phases inside the partition, then the table in front of it.
qfs_result write_structures(qfs_device *dev, const card_write_request &request, const card_areas &areas,
                            format_progress *progress) {
    if (areas.partition_start > 0) {
        const qfs_result r =
            qfs_device_set_range(dev, areas.partition_start, areas.device_bytes - areas.partition_start);
        if (r != QFS_OK) return r;
    }
    if (!request.choices.partitioning_only) {
        const qfs_result r = format_write_plan_execute(dev, request.plan, request.choices.compare_before_write, progress);
        if (r != QFS_OK) return r;
    }
    return whole_card(request) ? write_partition_table(dev, request, areas, progress) : QFS_OK;
}

// The card may store the writes between two syncs in any order. Everything
// the zero areas and a discard did is made durable before the first new
// structure is written, so that no new bitmap, FAT or root directory ever
// shares a stretch of unordered writes with what erases the old volume: a cut
// leaves the erased card, or the erased card with new structures on it. (The
// sync inside the head already takes the old boot sector away first.) Also on
// a run that skips the other syncs.
qfs_result sync_erased_card(qfs_device *dev, const format_monitor *monitor) {
    const qfs_result r = qfs_device_sync(dev);
    if (r != QFS_OK) {
        format_monitor_error(monitor, "Error while synchronizing device data after zeroing its ends: %lu (%s)",
                             QFS_ERR_ARGS(r));
    }
    return r;
}

qfs_result zero_fill_volume(qfs_device *dev, const card_write_request &request, const card_areas &areas,
                            format_progress *progress) {
    if (!request.choices.no_sync) {
        const qfs_result r = qfs_device_sync(dev);
        if (r != QFS_OK) {
            format_monitor_error(progress->monitor,
                                 "Error while synchronizing device data before zero-filling: %lu (%s)",
                                 QFS_ERR_ARGS(r));
            return r;
        }
    }
    format_progress_set_message(progress, "Zero-filling unused sectors...");
    return format_zero_fill_unwritten(dev, request.plan, areas.partition_bytes, request.choices.compare_before_write,
                                      progress);
}

// The final sync and the partition table's re-read, whose failure is only logged.
qfs_result finish(qfs_device *dev, const card_write_request &request, format_progress *progress) {
    if (!request.choices.no_sync) {
        format_progress_set_message(progress, "Syncing device...");
        const qfs_result r = qfs_device_sync(dev);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Error while synchronizing device data after format.");
            return r;
        }
    }
    if (whole_card(request)) {
        const qfs_result r = qfs_device_refresh_partition_table(dev);
        if (r != QFS_OK && !refresh_unsupported(r)) {
            QFS_LOG_WARNING("Error when refreshing partition table: %lu (%s)", QFS_ERR_ARGS(r));
        }
    }
    if (progress->done != progress->expected) {
        QFS_LOG_WARNING("Progress mismatch at end of format. Expected %llu bytes written. Actual: %llu bytes",
                        static_cast<unsigned long long>(progress->expected),
                        static_cast<unsigned long long>(progress->done));
    }
    return QFS_OK;
}

} // namespace

qfs_result card_writer_run(qfs_device *dev, const card_write_request &request, const format_monitor *monitor) {
    const card_areas areas = measure(request);
    const progress_budget shares = budget(request, areas);
    format_progress progress{monitor, 0, shares.expected, ""};
    qfs_result r = QFS_OK;
    if (!request.choices.partitioning_only) {
        r = format_write_plan_check_overlaps(request.plan);
        if (r != QFS_OK) return r;
    }
    if (whole_card(request)) {
        // A table the device's sectors cannot describe is refused before the card is touched.
        uint32_t per_lba = 1;
        r = partition_table_sectors_per_lba(dev, *request.tca, areas.partition_start / TCA_SECTOR_SIZE,
                                            areas.partition_bytes / TCA_SECTOR_SIZE, monitor, &per_lba);
        if (r != QFS_OK) return r;
    }
    r = zero_card_ends(dev, request, areas, &progress);
    if (r != QFS_OK) return r;
    if (request.choices.discard_method != CARD_DISCARD_NONE) {
        format_progress_set_message(&progress, "Discarding device data...");
        discard_card(dev, areas.device_bytes, request.choices.discard_method, monitor);
        format_progress_add(&progress, shares.discard_share);
    }
    r = sync_erased_card(dev, monitor);
    if (r != QFS_OK) return r;
    r = write_structures(dev, request, areas, &progress);
    if (r != QFS_OK) return r;
    if (request.choices.zero_data && !request.choices.partitioning_only) {
        r = zero_fill_volume(dev, request, areas, &progress);
        if (r != QFS_OK) return r;
    }
    return finish(dev, request, &progress);
}
