#include "exfat/format_layout.h"

#include "exfat/exfat_ondisk.h"
#include "layout/format_sectors.h"
#include "support/qfs_logging.h"

namespace {

constexpr uint64_t min_volume_bytes = 1048576;
constexpr uint32_t min_cluster_size = 512;
constexpr uint32_t max_cluster_size = 33554432;
constexpr uint64_t max_cluster_count = 4294967285u;
constexpr uint32_t max_distribution_rounds = 1000;

bool is_power_of_two(uint64_t value) { return value != 0 && (value & (value - 1)) == 0; }

uint64_t round_up(uint64_t value, uint64_t multiple) { return (value + multiple - 1) / multiple * multiple; }

uint64_t div_round_up(uint64_t value, uint64_t divisor) { return value / divisor + (value % divisor != 0); }

// Sector size checks and the volume's sector count in the final sector size.
qfs_result settle_sector_size(const exfat_layout_request &request, const format_monitor *monitor,
                              exfat_layout &layout) {
    const format_sector_rules rules{"Sector size out of bounds for exFAT: %lu", false, min_volume_bytes};
    const uint64_t card_partition = request.tca_partition_sector_count;
    format_sector_counts counts{};
    const qfs_result r = format_settle_sector_size(
        rules, request.force, request.device_sector_size, request.device_sector_count, request.sector_size,
        request.sector_count, request.tca_whole ? &card_partition : nullptr, monitor, &counts);
    if (r != QFS_OK) return r;
    const uint64_t volume_bytes = counts.volume_sectors * counts.sector_size;
    if (volume_bytes < min_volume_bytes) {
        format_monitor_error(monitor,
                             "Device is too small to hold an exFAT file system (device size: %llu B, required: %lu B).",
                             static_cast<unsigned long long>(volume_bytes), static_cast<unsigned long>(min_volume_bytes));
        return QFS_ERR_SYS_NO_SPACE;
    }
    layout.sector_size = counts.sector_size;
    layout.device_sector_count = counts.device_sectors;
    layout.volume_sector_count = counts.volume_sectors;
    return QFS_OK;
}

qfs_result check_specified_cluster_size(uint32_t cluster_size, const format_monitor *monitor) {
    if (!is_power_of_two(cluster_size)) {
        format_monitor_error(monitor, "Invalid cluster size (%lu). (Not a power of 2.)",
                             static_cast<unsigned long>(cluster_size));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    if (cluster_size < min_cluster_size || cluster_size > max_cluster_size) {
        format_monitor_error(monitor, "Invalid cluster size (%lu). (Out of range.)",
                             static_cast<unsigned long>(cluster_size));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    return QFS_OK;
}

uint64_t settle_partition_offset(qfs_device *device, const exfat_layout_request &request, const format_monitor *monitor) {
    uint64_t reported = 0;
    const bool queried = qfs_device_get_partition_start_sector(device, &reported) == QFS_OK;
    const uint64_t *specified = request.partition_start_sector;
    if (queried && specified == nullptr) {
        return reported;
    }
    if (queried && reported != 0 && reported != *specified) {
        format_monitor_warning(monitor,
                               "Specified partition start sector (%llu) does not match the partition start sector "
                               "reported by the operating system (%llu). Using %s.",
                               static_cast<unsigned long long>(*specified), static_cast<unsigned long long>(reported),
                               request.force ? "specified value due to force mode"
                                             : "operating system provided value (use force mode to override)");
        return request.force ? *specified : reported;
    }
    if (specified != nullptr) {
        return *specified;
    }
    format_monitor_warning(monitor, "Could not get partition offset of device. Setting to 0.");
    return 0;
}

void settle_system_objects(exfat_layout &layout) {
    const uint32_t k = layout.cluster_size;
    layout.bitmap_bytes = div_round_up(layout.cluster_count, 8);
    layout.bitmap_first_cluster = exfat_ondisk::first_data_cluster;
    layout.bitmap_clusters = static_cast<uint32_t>(div_round_up(layout.bitmap_bytes, k));
    layout.upcase_bytes = exfat_default_upcase_bytes;
    layout.upcase_first_cluster = layout.bitmap_first_cluster + layout.bitmap_clusters;
    layout.upcase_clusters = static_cast<uint32_t>(div_round_up(layout.upcase_bytes, k));
    layout.root_first_cluster = layout.upcase_first_cluster + layout.upcase_clusters;
    // Entries 0 and 1, both chains and the root directory's one cluster.
    layout.used_fat_entries = layout.bitmap_clusters + layout.upcase_clusters + 3;

    const uint32_t ss = layout.sector_size;
    layout.boot_region_size = static_cast<size_t>(exfat_ondisk::boot_regions_sectors) * ss;
    layout.partial_fat_size = static_cast<size_t>(round_up(static_cast<uint64_t>(layout.used_fat_entries) * 4, ss));
    layout.partial_bitmap_size = static_cast<size_t>(round_up(div_round_up(layout.used_fat_entries, 8), ss));
    layout.root_dir_size = ss;

    QFS_TRACE("FAT region first sector: %lu", static_cast<unsigned long>(layout.fat_offset));
    QFS_TRACE("FAT region size: %lu sectors (%llu bytes)", static_cast<unsigned long>(layout.fat_length),
              static_cast<unsigned long long>(static_cast<uint64_t>(layout.fat_length) * ss));
    QFS_TRACE("Cluster heap first sector: %lu", static_cast<unsigned long>(layout.cluster_heap_offset));
    QFS_TRACE("Cluster heap size: %lu clusters (%llu bytes)", static_cast<unsigned long>(layout.cluster_count),
              static_cast<unsigned long long>(static_cast<uint64_t>(layout.cluster_count) * k));
    QFS_TRACE("Allocation bitmap first FAT cluster: %lu", static_cast<unsigned long>(layout.bitmap_first_cluster));
    QFS_TRACE("Allocation bitmap cluster count: %lu", static_cast<unsigned long>(layout.bitmap_clusters));
    QFS_TRACE("Upcase table first FAT cluster: %lu", static_cast<unsigned long>(layout.upcase_first_cluster));
    QFS_TRACE("Upcase table size: %lu bytes", static_cast<unsigned long>(layout.upcase_bytes));
    QFS_TRACE("Upcase table cluster count: %lu", static_cast<unsigned long>(layout.upcase_clusters));
    QFS_TRACE("Root directory first FAT cluster: %lu", static_cast<unsigned long>(layout.root_first_cluster));
    QFS_TRACE("Boot region size: %zu bytes", layout.boot_region_size);
    QFS_TRACE("Partial FAT size: %zu bytes", layout.partial_fat_size);
    QFS_TRACE("Partial bitmap size: %zu bytes", layout.partial_bitmap_size);
    QFS_TRACE("Root directory size: %zu bytes", layout.root_dir_size);
}

qfs_result settle_cluster_size(const exfat_layout_request &request, const format_monitor *monitor,
                               exfat_layout &layout) {
    const uint64_t volume_bytes = layout.volume_sector_count * layout.sector_size;
    if (request.cluster_size != nullptr) {
        layout.cluster_size = *request.cluster_size;
    } else {
        const qfs_result r = exfat_format_determine_cluster_size(volume_bytes, &layout.cluster_size);
        if (r != QFS_OK) return r;
    }
    if (layout.cluster_size < layout.sector_size) {
        format_monitor_error(monitor, "Invalid cluster size (smaller than one sector).");
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    return QFS_OK;
}

// A specified alignment, else 1 MiB above 4 GiB and 64 KiB below, or one cluster when that does not divide it.
qfs_result settle_alignment(const exfat_layout_request &request, const format_monitor *monitor,
                            exfat_layout &layout) {
    const uint32_t ss = layout.sector_size;
    if (request.alignment != nullptr) {
        layout.alignment = *request.alignment;
    } else {
        layout.alignment = layout.volume_sector_count * ss > 4294967295u ? 1048576 : 65536;
        if (layout.alignment % layout.cluster_size != 0) {
            layout.alignment = layout.cluster_size;
        }
    }
    if (layout.alignment < ss || layout.alignment % ss != 0) {
        format_monitor_error(monitor, "Alignment (%lu) is not a multiple of sector size (%lu).",
                             static_cast<unsigned long>(layout.alignment), static_cast<unsigned long>(ss));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    return QFS_OK;
}

// Room for the boot regions up to the first aligned FAT sector, two clusters, one alignment unit and the up-case table.
qfs_result check_minimum_size(const exfat_layout &layout, const format_monitor *monitor) {
    const uint32_t ss = layout.sector_size;
    const uint64_t volume_bytes = layout.volume_sector_count * ss;
    const uint64_t offset_bytes = layout.partition_offset * ss;
    const uint32_t boot_regions_bytes = exfat_ondisk::boot_regions_sectors * ss;
    const uint64_t fat_offset_bytes = round_up(boot_regions_bytes + offset_bytes, layout.alignment) - offset_bytes;
    const uint64_t upcase_room = static_cast<uint64_t>(layout.cluster_size) *
                                 div_round_up(exfat_default_upcase_bytes, layout.cluster_size);
    const uint64_t required = static_cast<uint32_t>(2u * layout.cluster_size) + fat_offset_bytes + layout.alignment +
                              upcase_room;
    if (volume_bytes < required) {
        format_monitor_error(monitor,
                             "Device is too small to hold an exFAT file system with the specified alignment (device "
                             "size: %llu B, required: %llu B).",
                             static_cast<unsigned long long>(volume_bytes), static_cast<unsigned long long>(required));
        return QFS_ERR_SYS_NO_SPACE;
    }
    return QFS_OK;
}

// The FAT and the cluster heap, within what the boot sector's 32-bit fields and the cluster limit allow.
qfs_result settle_distribution(const format_monitor *monitor, exfat_layout &layout) {
    const uint32_t ss = layout.sector_size;
    uint64_t fat_offset = 0, fat_length = 0, heap_offset = 0, cluster_count = 0;
    const qfs_result r = exfat_format_calculate_fat_heap_distribution(
        ss, layout.volume_sector_count, layout.alignment / ss, layout.partition_offset, layout.cluster_size,
        &fat_offset, &fat_length, &heap_offset, &cluster_count);
    if (r != QFS_OK) {
        format_monitor_error(monitor, "Failed to calculate distribution between FAT and cluster heap: %lu (%s)",
                             QFS_ERR_ARGS(r));
        return r;
    }
    if (fat_offset > UINT32_MAX || fat_length > UINT32_MAX || heap_offset > UINT32_MAX) {
        format_monitor_error(monitor, "Device is too large for an exFAT file system with the specified parameters.");
        return QFS_ERR_SYS_TOO_LARGE;
    }
    if (cluster_count > max_cluster_count) {
        format_monitor_error(monitor, "Number of clusters is larger than the maximum allowed number: %llu > %llu",
                             static_cast<unsigned long long>(cluster_count),
                             static_cast<unsigned long long>(max_cluster_count));
        return QFS_ERR_SYS_TOO_LARGE;
    }
    layout.fat_offset = static_cast<uint32_t>(fat_offset);
    layout.fat_length = static_cast<uint32_t>(fat_length);
    layout.cluster_heap_offset = static_cast<uint32_t>(heap_offset);
    layout.cluster_count = static_cast<uint32_t>(cluster_count);
    const uint64_t volume_bytes = layout.volume_sector_count * ss;
    const uint64_t layout_bytes = static_cast<uint64_t>(layout.cluster_heap_offset) * ss +
                                  static_cast<uint64_t>(layout.cluster_count) * layout.cluster_size;
    if (layout_bytes > volume_bytes) {
        QFS_LOG_CRITICAL("Calculated layout doesn't fit on device! Available: %llu B Required: %llu B",
                         static_cast<unsigned long long>(volume_bytes), static_cast<unsigned long long>(layout_bytes));
        return QFS_ERR_SYS_NO_SPACE;
    }
    return QFS_OK;
}

} // namespace

qfs_result exfat_format_query_device_characteristics(qfs_device *device, bool assume_512_on_failure,
                                                     const uint16_t *in_sector_size, uint32_t *out_sector_size,
                                                     uint64_t *out_sector_count, const format_monitor *monitor) {
    return format_query_device_characteristics(device, assume_512_on_failure, in_sector_size, out_sector_size,
                                               out_sector_count, monitor);
}

qfs_result exfat_format_determine_cluster_size(uint64_t volume_size_bytes, uint32_t *out_cluster_size) {
    if (volume_size_bytes <= 268435455u) {
        *out_cluster_size = 4096;
        return QFS_OK;
    }
    if (volume_size_bytes <= 34359738367u) {
        *out_cluster_size = 32768;
        return QFS_OK;
    }
    for (uint64_t cluster_size = 131072; cluster_size <= max_cluster_size; cluster_size *= 2) {
        if (volume_size_bytes / cluster_size <= max_cluster_count) {
            *out_cluster_size = static_cast<uint32_t>(cluster_size);
            return QFS_OK;
        }
    }
    QFS_LOG_ERROR("Device size too large: %llu bytes", static_cast<unsigned long long>(volume_size_bytes));
    return QFS_ERR_SYS_TOO_LARGE;
}

qfs_result exfat_format_calculate_fat_heap_distribution(uint32_t sector_size, uint64_t sector_count,
                                                        uint32_t alignment_sectors, uint64_t partition_offset,
                                                        uint32_t cluster_size, uint64_t *out_fat_offset,
                                                        uint64_t *out_fat_length, uint64_t *out_cluster_heap_offset,
                                                        uint64_t *out_cluster_count) {
    if (cluster_size < sector_size) {
        QFS_LOG_ERROR("Invalid argument: Cluster size (%lu) is smaller than sector size (%lu).",
                      static_cast<unsigned long>(cluster_size), static_cast<unsigned long>(sector_size));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    const uint64_t sectors_per_cluster = cluster_size / sector_size;
    const uint64_t fat_offset =
        round_up(partition_offset + exfat_ondisk::boot_regions_sectors, alignment_sectors) - partition_offset;
    if (fat_offset > UINT32_MAX) {
        QFS_LOG_ERROR("Invalid alignment: First FAT sector too large (%llu).", static_cast<unsigned long long>(fat_offset));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    uint64_t fat_length = 0;
    uint64_t cluster_count = 0;
    uint64_t previous_cluster_count = 4294967295u;
    uint32_t rounds = 0;
    for (;;) {
        ++rounds;
        cluster_count = (sector_count - fat_offset - fat_length) / sectors_per_cluster;
        // One FAT's bytes, its sectors and the doubling are 32-bit quantities by design.
        const uint32_t fat_bytes = static_cast<uint32_t>(cluster_count + 2) * 4u;
        const uint32_t one_fat_sectors = fat_bytes / sector_size + (fat_bytes % sector_size != 0);
        const uint32_t both_fats = 2u * one_fat_sectors;
        fat_length = round_up(both_fats, alignment_sectors);
        if (cluster_count == previous_cluster_count || rounds >= max_distribution_rounds) {
            break;
        }
        previous_cluster_count = cluster_count;
    }
    // Never reached with the round limit above; kept as a guard.
    if (rounds > max_distribution_rounds) {
        QFS_LOG_ERROR("Failed to calculate the distribution between FAT and cluster heap!");
        QFS_LOG_ERROR("cluster_count = %llu", static_cast<unsigned long long>(cluster_count));
        QFS_LOG_ERROR("fat_sector_count = %llu", static_cast<unsigned long long>(fat_length));
        QFS_LOG_ERROR("prev_cluster_count = %llu", static_cast<unsigned long long>(previous_cluster_count));
        QFS_LOG_ERROR("sectors_per_cluster = %lu", static_cast<unsigned long>(sectors_per_cluster));
        QFS_LOG_ERROR("sector_count = %llu", static_cast<unsigned long long>(sector_count));
        QFS_LOG_ERROR("sector_size = %lu", static_cast<unsigned long>(sector_size));
        QFS_LOG_ERROR("cluster_size = %lu", static_cast<unsigned long>(cluster_size));
        return QFS_ERR_SYS_IO;
    }
    if (static_cast<uint64_t>(sector_size) * fat_length / 4 < cluster_count) {
        QFS_LOG_CRITICAL("Incorrect fat/heap distribution (FAT clusters (%llu) < actual clusters (%llu)).",
                         static_cast<unsigned long long>(static_cast<uint64_t>(sector_size) * fat_length / 4),
                         static_cast<unsigned long long>(cluster_count));
        return QFS_ERR_SYS_IO;
    }
    QFS_TRACE("Calculated distribution of space in %d iterations.", static_cast<int>(rounds));
    *out_fat_offset = fat_offset;
    *out_fat_length = fat_length;
    *out_cluster_heap_offset = fat_offset + fat_length;
    *out_cluster_count = cluster_count;
    return QFS_OK;
}

qfs_result exfat_format_plan_layout(qfs_device *device, const exfat_layout_request &request,
                                    const format_monitor *monitor, exfat_layout *out_layout) {
    exfat_layout layout{};
    qfs_result r = QFS_OK;
    if (request.cluster_size != nullptr) {
        r = check_specified_cluster_size(*request.cluster_size, monitor);
        if (r != QFS_OK) return r;
    }
    r = settle_sector_size(request, monitor, layout);
    if (r != QFS_OK) return r;
    r = settle_cluster_size(request, monitor, layout);
    if (r != QFS_OK) return r;
    layout.partition_offset = settle_partition_offset(device, request, monitor);
    r = settle_alignment(request, monitor, layout);
    if (r != QFS_OK) return r;
    r = check_minimum_size(layout, monitor);
    if (r != QFS_OK) return r;
    r = settle_distribution(monitor, layout);
    if (r != QFS_OK) return r;
    settle_system_objects(layout);
    *out_layout = layout;
    return QFS_OK;
}
