#include "fat/format.h"

#include "support/qfs_logging.h"
#include "support/qfs_memory.h"
#include "support/qfs_unistr.h"

namespace {

constexpr uint32_t default_codepage = 437;

// The caller's request, as fat_format_volume takes it.
struct format_inputs {
    qfs_device *dev;
    bool force;
    bool short_fat;
    bool zero_data;
    bool no_sync;
    bool compare_before_write;
    uint32_t discard_method;
    fat_format_request request;
    const uint32_t *in_volume_serial_number;
    const format_monitor *monitor;
};

template <typename T> unsigned long long value_or_zero(const T *value) { return value ? *value : 0; }

void trace_inputs(const format_inputs &in) {
    const fat_format_request &q = in.request;
    QFS_TRACE("Entering: dev=%p force=%d zero_data=%d no_sync=%d discard_method=%d in_fat_type=%p (%hhu) "
              "in_root_directory_entries=%p (%hu) in_heads=%p (%hu) in_sectors_per_track=%p (%hu) "
              "in_sector_size=%p (%hu) in_sector_count=%p (%llu) in_cluster_size=%p (%lu) "
              "in_sectors_per_cluster=%p (%lu) in_partition_start_sector=%p (%llu) in_alignment=%p (%lu) "
              "codepage=%d volume_name=%p volume_name_length=%hhu in_volume_serial_number=%p (%lu) tca_strict=%d "
              "tca_whole=%d tca_relax=%d tca_partitioning_only=%d monitor=%p",
              static_cast<void *>(in.dev), in.force, in.zero_data, in.no_sync, static_cast<int>(in.discard_method),
              static_cast<const void *>(q.fat_type), static_cast<unsigned char>(value_or_zero(q.fat_type)),
              static_cast<const void *>(q.root_directory_entries),
              static_cast<unsigned short>(value_or_zero(q.root_directory_entries)),
              static_cast<const void *>(q.heads), static_cast<unsigned short>(value_or_zero(q.heads)),
              static_cast<const void *>(q.sectors_per_track),
              static_cast<unsigned short>(value_or_zero(q.sectors_per_track)),
              static_cast<const void *>(q.sector_size), static_cast<unsigned short>(value_or_zero(q.sector_size)),
              static_cast<const void *>(q.sector_count), value_or_zero(q.sector_count),
              static_cast<const void *>(q.cluster_size), static_cast<unsigned long>(value_or_zero(q.cluster_size)),
              static_cast<const void *>(q.sectors_per_cluster),
              static_cast<unsigned long>(value_or_zero(q.sectors_per_cluster)),
              static_cast<const void *>(q.partition_start_sector), value_or_zero(q.partition_start_sector),
              static_cast<const void *>(q.alignment), static_cast<unsigned long>(value_or_zero(q.alignment)),
              static_cast<int>(q.codepage), static_cast<const void *>(q.volume_name), q.volume_name_length,
              static_cast<const void *>(in.in_volume_serial_number),
              static_cast<unsigned long>(value_or_zero(in.in_volume_serial_number)), q.tca_strict, q.tca_whole,
              q.tca_relax, q.tca_partitioning_only, static_cast<const void *>(in.monitor));
}

// The label as UTF-8, decoded from the volume's code page; empty without one.
qfs_result decode_label(uint32_t codepage, const uint8_t *label, uint8_t length, qfs_unique<char[]> *out) {
    if (label == nullptr || length == 0) {
        return QFS_OK;
    }
    uint16_t *units = nullptr;
    size_t unit_count = 0;
    qfs_result r = qfs_unistr_from_codepage(codepage != 0 ? codepage : default_codepage, 0, label, length, nullptr,
                                            &units, &unit_count);
    const qfs_unique<uint16_t[]> owned_units(units);
    char *text = nullptr;
    if (r == QFS_OK) r = qfs_unistr_to_utf8(units, unit_count, &text, nullptr);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while decoding volume label: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    out->reset(text);
    return QFS_OK;
}

// One cluster counts as used also on FAT12/16, whose root directory lies outside the clusters.
qfs_result report_results(const fat_layout &layout, const fat_format_request &request,
                          const format_monitor *monitor) {
    qfs_unique<char[]> label;
    const qfs_result r = decode_label(request.codepage, request.volume_name, request.volume_name_length, &label);
    if (r != QFS_OK) return r;
    const uint64_t cluster_size = layout.cluster_size;
    format_monitor_report(monitor, {
                                       .file_system_name = layout.fat_type == 32   ? "FAT32"
                                                           : layout.fat_type == 16 ? "FAT16"
                                                                                   : "FAT12",
                                       .cluster_size = layout.cluster_size,
                                       .total_size = layout.sector_count * layout.sector_size,
                                       .data_area_size = layout.cluster_count * cluster_size,
                                       .free_space = (layout.cluster_count - 1ull) * cluster_size,
                                       .label = label ? label.get() : "",
                                   });
    return QFS_OK;
}

qfs_result format_volume(const format_inputs &in) {
    trace_inputs(in);
    fat_layout layout{};
    qfs_result r = fat_format_decide_layout(in.dev, in.request, in.monitor, &layout);
    if (r != QFS_OK) return r;
    const fat_format_content content{
        .label = in.request.volume_name,
        .label_length = in.request.volume_name ? in.request.volume_name_length : uint8_t{0},
        .serial_number = in.in_volume_serial_number,
        .strict_or_whole = in.request.tca_strict || in.request.tca_whole,
    };
    fat_format_images images{};
    r = fat_format_build_images(layout, content, in.monitor, &images);
    if (r != QFS_OK) return r;
    r = report_results(layout, in.request, in.monitor);
    if (r != QFS_OK) return r;
    const fat_write_options options{
        .short_fat = in.short_fat,
        .tca_whole = in.request.tca_whole,
        .choices = {in.request.tca_partitioning_only, in.zero_data, in.no_sync, in.compare_before_write,
                    in.discard_method},
    };
    r = fat_format_write_structures(in.dev, layout, images, options, in.monitor);
    if (r != QFS_OK) {
        format_monitor_error(in.monitor, "Error while writing volume structures: %lu (%s)", QFS_ERR_ARGS(r));
    }
    return r;
}

} // namespace

