#include "layout/format_sectors.h"

#include "support/qfs_logging.h"

namespace {

constexpr uint32_t min_sector_size = 512;
constexpr uint32_t max_sector_size = 4096;
constexpr uint32_t max_forced_sector_size = 32768;

bool is_power_of_two(uint64_t value) { return value != 0 && (value & (value - 1)) == 0; }

// A specified sector size other than the device's: the counts are converted,
// and with force a remainder that does not fill a larger sector is dropped.
qfs_result translate_sector_size(uint32_t wanted, bool force, const format_monitor *monitor,
                                 format_sector_counts &counts) {
    const uint32_t sector_size = counts.sector_size;
    if (wanted == 0) {
        format_monitor_error(monitor, "Specified sector size is 0.");
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    if (wanted % sector_size != 0 && sector_size % wanted != 0) {
        format_monitor_error(monitor,
                             "Specified sector size (%lu) can not be translated to an even multiple or divisor "
                             "of the device sector size (%lu).",
                             static_cast<unsigned long>(wanted), static_cast<unsigned long>(sector_size));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    if (wanted > sector_size) {
        const uint64_t device_bytes = counts.device_sectors * sector_size;
        const uint64_t volume_bytes = counts.volume_sectors * sector_size;
        const struct {
            const char *message;
            uint64_t bytes;
        } size_checks[] = {
            {"Device size (%llu) is not an even multiple of the specified sector size (%hu).", device_bytes},
            {"Volume size (%llu) is not an even multiple of the specified sector size (%hu).", volume_bytes},
        };
        for (const auto &check : size_checks) {
            if (check.bytes % wanted == 0) continue;
            if (!force) {
                format_monitor_error(monitor, check.message, static_cast<unsigned long long>(check.bytes),
                                     static_cast<unsigned short>(wanted));
                return QFS_ERR_SYS_INVALID_ARGUMENT;
            }
            format_monitor_warning(monitor, check.message, static_cast<unsigned long long>(check.bytes),
                                   static_cast<unsigned short>(wanted));
        }
        counts.device_sectors = device_bytes / wanted;
        counts.volume_sectors = volume_bytes / wanted;
    } else {
        counts.device_sectors *= sector_size / wanted;
        counts.volume_sectors *= sector_size / wanted;
    }
    counts.sector_size = wanted;
    return QFS_OK;
}

qfs_result check_bounds(const format_sector_rules &rules, uint32_t sector_size, bool force,
                        const format_monitor *monitor) {
    const bool out_of_bounds = sector_size < min_sector_size || sector_size > max_forced_sector_size ||
                               (rules.power_of_two && !is_power_of_two(sector_size));
    if (out_of_bounds || (sector_size > max_sector_size && !force)) {
        format_monitor_error(monitor, rules.out_of_bounds_message, static_cast<unsigned long>(sector_size));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    if (sector_size > max_sector_size) {
        format_monitor_warning(monitor, rules.out_of_bounds_message, static_cast<unsigned long>(sector_size));
    }
    return QFS_OK;
}

// A specified sector count must lie between the engine's minimum and the volume's sectors.
qfs_result apply_sector_count(uint64_t wanted, uint64_t min_volume_bytes, const format_monitor *monitor,
                              format_sector_counts &counts) {
    const uint64_t minimum = min_volume_bytes / counts.sector_size;
    if (wanted < minimum) {
        format_monitor_error(monitor, "Specified sector count (%llu) is smaller than the minimum allowed (%lu).",
                             static_cast<unsigned long long>(wanted), static_cast<unsigned long>(minimum));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    if (wanted > counts.volume_sectors) {
        format_monitor_error(monitor,
                             "Specified sector count (%llu) is larger than the sector count of the volume (%llu).",
                             static_cast<unsigned long long>(wanted),
                             static_cast<unsigned long long>(counts.volume_sectors));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    counts.volume_sectors = wanted;
    return QFS_OK;
}

} // namespace

qfs_result format_query_device_characteristics(qfs_device *device, bool assume_512_on_failure,
                                               const uint16_t *in_sector_size, uint32_t *out_sector_size,
                                               uint64_t *out_sector_count, const format_monitor *monitor) {
    uint32_t sector_size = 0;
    qfs_result r = qfs_device_get_sector_size(device, &sector_size);
    if (r != QFS_OK) {
        if (in_sector_size != nullptr) {
            sector_size = *in_sector_size;
        } else if (assume_512_on_failure) {
            format_monitor_warning(monitor, "Failed to get device sector size. Assuming 512 byte sectors.");
            sector_size = 512;
        } else {
            format_monitor_error(monitor, "Failed to get device sector size: %s", qfs_error_text(r));
            return r;
        }
    }
    uint64_t sector_count = 0;
    r = qfs_device_get_size_in_sectors(device, sector_size, &sector_count);
    if (r != QFS_OK) {
        format_monitor_error(monitor, "Failed to get device size: %s", qfs_error_text(r));
        return r;
    }
    *out_sector_size = sector_size;
    *out_sector_count = sector_count;
    return QFS_OK;
}

qfs_result format_settle_sector_size(const format_sector_rules &rules, bool force, uint32_t device_sector_size,
                                     uint64_t device_sector_count, const uint16_t *in_sector_size,
                                     const uint64_t *in_sector_count, const uint64_t *card_partition_sectors,
                                     const format_monitor *monitor, format_sector_counts *out_counts) {
    format_sector_counts counts{device_sector_size, device_sector_count, device_sector_count};
    qfs_result r = QFS_OK;
    if (in_sector_size != nullptr && *in_sector_size != counts.sector_size) {
        r = translate_sector_size(*in_sector_size, force, monitor, counts);
        if (r != QFS_OK) return r;
    }
    // The card's partition is counted in 512-byte sectors.
    if (card_partition_sectors != nullptr) {
        counts.volume_sectors = *card_partition_sectors * 512 / counts.sector_size;
    }
    r = check_bounds(rules, counts.sector_size, force, monitor);
    if (r != QFS_OK) return r;
    if (in_sector_count != nullptr && *in_sector_count != counts.volume_sectors) {
        r = apply_sector_count(*in_sector_count, rules.min_volume_bytes, monitor, counts);
        if (r != QFS_OK) return r;
    }
    format_monitor_info(monitor, "Sector size: %lu bytes", static_cast<unsigned long>(counts.sector_size));
    format_monitor_info(monitor, "Volume size: %llu sectors (%llu bytes)",
                        static_cast<unsigned long long>(counts.volume_sectors),
                        static_cast<unsigned long long>(counts.volume_sectors * counts.sector_size));
    *out_counts = counts;
    return QFS_OK;
}
