#include <cerrno>

#include "exfat/format.h"
#include "exfat/format_write.h"
#include "layout/partition_table.h"
#include "support/qfs_logging.h"

namespace {

// Head and tail areas zeroed beyond the partition's start and the device's end.
constexpr uint64_t zero_margin_bytes = 1048576;

struct device_areas {
    uint64_t device_bytes;    // D
    uint64_t partition_start; // Ps
    uint64_t partition_bytes; // Pl
    uint64_t leading_zero;    // L
    uint64_t trailing_zero;   // T
};

device_areas measure(const exfat_layout &layout, const exfat_write_options &options) {
    device_areas a{};
    a.device_bytes = static_cast<uint64_t>(layout.sector_size) * layout.device_sector_count;
    if (options.tca_whole) {
        a.partition_start = options.tca_partition_start_sector * layout.sector_size;
        a.partition_bytes = options.tca_partition_sector_count * layout.sector_size;
    } else {
        a.partition_start = 0;
        a.partition_bytes = a.device_bytes;
    }
    a.leading_zero = std::min(a.device_bytes, a.partition_start + zero_margin_bytes);
    a.trailing_zero = std::min(a.device_bytes - (a.partition_start + a.partition_bytes) + zero_margin_bytes,
                               a.device_bytes - a.leading_zero);
    return a;
}

qfs_result build_plan(const exfat_layout &layout, const exfat_format_images &images, bool boot_region_unpadded,
                      format_write_plan *plan) {
    const uint64_t ss = layout.sector_size;
    const uint64_t k = layout.cluster_size;
    const uint64_t heap = static_cast<uint64_t>(layout.cluster_heap_offset) * ss;
    const uint64_t fat_initialize_size = (static_cast<uint64_t>(layout.cluster_count) + 2) * 32 / 8;
    const uint64_t fat_region_bytes = static_cast<uint64_t>(layout.fat_length) * ss;
    if (fat_initialize_size > fat_region_bytes) {
        QFS_LOG_CRITICAL("fat_initialize_size (%llu) > (fat_sector_count (%lu) * sector_size (%lu)) (%llu)",
                         static_cast<unsigned long long>(fat_initialize_size),
                         static_cast<unsigned long>(layout.fat_length), static_cast<unsigned long>(ss),
                         static_cast<unsigned long long>(fat_region_bytes));
        return 22;
    }
    const uint64_t bitmap_bytes = layout.bitmap_clusters * k;
    const uint64_t upcase_bytes = layout.upcase_clusters * k;
    const uint64_t boot_bytes = images.boot_region ? layout.boot_region_size : 0;
    struct phase {
        const char *status;
        const char *failure;
        bool sync_before;
        format_write_extent extent;
    };
    const phase phases[] = {
        {"Writing allocation bitmap...", "Failed to write out allocation bitmap", false,
         {heap, images.partial_bitmap.get(), layout.partial_bitmap_size, 0, bitmap_bytes}},
        {"Writing upcase table...", "Failed to write out upcase table", false,
         {heap + bitmap_bytes, images.upcase, images.upcase_size, 0, upcase_bytes}},
        {"Writing root directory...", "Failed to write out root directory", false,
         {heap + bitmap_bytes + upcase_bytes, images.root_dir.get(), layout.root_dir_size, 0, k}},
        {"Writing file allocation table...", "Error while writing out the FAT", false,
         {static_cast<uint64_t>(layout.fat_offset) * ss, images.partial_fat.get(), layout.partial_fat_size, 0,
          std::max<uint64_t>(ss, fat_initialize_size)}},
        // The device is synced before the boot region, so a volume never looks valid before its FAT is down.
        {"Writing boot region...", "Error while writing out the boot region", true,
         {0, images.boot_region.get(), layout.boot_region_size, 0,
          boot_region_unpadded ? boot_bytes : static_cast<uint64_t>(layout.fat_offset) * ss}},
    };
    for (const phase &p : phases) {
        const qfs_result r = format_write_plan_add(plan, p.status, p.failure, p.sync_before, p.extent);
        if (r != QFS_OK) return r;
    }
    return QFS_OK;
}

void discard_device(qfs_device *dev, uint64_t device_bytes, uint32_t method, const format_monitor *monitor) {
    qfs_result r = QFS_OK;
    if (method == EXFAT_DISCARD_SECURE) {
        r = qfs_device_discard_byte_range(dev, 0, device_bytes, 1);
        if (r == QFS_OK) return;
        format_monitor_warning(monitor,
                               "Error while securely discarding data on device: %s Falling back to regular discard...",
                               qfs_error_text(r));
    }
    r = qfs_device_discard_byte_range(dev, 0, device_bytes, 0);
    if (r != QFS_OK) {
        // A discard never fails the format.
        format_monitor_warning(monitor, "Error while performing regular discard of data on device: %s",
                               qfs_error_text(r));
    }
}

} // namespace