qfs_result fat_format_volume(qfs_device *dev, bool force, bool short_fat, bool zero_data, bool no_sync,
                             bool compare_before_write, uint32_t discard_method, const uint8_t *in_fat_type,
                             const uint16_t *in_root_directory_entries, const uint16_t *in_heads,
                             const uint16_t *in_sectors_per_track, const uint16_t *in_sector_size,
                             const uint64_t *in_sector_count, const uint32_t *in_cluster_size,
                             const uint32_t *in_sectors_per_cluster, const uint64_t *in_partition_start_sector,
                             const uint32_t *in_alignment, uint32_t codepage, const uint8_t *volume_name,
                             uint8_t volume_name_length, const uint32_t *in_volume_serial_number, bool tca_strict,
                             bool tca_whole, bool tca_relax, bool tca_partitioning_only, bool tca_align_to_cylinder,
                             const format_monitor *monitor) {
    return format_volume({
        .dev = dev,
        .force = force,
        .short_fat = short_fat,
        .zero_data = zero_data,
        .no_sync = no_sync,
        .compare_before_write = compare_before_write,
        .discard_method = discard_method,
        .request =
            {
                .force = force,
                .fat_type = in_fat_type,
                .root_directory_entries = in_root_directory_entries,
                .heads = in_heads,
                .sectors_per_track = in_sectors_per_track,
                .sector_size = in_sector_size,
                .sector_count = in_sector_count,
                .cluster_size = in_cluster_size,
                .sectors_per_cluster = in_sectors_per_cluster,
                .partition_start_sector = in_partition_start_sector,
                .alignment = in_alignment,
                .codepage = codepage,
                .volume_name = volume_name,
                .volume_name_length = volume_name_length,
                .tca_strict = tca_strict,
                .tca_whole = tca_whole,
                .tca_relax = tca_relax,
                .tca_partitioning_only = tca_partitioning_only,
                .tca_align_to_cylinder = tca_align_to_cylinder,
            },
        .in_volume_serial_number = in_volume_serial_number,
        .monitor = monitor,
    });
}
