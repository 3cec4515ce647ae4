// The checks of a FAT format's options before the layout: the label, option
// conflicts, the card record, the cluster size, the CHS geometry and the
// sector size and count.
#include "fat/fat_ondisk.h"
#include "fat/format_plan_steps.h"
#include "fat/util.h"
#include "layout/format_sectors.h"
#include "support/qfs_logging.h"

namespace {

constexpr qfs_result invalid_argument = QFS_ERR_SYS_INVALID_ARGUMENT;
constexpr uint32_t min_cluster_size = 512;
constexpr uint32_t max_cluster_size = 33554432;
// The smallest volume a caller may ask for by sector count.
constexpr uint64_t min_volume_bytes = 65536;
// The boot sector holds heads and sectors per track in 16 bits; 0 describes no geometry.
constexpr uint32_t max_geometry_value = 65535;

bool is_power_of_two(uint64_t value) { return value != 0 && (value & (value - 1)) == 0; }

template <typename T> std::optional<T> optional_of(const T *value) {
    return value != nullptr ? std::optional<T>(*value) : std::nullopt;
}

// One CHS value: the device's (or the assumed one when it cannot tell), or the caller's when they differ under force.
struct geometry_value {
    qfs_result device_result;
    uint32_t device_value;
    std::optional<uint16_t> wish;
    uint32_t assumed;
    const char *assumed_message;
    const char *mismatch_message;
    const char *invalid_message;
};

qfs_result settle_geometry_value(const geometry_value &v, bool force, const format_monitor *monitor,
                                 uint16_t *out_value) {
    uint32_t value = v.device_value;
    // A device that answers 0 describes no geometry either.
    if (v.device_result != QFS_OK || value == 0) {
        format_monitor_warning(monitor, v.assumed_message,
                               v.device_result != QFS_OK ? qfs_error_text(v.device_result)
                                                         : "No geometry reported by the device.");
        value = v.assumed;
    }
    if (v.wish && *v.wish != value) {
        format_monitor_warning(monitor, v.mismatch_message, static_cast<unsigned long>(*v.wish),
                               static_cast<unsigned long>(value), fat_plan_override_choice(force));
        if (force) value = *v.wish;
    }
    if (value == 0 || value > max_geometry_value) {
        format_monitor_error(monitor, v.invalid_message, static_cast<unsigned long>(value));
        return invalid_argument;
    }
    *out_value = static_cast<uint16_t>(value);
    return QFS_OK;
}

} // namespace

qfs_result fat_format_check_request(const fat_format_request &request, const format_monitor *monitor) {
    if (request.volume_name != nullptr && request.volume_name_length > fat_ondisk::label_length) {
        format_monitor_error(monitor, "Invalid volume name length: %hhu (maximum allowed: 11)",
                             request.volume_name_length);
        return invalid_argument;
    }
    if (request.volume_name != nullptr &&
        !fat_util_label_is_valid(request.codepage, request.volume_name, request.volume_name_length)) {
        format_monitor_error(monitor, "Invalid characters in volume name.");
        return invalid_argument;
    }
    if (request.cluster_size != nullptr && request.sectors_per_cluster != nullptr) {
        format_monitor_error(monitor, "Conflicting options: Both cluster size and sectors per cluster specified.");
        return invalid_argument;
    }
    if (request.tca_partitioning_only && !request.tca_whole) {
        format_monitor_error(monitor, "Conflicting options: tca_whole must be enabled on a partitioning-only run.");
        return invalid_argument;
    }
    return QFS_OK;
}

const char *fat_plan_override_choice(bool force) {
    return force ? "specified value due to force mode" : "operating system provided value (use force mode to override)";
}

fat_wishes fat_plan_wishes_of(const fat_format_request &request) {
    fat_wishes w;
    w.fat_type = optional_of(request.fat_type);
    w.root_directory_entries = optional_of(request.root_directory_entries);
    w.heads = optional_of(request.heads);
    w.sectors_per_track = optional_of(request.sectors_per_track);
    w.sector_size = optional_of(request.sector_size);
    w.sector_count = optional_of(request.sector_count);
    w.cluster_size = optional_of(request.cluster_size);
    w.sectors_per_cluster = optional_of(request.sectors_per_cluster);
    w.partition_start_sector = optional_of(request.partition_start_sector);
    w.alignment = optional_of(request.alignment);
    return w;
}

