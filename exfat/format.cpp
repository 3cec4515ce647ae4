#include "exfat/format.h"

#include <cstring>

#include "exfat/exfat_ondisk.h"
#include "exfat/util.h"
#include "support/qfs_endian.h"
#include "support/qfs_logging.h"
#include "support/qfs_memory.h"
#include "support/qfs_unistr.h"

namespace {

constexpr qfs_result invalid_argument = 22;
constexpr uint32_t flash_params_size = 32;

// What the card tables fix for an exFAT card, as if the caller had specified it.
struct tca_settings {
    tca_param param;
    uint64_t partition_start;
    uint64_t partition_count;
    uint16_t sector_size;
    uint32_t cluster_size;
    uint32_t alignment;
    uint8_t flash_params[flash_params_size];
};

void trace_tca(const tca_settings &t) {
    QFS_TRACE("Got TCA parameters:");
    QFS_TRACE("    max_sector_count: %llu", static_cast<unsigned long long>(t.param.max_sector_count));
    QFS_TRACE("    min_sector_count: %llu", static_cast<unsigned long long>(t.param.min_sector_count));
    QFS_TRACE("    boundary_unit: %lu", static_cast<unsigned long>(t.param.boundary_unit));
    QFS_TRACE("    sectors_per_cluster: %lu", static_cast<unsigned long>(t.param.sectors_per_cluster));
    QFS_TRACE("    heads: %hhu", t.param.heads);
    QFS_TRACE("    sectors_per_track: %hhu", t.param.sectors_per_track);
    QFS_TRACE("    tca_partition_start_sector: %llu", static_cast<unsigned long long>(t.partition_start));
    QFS_TRACE("    tca_partition_sector_count: %llu", static_cast<unsigned long long>(t.partition_count));
    (void)t;
}

// Looks the card up and checks the caller's explicit values against the recommendation.
qfs_result derive_tca_settings(uint64_t device_bytes, bool tca_whole, bool tca_relax, const uint16_t *in_sector_size,
                               const uint32_t *in_cluster_size, const uint64_t *in_partition_start,
                               const uint32_t *in_alignment, const uint8_t *flash_params,
                               const format_monitor *monitor, tca_settings *out) {
    tca_settings t{};
    const qfs_result r = exfat_format_get_tca_param(device_bytes / TCA_SECTOR_SIZE, &t.param, &t.partition_start,
                                                    &t.partition_count, tca_whole, tca_relax, monitor);
    if (r != QFS_OK) {
        return r;
    }
    trace_tca(t);
    t.sector_size = TCA_SECTOR_SIZE;
    t.cluster_size = t.param.sectors_per_cluster * TCA_SECTOR_SIZE;
    t.alignment = t.param.boundary_unit / 2 * TCA_SECTOR_SIZE;
    put_le32(t.flash_params, 0, t.param.boundary_unit * 256); // erase block size
    if (in_partition_start != nullptr && *in_partition_start != t.partition_start) {
        format_monitor_error(monitor, "Error: Invalid specified partition start sector (%llu) for TCA formatting.",
                             static_cast<unsigned long long>(*in_partition_start));
        return invalid_argument;
    }
    if (in_alignment != nullptr && *in_alignment != t.alignment) {
        format_monitor_error(monitor, "Error: Invalid specified alignment (%lu) for TCA formatting.",
                             static_cast<unsigned long>(*in_alignment));
        return invalid_argument;
    }
    if (in_sector_size != nullptr && *in_sector_size != t.sector_size) {
        format_monitor_error(monitor, "Error: Invalid specified sector size (%hu) for TCA formatting.", *in_sector_size);
        return invalid_argument;
    }
    if (in_cluster_size != nullptr && *in_cluster_size != t.cluster_size) {
        format_monitor_error(monitor, "Error: Invalid specified cluster size (%lu) for TCA formatting.",
                             static_cast<unsigned long>(*in_cluster_size));
        return invalid_argument;
    }
    if (flash_params != nullptr && memcmp(flash_params, t.flash_params, flash_params_size) != 0) {
        format_monitor_error(monitor, "Error: Invalid specified flash parameters for TCA formatting.");
        return invalid_argument;
    }
    *out = t;
    return QFS_OK;
}

qfs_result report_results(const exfat_layout &layout, const uint16_t *volume_name, uint8_t volume_name_length,
                          const format_monitor *monitor) {
    char *label = nullptr;
    size_t label_length = 0;
    if (volume_name != nullptr && volume_name_length > 0) {
        const qfs_result r = qfs_unistr_to_utf8(volume_name, volume_name_length, &label, &label_length);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Error while decoding volume label: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
    }
    qfs_unique<char[]> owned_label(label);
    if (monitor == nullptr) {
        return QFS_OK;
    }
    const uint64_t cluster_size = layout.cluster_size;
    const uint64_t free_clusters =
        static_cast<uint64_t>(layout.cluster_count) - layout.bitmap_clusters - layout.upcase_clusters - 1;
    void *context = monitor->report_context;
    if (monitor->file_system_name) monitor->file_system_name(context, "exFAT");
    if (monitor->cluster_size) monitor->cluster_size(context, layout.cluster_size);
    if (monitor->total_size) monitor->total_size(context, layout.volume_sector_count * layout.sector_size);
    if (monitor->data_area_size) monitor->data_area_size(context, layout.cluster_count * cluster_size);
    if (monitor->free_space) monitor->free_space(context, free_clusters * cluster_size);
    if (monitor->label) monitor->label(context, label ? label : "");
    return QFS_OK;
}

qfs_result check_parameters(const uint16_t *volume_name, uint8_t volume_name_length, const uint8_t *volume_guid,
                            bool tca_whole, bool tca_partitioning_only, const format_monitor *monitor) {
    if (volume_name != nullptr && volume_name_length > exfat_ondisk::max_label_length) {
        format_monitor_error(monitor, "Invalid volume name length: %hhu (maximum allowed: 11)", volume_name_length);
        return invalid_argument;
    }
    if (volume_name != nullptr && !exfat_util_label_is_valid(volume_name, volume_name_length)) {
        format_monitor_error(monitor, "Invalid characters in volume name.");
        return invalid_argument;
    }
    static constexpr uint8_t null_guid[16] = {};
    if (volume_guid != nullptr && memcmp(volume_guid, null_guid, sizeof(null_guid)) == 0) {
        format_monitor_error(monitor, "Invalid volume GUID (null GUID not allowed).");
        return invalid_argument;
    }
    if (tca_partitioning_only && !tca_whole) {
        format_monitor_error(monitor, "Conflicting options: tca_whole must be enabled on a partitioning-only run.");
        return invalid_argument;
    }
    return QFS_OK;
}

} // namespace

