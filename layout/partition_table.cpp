#include "layout/partition_table.h"

#include "exfat/util.h"
#include "support/qfs_logging.h"

namespace {

constexpr size_t mbr_size = 512;

qfs_result refuse_without_boundary_unit(const tca_param *param, const format_monitor *monitor) {
    if (param->boundary_unit == 0) {
        format_monitor_error(monitor, "'tca-whole' - Volume is too large for TCA recommendations to apply.");
        return 22;
    }
    return QFS_OK;
}

// The MBR with the zeroed alignment region up to the partition.
qfs_result write_mbr(qfs_device *dev, const tca_param *param, uint32_t start, uint32_t count, uint8_t type,
                     bool compare_before_write, format_progress *progress) {
    uint32_t disk_signature = 0;
    // A failing generator leaves the signature at 0.
    (void)exfat_util_generate_serial_number(&disk_signature);
    uint8_t sector[mbr_size];
    mbr_build(sector, *param, start, count, type, disk_signature);
    const qfs_result r = exfat_format_write_with_padding(dev, 0, mbr_size, sector,
                                                         static_cast<uint64_t>(start) * mbr_size, 0,
                                                         compare_before_write, 0, progress);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while writing out the Master Boot Record and partition alignment region of the whole "
                      "device: %lu (%s)",
                      QFS_ERR_ARGS(r));
    }
    return r;
}

// Announces the step; a row without a boundary unit has no partition to lay out.
qfs_result begin_partitioning(const tca_param *param, format_progress *progress, const format_monitor *monitor) {
    const char *message = "Creating Tarn-compatible partition table...";
    if (progress != nullptr) {
        progress->message = message;
    }
    format_monitor_info(monitor, "%s", message);
    return refuse_without_boundary_unit(param, monitor);
}

} // namespace

qfs_result exfat_format_create_tca_partitioning(qfs_device *dev, const tca_param *param,
                                                uint64_t partition_start_sector, uint64_t partition_sector_count,
                                                uint64_t device_sector_count, bool compare_before_write,
                                                format_progress *progress, const format_monitor *monitor) {
    qfs_result r = begin_partitioning(param, progress, monitor);
    if (r != QFS_OK) {
        return r;
    }
    if (device_sector_count <= TCA_MBR_MAX_SECTORS) {
        return write_mbr(dev, param, static_cast<uint32_t>(partition_start_sector),
                         static_cast<uint32_t>(partition_sector_count), mbr_type_exfat, compare_before_write, progress);
    }
    r = exfat_format_partition_gpt(dev, param, partition_start_sector, partition_sector_count, compare_before_write,
                                   progress, monitor);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while writing out the GUID Partition Table and partition alignment region of the whole "
                      "device: %lu (%s)",
                      QFS_ERR_ARGS(r));
    }
    return r;
}

qfs_result fat_format_create_tca_partitioning(qfs_device *dev, const tca_param *param,
                                              uint64_t partition_start_sector, uint64_t partition_sector_count,
                                              uint64_t device_sector_count, bool compare_before_write,
                                              format_progress *progress, const format_monitor *monitor) {
    qfs_result r = begin_partitioning(param, progress, monitor);
    if (r != QFS_OK) {
        return r;
    }
    const bool start_fits = partition_start_sector <= UINT32_MAX;
    const bool count_fits = partition_sector_count <= UINT32_MAX;
    if (start_fits && count_fits) {
        return write_mbr(dev, param, static_cast<uint32_t>(partition_start_sector),
                         static_cast<uint32_t>(partition_sector_count),
                         fat_partition_type(partition_start_sector, partition_sector_count), compare_before_write,
                         progress);
    }
    if (device_sector_count <= TCA_MBR_MAX_SECTORS) {
        QFS_LOG_CRITICAL("Internal error: Device size is inconsistent with partition start sector or sector count");
        return 6;
    }
    format_monitor_error(monitor, "Error: Specified %s is out of bounds for MBR partitioning.",
                         start_fits ? "sector count" : "start sector");
    return 22;
}