qfs_result fat_plan_apply_card_record(const fat_tca_record &card, const format_monitor *monitor,
                                      fat_wishes *inout_wishes) {
    fat_wishes &w = *inout_wishes;
    const tca_param &row = card.row;
    const uint32_t cluster_size = row.sectors_per_cluster * TCA_SECTOR_SIZE;
    // The FAT type that would choose a wider alignment is settled only later, so the card's alignment is one sector.
    const uint32_t alignment = TCA_SECTOR_SIZE;
    if (w.partition_start_sector && *w.partition_start_sector != card.partition_start_sector) {
        format_monitor_error(monitor, "Error: Invalid specified partition start sector (%llu) for TCA formatting.",
                             static_cast<unsigned long long>(*w.partition_start_sector));
        return invalid_argument;
    }
    if (w.alignment && *w.alignment != alignment) {
        format_monitor_error(monitor, "Error: Invalid specified alignment (%lu) for TCA formatting.",
                             static_cast<unsigned long>(*w.alignment));
        return invalid_argument;
    }
    if (w.sector_size && *w.sector_size != TCA_SECTOR_SIZE) {
        format_monitor_error(monitor, "Error: Invalid specified sector size (%hu) for TCA formatting.", *w.sector_size);
        return invalid_argument;
    }
    if (w.sectors_per_cluster && static_cast<uint64_t>(*w.sectors_per_cluster) * TCA_SECTOR_SIZE != cluster_size) {
        format_monitor_error(monitor,
                             "Error: Invalid specified number of sectors per cluster (%lu) for TCA formatting.",
                             static_cast<unsigned long>(*w.sectors_per_cluster));
        return invalid_argument;
    }
    if (w.cluster_size && *w.cluster_size != cluster_size) {
        format_monitor_error(monitor, "Error: Invalid specified cluster size (%lu) for TCA formatting.",
                             static_cast<unsigned long>(*w.cluster_size));
        return invalid_argument;
    }
    if (w.fat_type && *w.fat_type != card.fat_type) {
        format_monitor_error(monitor, "Error: Invalid specified FAT type (%hhu) for TCA formatting.", *w.fat_type);
        return invalid_argument;
    }
    if (w.heads && *w.heads != row.heads) {
        format_monitor_error(monitor, "Error: Invalid specified number of heads (%hu) for TCA formatting.", *w.heads);
        return invalid_argument;
    }
    if (w.sectors_per_track && *w.sectors_per_track != row.sectors_per_track) {
        format_monitor_error(monitor, "Error: Invalid specified number of sectors per track (%hu) for TCA formatting.",
                             *w.sectors_per_track);
        return invalid_argument;
    }
    w.partition_start_sector = card.partition_start_sector;
    w.alignment = alignment;
    w.sector_size = static_cast<uint16_t>(TCA_SECTOR_SIZE);
    if (!w.cluster_size && !w.sectors_per_cluster) w.cluster_size = cluster_size;
    w.fat_type = card.fat_type;
    w.heads = row.heads;
    w.sectors_per_track = row.sectors_per_track;
    return QFS_OK;
}

qfs_result fat_plan_check_cluster_size(const fat_wishes &wishes, const format_monitor *monitor) {
    if (!wishes.cluster_size) return QFS_OK;
    const uint32_t cluster_size = *wishes.cluster_size;
    if (cluster_size < min_cluster_size || cluster_size > max_cluster_size) {
        format_monitor_error(monitor, "Invalid cluster size (%lu). (Out of range.)",
                             static_cast<unsigned long>(cluster_size));
        return invalid_argument;
    }
    if (!is_power_of_two(cluster_size)) {
        format_monitor_error(monitor, "Invalid cluster size (%lu). (Not a power of 2.)",
                             static_cast<unsigned long>(cluster_size));
        return invalid_argument;
    }
    return QFS_OK;
}

qfs_result fat_plan_settle_geometry(const fat_wishes &wishes, const fat_device_facts &facts, bool force,
                                    const format_monitor *monitor, fat_layout *inout_layout) {
    const geometry_value sectors_per_track{
        facts.sectors_per_track_result,
        facts.sectors_per_track,
        wishes.sectors_per_track,
        63,
        "%s Assuming 63.",
        "Specified number of sectors per track (%lu) does not match the number of sectors per track reported by the "
        "operating system (%lu). Using %s.",
        "Invalid number of sectors per track for a FAT filesystem (%lu)."};
    const geometry_value heads{
        facts.heads_result,
        facts.heads,
        wishes.heads,
        255,
        "%s Assuming 255.",
        "Specified number of heads (%lu) does not match the number of heads reported by the operating system (%lu). "
        "Using %s.",
        "Invalid number of heads for a FAT filesystem (%lu)."};
    const qfs_result r = settle_geometry_value(sectors_per_track, force, monitor, &inout_layout->sectors_per_track);
    if (r != QFS_OK) return r;
    return settle_geometry_value(heads, force, monitor, &inout_layout->heads);
}

qfs_result fat_plan_settle_sector_size(const fat_wishes &wishes, const fat_device_facts &facts,
                                       const fat_tca_record *whole_card, bool force, const format_monitor *monitor,
                                       fat_layout *inout_layout) {
    // A FAT boot sector describes its sector size by a shift, so it must be a power of two.
    const format_sector_rules rules{"Sector size out of bounds for FAT: %lu", true, min_volume_bytes};
    const uint16_t *sector_size = wishes.sector_size ? &*wishes.sector_size : nullptr;
    const uint64_t *sector_count = wishes.sector_count ? &*wishes.sector_count : nullptr;
    const uint64_t *card_partition = whole_card ? &whole_card->partition_sector_count : nullptr;
    format_sector_counts counts{};
    const qfs_result r = format_settle_sector_size(rules, force, facts.sector_size, facts.sector_count, sector_size,
                                                   sector_count, card_partition, monitor, &counts);
    if (r != QFS_OK) return r;
    inout_layout->sector_size = counts.sector_size;
    inout_layout->device_sector_count = counts.device_sectors;
    inout_layout->sector_count = counts.volume_sectors;
    return QFS_OK;
}