qfs_result exfat_format_volume(qfs_device *dev, bool force, bool boot_region_unpadded, bool zero_data, bool no_sync,
                               bool compare_before_write, uint32_t discard_method, const uint16_t *in_sector_size,
                               const uint64_t *in_sector_count, const uint32_t *in_cluster_size,
                               const uint64_t *in_partition_start_sector, const uint32_t *in_alignment,
                               const uint16_t *volume_name, uint8_t volume_name_length,
                               const uint32_t *in_volume_serial_number, const uint8_t *volume_guid,
                               const uint8_t *flash_params, bool tca_strict, bool tca_whole, bool tca_relax,
                               bool tca_partitioning_only, const format_monitor *monitor) {
    QFS_TRACE("Entering: dev=%p force=%d zero_data=%d no_sync=%d discard_method=%d in_sector_size=%p (%hu) "
              "in_sector_count=%p (%llu) in_cluster_size=%p (%lu) in_partition_start_sector=%p (%llu) "
              "in_alignment=%p (%lu) volume_name=%p volume_name_length=%hhu in_volume_serial_number=%p (%lu) "
              "volume_guid=%p flash_params=%p tca_strict=%d tca_whole=%d tca_relax=%d tca_partitioning_only=%d "
              "monitor=%p",
              static_cast<void *>(dev), force, zero_data, no_sync, static_cast<int>(discard_method),
              static_cast<const void *>(in_sector_size), in_sector_size ? *in_sector_size : 0,
              static_cast<const void *>(in_sector_count),
              static_cast<unsigned long long>(in_sector_count ? *in_sector_count : 0),
              static_cast<const void *>(in_cluster_size),
              static_cast<unsigned long>(in_cluster_size ? *in_cluster_size : 0),
              static_cast<const void *>(in_partition_start_sector),
              static_cast<unsigned long long>(in_partition_start_sector ? *in_partition_start_sector : 0),
              static_cast<const void *>(in_alignment), static_cast<unsigned long>(in_alignment ? *in_alignment : 0),
              static_cast<const void *>(volume_name), volume_name_length,
              static_cast<const void *>(in_volume_serial_number),
              static_cast<unsigned long>(in_volume_serial_number ? *in_volume_serial_number : 0),
              static_cast<const void *>(volume_guid), static_cast<const void *>(flash_params), tca_strict, tca_whole,
              tca_relax, tca_partitioning_only, static_cast<const void *>(monitor));

    qfs_result r = check_parameters(volume_name, volume_name_length, volume_guid, tca_whole, tca_partitioning_only,
                                    monitor);
    if (r != QFS_OK) {
        return r;
    }
    uint32_t device_sector_size = 0;
    uint64_t device_sector_count = 0;
    r = exfat_format_query_device_characteristics(dev, force || tca_strict || tca_whole, in_sector_size,
                                                  &device_sector_size, &device_sector_count, monitor);
    if (r != QFS_OK) {
        format_monitor_error(monitor, "Failed to retrieve necessary device characteristics: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }

    exfat_layout_request request{
        .force = force,
        .device_sector_size = device_sector_size,
        .device_sector_count = device_sector_count,
        .sector_size = in_sector_size,
        .sector_count = in_sector_count,
        .cluster_size = in_cluster_size,
        .partition_start_sector = in_partition_start_sector,
        .alignment = in_alignment,
        .tca_whole = false,
        .tca_partition_sector_count = 0,
    };

    tca_settings tca{};
    const bool tca_mode = tca_strict || tca_whole;
    if (tca_mode) {
        r = derive_tca_settings(static_cast<uint64_t>(device_sector_size) * device_sector_count, tca_whole, tca_relax,
                                in_sector_size, in_cluster_size, in_partition_start_sector, in_alignment,
                                flash_params, monitor, &tca);
        if (r != QFS_OK) {
            return r;
        }
        request.sector_size = &tca.sector_size;
        request.cluster_size = &tca.cluster_size;
        request.partition_start_sector = &tca.partition_start;
        request.alignment = &tca.alignment;
        request.tca_whole = tca_whole;
        request.tca_partition_sector_count = tca.partition_count;
        flash_params = tca.flash_params;
    }

    exfat_layout layout{};
    r = exfat_format_plan_layout(dev, request, monitor, &layout);
    if (r != QFS_OK) {
        return r;
    }

    exfat_format_content content{};
    content.volume_name = volume_name;
    content.volume_name_length = volume_name ? volume_name_length : 0;
    content.serial_number = in_volume_serial_number;
    content.volume_guid = volume_guid;
    content.flash_params = flash_params;
    // The card's current parameters sit in sector 9 of the volume about to be replaced.
    content.oem_parameters_position =
        ((tca_whole ? tca.partition_start * TCA_SECTOR_SIZE / layout.sector_size : 0) + exfat_ondisk::oem_parameters_sector) *
        layout.sector_size;
    exfat_format_images images{};
    r = exfat_format_build_images(dev, layout, content, monitor, &images);
    if (r != QFS_OK) {
        return r;
    }
    r = report_results(layout, content.volume_name, content.volume_name_length, monitor);
    if (r != QFS_OK) {
        return r;
    }

    const exfat_write_options options{
        .boot_region_unpadded = boot_region_unpadded,
        .zero_data = zero_data,
        .no_sync = no_sync,
        .compare_before_write = compare_before_write,
        .discard_method = discard_method,
        .tca_whole = tca_whole,
        .tca_partitioning_only = tca_partitioning_only,
        .tca = tca_mode ? &tca.param : nullptr,
        .tca_partition_start_sector = tca.partition_start,
        .tca_partition_sector_count = tca.partition_count,
    };
    r = exfat_format_write_structures(dev, layout, images, options, monitor);
    if (r != QFS_OK) {
        format_monitor_error(monitor, "Error while writing volume structures: %lu (%s)", QFS_ERR_ARGS(r));
    }
    return r;
}