qfs_result exfat_format_write_structures(qfs_device *dev, const exfat_layout &layout, const exfat_format_images &images,
                                         const exfat_write_options &options, const format_monitor *monitor) {
    const device_areas areas = measure(layout, options);
    format_write_plan plan{};
    qfs_result r = build_plan(layout, images, options.boot_region_unpadded, &plan);
    if (r != QFS_OK) {
        return r;
    }

    const uint64_t boundary_unit_bytes = options.tca ? static_cast<uint64_t>(options.tca->boundary_unit) * 512 : 0;
    const uint64_t device_sectors_512 = areas.device_bytes / 512;
    uint64_t expected = areas.leading_zero + areas.trailing_zero;
    if (options.tca_whole) {
        expected += areas.partition_start;
        if (device_sectors_512 > TCA_MBR_MAX_SECTORS) expected += boundary_unit_bytes; // the GPT backup
    }
    uint64_t data_share = 0;
    if (!options.tca_partitioning_only) {
        data_share = options.zero_data ? areas.partition_bytes : format_write_plan_padded_bytes(&plan);
    }
    expected += data_share;
    uint64_t discard_share = 0;
    if (options.discard_method != EXFAT_DISCARD_NONE) {
        discard_share = (expected - (options.zero_data ? data_share : 0)) / 10;
        expected += discard_share;
    }
    format_progress progress{monitor, 0, expected, ""};

    if (!options.tca_partitioning_only) {
        r = format_write_plan_check_overlaps(&plan);
        if (r != QFS_OK) return r;
    }

    format_progress_set_message(&progress, "Overwriting the beginning of the device with zeroed data...");
    r = exfat_format_write_with_padding(dev, 0, 0, nullptr, areas.leading_zero, 0, options.compare_before_write, 0,
                                        &progress);
    if (r != QFS_OK) {
        format_monitor_error(monitor, "Error filling leading part of device with zeroes: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    if (areas.trailing_zero > 0) {
        format_progress_set_message(&progress, "Overwriting the end of the device with zeroed data...");
        r = exfat_format_write_with_padding(dev, areas.device_bytes - areas.trailing_zero, 0, nullptr,
                                            areas.trailing_zero, 0, options.compare_before_write, 0, &progress);
        if (r != QFS_OK) {
            format_monitor_error(monitor, "Error filling trailing part of device with zeroes: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
    }
    if (options.discard_method != EXFAT_DISCARD_NONE) {
        format_progress_set_message(&progress, "Discarding device data...");
        discard_device(dev, areas.device_bytes, options.discard_method, monitor);
        format_progress_add(&progress, discard_share);
    }

    const uint64_t volume_length = areas.device_bytes - areas.partition_start;
    if (areas.partition_start > 0) {
        qfs_device_set_range(dev, areas.partition_start, volume_length);
    }
    if (!options.tca_partitioning_only) {
        r = format_write_plan_execute(dev, &plan, options.compare_before_write, &progress);
        if (r != QFS_OK) return r;
    }
    if (options.tca_whole) {
        qfs_device_clear_range(dev);
        format_progress_set_message(&progress, "Creating partition table...");
        r = exfat_format_create_tca_partitioning(dev, options.tca, options.tca_partition_start_sector,
                                                 options.tca_partition_sector_count, device_sectors_512,
                                                 options.compare_before_write, &progress, monitor);
        if (r != QFS_OK) {
            format_monitor_error(monitor, "Error while creating Tarn card partition layout: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
        if (areas.partition_start > 0) {
            qfs_device_set_range(dev, areas.partition_start, volume_length);
        }
    }
    if (options.zero_data && !options.tca_partitioning_only) {
        if (!options.no_sync) {
            r = qfs_device_sync(dev);
            if (r != QFS_OK) {
                format_monitor_error(monitor, "Error while synchronizing device data before zero-filling: %lu (%s)",
                                     QFS_ERR_ARGS(r));
                return r;
            }
        }
        format_progress_set_message(&progress, "Zero-filling unused sectors...");
        r = format_zero_fill_unwritten(dev, &plan, areas.partition_bytes, options.compare_before_write, &progress);
        if (r != QFS_OK) return r;
    }
    if (!options.no_sync) {
        format_progress_set_message(&progress, "Syncing device...");
        r = qfs_device_sync(dev);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Error while synchronizing device data after format.");
            return r;
        }
    }
    if (options.tca_whole) {
        r = qfs_device_refresh_partition_table(dev);
        // An image file has no partition table for the kernel to re-read.
        if (r != QFS_OK && r != QFS_ERR_UNSUPPORTED_FEATURE && r != ENOTTY) {
            QFS_LOG_WARNING("Error when refreshing partition table: %lu (%s)", QFS_ERR_ARGS(r));
        }
    }
    if (progress.done != progress.expected) {
        QFS_LOG_WARNING("Progress mismatch at end of format. Expected %llu bytes written. Actual: %llu bytes",
                        static_cast<unsigned long long>(progress.expected),
                        static_cast<unsigned long long>(progress.done));
    }
    return QFS_OK;
}
