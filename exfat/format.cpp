#include "exfat/format.h"

#include <cstring>

#include "exfat/exfat_ondisk.h"
#include "exfat/util.h"
#include "support/qfs_endian.h"
#include "support/qfs_logging.h"
#include "support/qfs_memory.h"
#include "support/qfs_unistr.h"

namespace {

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
    t.sector_size = TCA_SECTOR_SIZE;
    t.cluster_size = t.param.sectors_per_cluster * TCA_SECTOR_SIZE;
    t.alignment = t.param.boundary_unit / 2 * TCA_SECTOR_SIZE;
    put_le32(t.flash_params, 0, t.param.boundary_unit * 256); // erase block size
    if (in_partition_start != nullptr && *in_partition_start != t.partition_start) {
        format_monitor_error(monitor, "Error: Invalid specified partition start sector (%llu) for TCA formatting.",
                             static_cast<unsigned long long>(*in_partition_start));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    if (in_alignment != nullptr && *in_alignment != t.alignment) {
        format_monitor_error(monitor, "Error: Invalid specified alignment (%lu) for TCA formatting.",
                             static_cast<unsigned long>(*in_alignment));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    if (in_sector_size != nullptr && *in_sector_size != t.sector_size) {
        format_monitor_error(monitor, "Error: Invalid specified sector size (%hu) for TCA formatting.", *in_sector_size);
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    if (in_cluster_size != nullptr && *in_cluster_size != t.cluster_size) {
        format_monitor_error(monitor, "Error: Invalid specified cluster size (%lu) for TCA formatting.",
                             static_cast<unsigned long>(*in_cluster_size));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    if (flash_params != nullptr && memcmp(flash_params, t.flash_params, flash_params_size) != 0) {
        format_monitor_error(monitor, "Error: Invalid specified flash parameters for TCA formatting.");
        return QFS_ERR_SYS_INVALID_ARGUMENT;
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
    const uint64_t cluster_size = layout.cluster_size;
    const uint64_t free_clusters =
        static_cast<uint64_t>(layout.cluster_count) - layout.bitmap_clusters - layout.upcase_clusters - 1;
    format_monitor_report(monitor, {
                                       .file_system_name = "exFAT",
                                       .cluster_size = layout.cluster_size,
                                       .total_size = layout.volume_sector_count * layout.sector_size,
                                       .data_area_size = layout.cluster_count * cluster_size,
                                       .free_space = free_clusters * cluster_size,
                                       .label = label ? label : "",
                                   });
    return QFS_OK;
}

qfs_result check_parameters(const uint16_t *volume_name, uint8_t volume_name_length, const uint8_t *volume_guid,
                            bool tca_whole, bool tca_partitioning_only, const format_monitor *monitor) {
    if (volume_name != nullptr && volume_name_length > exfat_ondisk::max_label_length) {
        format_monitor_error(monitor, "Invalid volume name length: %hhu (maximum allowed: 11)", volume_name_length);
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    if (volume_name != nullptr && !exfat_util_label_is_valid(volume_name, volume_name_length)) {
        format_monitor_error(monitor, "Invalid characters in volume name.");
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    static constexpr uint8_t null_guid[16] = {};
    if (volume_guid != nullptr && memcmp(volume_guid, null_guid, sizeof(null_guid)) == 0) {
        format_monitor_error(monitor, "Invalid volume GUID (null GUID not allowed).");
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    if (tca_partitioning_only && !tca_whole) {
        format_monitor_error(monitor, "Conflicting options: tca_whole must be enabled on a partitioning-only run.");
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    return QFS_OK;
}

// The caller's request, as exfat_format_volume takes it.
struct format_inputs {
    qfs_device *dev;
    bool force;
    bool boot_region_unpadded;
    bool zero_data;
    bool no_sync;
    bool compare_before_write;
    uint32_t discard_method;
    const uint16_t *in_sector_size;
    const uint64_t *in_sector_count;
    const uint32_t *in_cluster_size;
    const uint64_t *in_partition_start_sector;
    const uint32_t *in_alignment;
    const uint16_t *volume_name;
    uint8_t volume_name_length;
    const uint32_t *in_volume_serial_number;
    const uint8_t *volume_guid;
    const uint8_t *flash_params;
    bool tca_strict;
    bool tca_whole;
    bool tca_relax;
    bool tca_partitioning_only;
    const format_monitor *monitor;
};

void trace_inputs(const format_inputs &in) {
    QFS_TRACE("Entering: dev=%p force=%d zero_data=%d no_sync=%d discard_method=%d in_sector_size=%p (%hu) "
              "in_sector_count=%p (%llu) in_cluster_size=%p (%lu) in_partition_start_sector=%p (%llu) "
              "in_alignment=%p (%lu) volume_name=%p volume_name_length=%hhu in_volume_serial_number=%p (%lu) "
              "volume_guid=%p flash_params=%p tca_strict=%d tca_whole=%d tca_relax=%d tca_partitioning_only=%d "
              "monitor=%p",
              static_cast<void *>(in.dev), in.force, in.zero_data, in.no_sync, static_cast<int>(in.discard_method),
              static_cast<const void *>(in.in_sector_size), static_cast<unsigned short>(in.in_sector_size ? *in.in_sector_size : 0),
              static_cast<const void *>(in.in_sector_count),
              static_cast<unsigned long long>(in.in_sector_count ? *in.in_sector_count : 0),
              static_cast<const void *>(in.in_cluster_size),
              static_cast<unsigned long>(in.in_cluster_size ? *in.in_cluster_size : 0),
              static_cast<const void *>(in.in_partition_start_sector),
              static_cast<unsigned long long>(in.in_partition_start_sector ? *in.in_partition_start_sector : 0),
              static_cast<const void *>(in.in_alignment),
              static_cast<unsigned long>(in.in_alignment ? *in.in_alignment : 0),
              static_cast<const void *>(in.volume_name), in.volume_name_length,
              static_cast<const void *>(in.in_volume_serial_number),
              static_cast<unsigned long>(in.in_volume_serial_number ? *in.in_volume_serial_number : 0),
              static_cast<const void *>(in.volume_guid), static_cast<const void *>(in.flash_params), in.tca_strict,
              in.tca_whole, in.tca_relax, in.tca_partitioning_only, static_cast<const void *>(in.monitor));
}

bool tca_mode(const format_inputs &in) { return in.tca_strict || in.tca_whole; }

// The device's characteristics, the card's row when the card tables apply, and the layout they give.
qfs_result settle_layout(const format_inputs &in, tca_settings *out_tca, exfat_layout *out_layout) {
    uint32_t device_sector_size = 0;
    uint64_t device_sector_count = 0;
    qfs_result r = exfat_format_query_device_characteristics(in.dev, in.force || tca_mode(in), in.in_sector_size,
                                                             &device_sector_size, &device_sector_count, in.monitor);
    if (r != QFS_OK) {
        format_monitor_error(in.monitor, "Failed to retrieve necessary device characteristics: %lu (%s)",
                             QFS_ERR_ARGS(r));
        return r;
    }
    exfat_layout_request request{
        .force = in.force,
        .device_sector_size = device_sector_size,
        .device_sector_count = device_sector_count,
        .sector_size = in.in_sector_size,
        .sector_count = in.in_sector_count,
        .cluster_size = in.in_cluster_size,
        .partition_start_sector = in.in_partition_start_sector,
        .alignment = in.in_alignment,
        .tca_whole = false,
        .tca_partition_sector_count = 0,
    };
    if (tca_mode(in)) {
        r = derive_tca_settings(static_cast<uint64_t>(device_sector_size) * device_sector_count, in.tca_whole,
                                in.tca_relax, in.in_sector_size, in.in_cluster_size, in.in_partition_start_sector,
                                in.in_alignment, in.flash_params, in.monitor, out_tca);
        if (r != QFS_OK) {
            return r;
        }
        request.sector_size = &out_tca->sector_size;
        request.cluster_size = &out_tca->cluster_size;
        request.partition_start_sector = &out_tca->partition_start;
        request.alignment = &out_tca->alignment;
        request.tca_whole = in.tca_whole;
        request.tca_partition_sector_count = out_tca->partition_count;
    }
    return exfat_format_plan_layout(in.dev, request, in.monitor, out_layout);
}

exfat_format_content content_of(const format_inputs &in, const tca_settings &tca, const exfat_layout &layout) {
    exfat_format_content content{};
    content.volume_name = in.volume_name;
    content.volume_name_length = in.volume_name ? in.volume_name_length : 0;
    content.serial_number = in.in_volume_serial_number;
    content.volume_guid = in.volume_guid;
    content.flash_params = tca_mode(in) ? tca.flash_params : in.flash_params;
    // The card's current parameters sit in sector 9 of the volume about to be replaced.
    const uint64_t volume_start = in.tca_whole ? tca.partition_start * TCA_SECTOR_SIZE / layout.sector_size : 0;
    content.oem_parameters_position = (volume_start + exfat_ondisk::oem_parameters_sector) * layout.sector_size;
    return content;
}

qfs_result format_volume(const format_inputs &in) {
    trace_inputs(in);
    qfs_result r = check_parameters(in.volume_name, in.volume_name_length, in.volume_guid, in.tca_whole,
                                    in.tca_partitioning_only, in.monitor);
    if (r != QFS_OK) {
        return r;
    }
    tca_settings tca{};
    exfat_layout layout{};
    r = settle_layout(in, &tca, &layout);
    if (r != QFS_OK) {
        return r;
    }
    const exfat_format_content content = content_of(in, tca, layout);
    exfat_format_images images{};
    r = exfat_format_build_images(in.dev, layout, content, in.monitor, &images);
    if (r != QFS_OK) {
        return r;
    }
    r = report_results(layout, content.volume_name, content.volume_name_length, in.monitor);
    if (r != QFS_OK) {
        return r;
    }
    const exfat_write_options options{
        .boot_region_unpadded = in.boot_region_unpadded,
        .tca_whole = in.tca_whole,
        .choices = {in.tca_partitioning_only, in.zero_data, in.no_sync, in.compare_before_write, in.discard_method},
        .tca = tca_mode(in) ? &tca.param : nullptr,
        .tca_partition_start_sector = tca.partition_start,
        .tca_partition_sector_count = tca.partition_count,
    };
    r = exfat_format_write_structures(in.dev, layout, images, options, in.monitor);
    if (r != QFS_OK) {
        format_monitor_error(in.monitor, "Error while writing volume structures: %lu (%s)", QFS_ERR_ARGS(r));
    }
    return r;
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
    return format_volume({
        .dev = dev,
        .force = force,
        .boot_region_unpadded = boot_region_unpadded,
        .zero_data = zero_data,
        .no_sync = no_sync,
        .compare_before_write = compare_before_write,
        .discard_method = discard_method,
        .in_sector_size = in_sector_size,
        .in_sector_count = in_sector_count,
        .in_cluster_size = in_cluster_size,
        .in_partition_start_sector = in_partition_start_sector,
        .in_alignment = in_alignment,
        .volume_name = volume_name,
        .volume_name_length = volume_name_length,
        .in_volume_serial_number = in_volume_serial_number,
        .volume_guid = volume_guid,
        .flash_params = flash_params,
        .tca_strict = tca_strict,
        .tca_whole = tca_whole,
        .tca_relax = tca_relax,
        .tca_partitioning_only = tca_partitioning_only,
        .monitor = monitor,
    });
}
