#include "layout/partition_table.h"

#include "support/qfs_logging.h"

namespace {

// Announces the step; a row without a boundary unit has no partition to lay out.
qfs_result begin_partitioning(const tca_param *param, format_progress *progress, const format_monitor *monitor) {
    const char *message = "Creating Tarn-compatible partition table...";
    if (progress != nullptr) {
        progress->message = message;
    }
    format_monitor_info(monitor, "%s", message);
    if (param->boundary_unit == 0) {
        format_monitor_error(monitor, "'tca-whole' - Volume is too large for TCA recommendations to apply.");
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    return QFS_OK;
}

} // namespace

qfs_result partition_table_sectors_per_lba(qfs_device *dev, const tca_param &param, uint64_t partition_start_sector,
                                           uint64_t partition_sector_count, const format_monitor *monitor,
                                           uint32_t *out_sectors_per_lba) {
    uint32_t sector_size = 0;
    if (qfs_device_get_sector_size(dev, &sector_size) != QFS_OK || sector_size < TCA_SECTOR_SIZE) {
        sector_size = TCA_SECTOR_SIZE; // an image has no sector size of its own
    }
    const uint32_t per_lba = sector_size / TCA_SECTOR_SIZE;
    if (sector_size % TCA_SECTOR_SIZE != 0 || partition_start_sector % per_lba != 0 ||
        partition_sector_count % per_lba != 0 || param.boundary_unit % per_lba != 0) {
        format_monitor_error(monitor,
                             "Error: The card's partition (start sector %llu, %llu sectors of 512 bytes) cannot be "
                             "described in this device's sectors of %lu bytes.",
                             static_cast<unsigned long long>(partition_start_sector),
                             static_cast<unsigned long long>(partition_sector_count),
                             static_cast<unsigned long>(sector_size));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    *out_sectors_per_lba = per_lba;
    return QFS_OK;
}

namespace {

// The table written in the device's sectors; failures are left to the caller to name.
qfs_result write_in_device_sectors(qfs_device *dev, const tca_param &param, partition_table_kind kind,
                                   uint8_t mbr_type, uint64_t partition_start_sector, uint64_t partition_sector_count,
                                   bool compare_before_write, format_progress *progress,
                                   const format_monitor *monitor) {
    uint32_t per_lba = 1;
    const qfs_result r =
        partition_table_sectors_per_lba(dev, param, partition_start_sector, partition_sector_count, monitor, &per_lba);
    if (r != QFS_OK) {
        return r;
    }
    // The card rules' numbers divide into the device's sectors.
    tca_param in_lbas = param;
    in_lbas.boundary_unit /= per_lba;
    const uint64_t start = partition_start_sector / per_lba;
    const uint64_t count = partition_sector_count / per_lba;
    const uint32_t lba_bytes = per_lba * TCA_SECTOR_SIZE;
    if (kind == partition_table_kind::mbr) {
        return mbr_write(dev, in_lbas, static_cast<uint32_t>(start), static_cast<uint32_t>(count), mbr_type,
                         lba_bytes, compare_before_write, progress);
    }
    return gpt_write(dev, in_lbas, start, count, lba_bytes, compare_before_write, progress, monitor);
}

} // namespace

qfs_result partition_table_write(qfs_device *dev, const tca_param &param, partition_table_kind kind,
                                 uint8_t mbr_type, uint64_t partition_start_sector, uint64_t partition_sector_count,
                                 bool compare_before_write, format_progress *progress, const format_monitor *monitor) {
    const qfs_result r = write_in_device_sectors(dev, param, kind, mbr_type, partition_start_sector,
                                                 partition_sector_count, compare_before_write, progress, monitor);
    if (r == QFS_OK) {
        return r;
    }
    if (kind == partition_table_kind::mbr) {
        QFS_LOG_ERROR("Error while writing out the Master Boot Record and partition alignment region of the "
                      "whole device: %lu (%s)",
                      QFS_ERR_ARGS(r));
    } else {
        QFS_LOG_ERROR("Error while writing out the GUID Partition Table and partition alignment region of the whole "
                      "device: %lu (%s)",
                      QFS_ERR_ARGS(r));
    }
    return r;
}

qfs_result exfat_format_create_tca_partitioning(qfs_device *dev, const tca_param *param,
                                                uint64_t partition_start_sector, uint64_t partition_sector_count,
                                                uint64_t device_sector_count, bool compare_before_write,
                                                format_progress *progress, const format_monitor *monitor) {
    const qfs_result r = begin_partitioning(param, progress, monitor);
    if (r != QFS_OK) {
        return r;
    }
    const partition_table_kind kind =
        device_sector_count <= TCA_MBR_MAX_SECTORS ? partition_table_kind::mbr : partition_table_kind::gpt;
    return partition_table_write(dev, *param, kind, mbr_type_exfat, partition_start_sector, partition_sector_count,
                                 compare_before_write, progress, monitor);
}

qfs_result fat_format_create_tca_partitioning(qfs_device *dev, const tca_param *param,
                                              uint64_t partition_start_sector, uint64_t partition_sector_count,
                                              uint64_t device_sector_count, bool compare_before_write,
                                              format_progress *progress, const format_monitor *monitor) {
    const qfs_result r = begin_partitioning(param, progress, monitor);
    if (r != QFS_OK) {
        return r;
    }
    const bool start_fits = partition_start_sector <= UINT32_MAX;
    const bool count_fits = partition_sector_count <= UINT32_MAX;
    if (start_fits && count_fits) {
        return partition_table_write(dev, *param, partition_table_kind::mbr,
                                     fat_partition_type(partition_start_sector, partition_sector_count),
                                     partition_start_sector, partition_sector_count, compare_before_write, progress,
                                     monitor);
    }
    if (device_sector_count <= TCA_MBR_MAX_SECTORS) {
        QFS_LOG_CRITICAL("Internal error: Device size is inconsistent with partition start sector or sector count");
        return QFS_ERR_SYS_INTERNAL;
    }
    format_monitor_error(monitor, "Error: Specified %s is out of bounds for MBR partitioning.",
                         start_fits ? "sector count" : "start sector");
    return QFS_ERR_SYS_INVALID_ARGUMENT;
}

qfs_result exfat_format_partition_gpt(qfs_device *dev, const tca_param *param, uint64_t partition_start_sector,
                                      uint64_t partition_sector_count, bool compare_before_write,
                                      format_progress *progress, const format_monitor *monitor) {
    return write_in_device_sectors(dev, *param, partition_table_kind::gpt, 0, partition_start_sector,
                                   partition_sector_count, compare_before_write, progress, monitor);
}
