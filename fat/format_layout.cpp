// The FAT layout plan: device queries, then FAT type and cluster size,
// partition start, alignment, reserved sectors and root directory, the
// search, the cluster limits, and the final sizes.
#include "fat/format_layout.h"

#include <algorithm>

#include "fat/fat_ondisk.h"
#include "fat/format_limits.h"
#include "fat/format_plan_steps.h"
#include "layout/format_sectors.h"
#include "support/qfs_logging.h"

namespace {

constexpr qfs_result invalid_argument = QFS_ERR_SYS_INVALID_ARGUMENT;
// Default alignment: 1 MiB on volumes beyond 4 GiB - 1 byte, else 64 KiB.
constexpr uint64_t large_volume_bytes = 4294967295u;
constexpr uint32_t large_volume_alignment = 1048576;
constexpr uint32_t small_volume_alignment = 65536;
constexpr uint32_t default_root_entries = 512;
constexpr uint8_t number_of_fats = 2;
// Reserved sectors in front of the first FAT, before alignment: FAT12/16 the boot sector alone,
// FAT32 its boot region, backup and room to spare, or 9 on a card whose record asks for FAT32.
constexpr uint32_t fat16_base_reserved = 1;
constexpr uint32_t fat32_base_reserved = 32;
constexpr uint32_t fat32_card_base_reserved = 9;
constexpr uint64_t reserved_limit = 65536; // the boot sector holds the count in 16 bits
// Where FAT32 keeps its backup boot sector.
constexpr uint16_t fat32_backup_boot_sector = 6;
constexpr uint32_t fat32_own_backup_from = 9;

uint64_t round_up(uint64_t value, uint64_t multiple) { return (value + multiple - 1) / multiple * multiple; }

// What the plan carries from step to step besides the layout itself.
struct plan_state {
    fat_wishes wishes;
    const fat_tca_record *card;
    bool force;
    bool fat_type_by_user;
    bool cluster_size_by_user;
    bool root_entries_by_user;
    uint32_t in_range;
    uint64_t cluster_count; // as the search found it, before it is known to fit 32 bits
};

// The FAT type from the size unless fixed, and the cluster size from the caller or the default tables.
qfs_result settle_type_and_cluster_size(plan_state &p, const format_monitor *monitor, fat_layout &layout) {
    const uint32_t ss = layout.sector_size;
    const uint64_t units = static_cast<uint64_t>(ss / 512) * layout.sector_count;
    p.fat_type_by_user = p.wishes.fat_type.has_value();
    if (p.fat_type_by_user) {
        layout.fat_type = *p.wishes.fat_type;
    } else {
        layout.fat_type = units > fat32_above_units ? 32 : units < fat_undecided_below_units ? 0 : 16;
    }
    p.cluster_size_by_user = p.wishes.cluster_size || p.wishes.sectors_per_cluster;
    if (!p.cluster_size_by_user) {
        const qfs_result r = fat_format_get_default_sectors_per_cluster(p.fat_type_by_user, ss, layout.sector_count,
                                                                        &layout.fat_type, &layout.sectors_per_cluster);
        if (r != QFS_OK) return r;
    } else if (p.wishes.cluster_size) {
        layout.sectors_per_cluster = *p.wishes.cluster_size / ss;
    } else {
        layout.sectors_per_cluster = *p.wishes.sectors_per_cluster;
    }
    if (4294967295u / ss < layout.sectors_per_cluster) {
        QFS_LOG_CRITICAL(
            "Internal error: Cluster size would overflow u32 (%llu > %lu). Earlier sanity checks should have "
            "prevented this.",
            static_cast<unsigned long long>(layout.sectors_per_cluster) * ss, 4294967295ul);
        return QFS_ERR_SYS_INTERNAL;
    }
    if (p.wishes.cluster_size && *p.wishes.cluster_size < ss) {
        format_monitor_error(monitor, "Invalid cluster size (smaller than one sector).");
        return invalid_argument;
    }
    layout.cluster_size = layout.sectors_per_cluster * ss;
    return QFS_OK;
}

// The volume's first sector on the medium: the device's word, unless it has none or force overrides it.
uint64_t settle_partition_start(const plan_state &p, const fat_device_facts &facts, const format_monitor *monitor) {
    const std::optional<uint64_t> &wish = p.wishes.partition_start_sector;
    if (facts.partition_start_result != QFS_OK) {
        if (wish) return *wish;
        format_monitor_warning(monitor, "Could not get partition offset of device. Setting to 0.");
        return 0;
    }
    const uint64_t reported = facts.partition_start_sector;
    if (!wish || *wish == reported) return reported;
    if (reported == 0) return *wish;
    format_monitor_warning(monitor,
                           "Specified partition start sector (%llu) does not match the partition start sector "
                           "reported by the operating system (%llu). Using %s.",
                           static_cast<unsigned long long>(*wish), static_cast<unsigned long long>(reported),
                           fat_plan_override_choice(p.force));
    return p.force ? *wish : reported;
}

qfs_result settle_alignment(const plan_state &p, const format_monitor *monitor, fat_layout &layout) {
    const uint32_t ss = layout.sector_size;
    if (p.wishes.alignment) {
        layout.alignment = *p.wishes.alignment;
    } else {
        layout.alignment =
            layout.sector_count * ss > large_volume_bytes ? large_volume_alignment : small_volume_alignment;
        // A cluster size of 0 is refused by the search that follows.
        if (layout.cluster_size != 0 && layout.alignment % layout.cluster_size != 0)
            layout.alignment = layout.cluster_size;
    }
    if (layout.alignment < ss || layout.alignment % ss != 0) {
        format_monitor_error(monitor, "Alignment (%lu) is not a multiple of sector size (%lu).",
                             static_cast<unsigned long>(layout.alignment), static_cast<unsigned long>(ss));
        return invalid_argument;
    }
    return QFS_OK;
}

// Enough reserved sectors for the type, grown until the first FAT starts on an alignment boundary of the medium.
qfs_result settle_reserved_sectors(const plan_state &p, const format_monitor *monitor, fat_layout &layout) {
    uint64_t reserved = fat16_base_reserved;
    if (layout.fat_type == 32) {
        reserved = p.card != nullptr && p.card->fat_type == 32 ? fat32_card_base_reserved : fat32_base_reserved;
    }
    const uint64_t alignment_sectors = layout.alignment / layout.sector_size;
    reserved = round_up(layout.partition_start + reserved, alignment_sectors) - layout.partition_start;
    if (reserved >= reserved_limit) {
        format_monitor_error(monitor, "Alignment is too large for a FAT filesystem with this sector size.");
        return invalid_argument;
    }
    layout.reserved_sectors = static_cast<uint32_t>(reserved);
    return QFS_OK;
}

qfs_result run_search(plan_state &p, const format_monitor *monitor, fat_layout &layout) {
    p.root_entries_by_user = p.wishes.root_directory_entries.has_value();
    layout.root_directory_entries =
        layout.fat_type == 32 ? 0 : p.wishes.root_directory_entries.value_or(default_root_entries);
    uint64_t reserved = 0, fat_sectors = 0;
    const qfs_result r = fat_format_dynamically_determine_sectors_per_cluster(
        layout.alignment / layout.sector_size, layout.partition_start, layout.boundary_unit, p.fat_type_by_user,
        layout.sector_count, layout.sector_size, layout.reserved_sectors, p.root_entries_by_user,
        layout.root_directory_entries, p.cluster_size_by_user, layout.sectors_per_cluster, layout.number_of_fats,
        layout.fat_type, &p.in_range, &layout.sectors_per_cluster, &p.cluster_count, &layout.root_directory_sectors,
        &layout.fat_type, &reserved, &fat_sectors, monitor);
    if (r != QFS_OK) return r;
    layout.cluster_size = layout.sectors_per_cluster * layout.sector_size;
    // Counts beyond the types' limits are refused next; what is kept fits the boot sector's fields.
    layout.cluster_count = static_cast<uint32_t>(std::min<uint64_t>(p.cluster_count, UINT32_MAX));
    layout.reserved_sectors = static_cast<uint32_t>(std::min<uint64_t>(reserved, UINT32_MAX));
    layout.fat_sectors = static_cast<uint32_t>(std::min<uint64_t>(fat_sectors, UINT32_MAX));
    return QFS_OK;
}

// A count outside the type's legal range always fails; outside the recommended range
// only without force, and not at all on a card that follows its record.
qfs_result check_cluster_limits(const plan_state &p, const fat_type_limits &limits, uint64_t count,
                                const format_monitor *monitor) {
    if (p.in_range == 0 && count < limits.hard_min) {
        format_monitor_error(monitor,
                             "Number of clusters are not enough to make a\n\t%s volume (Min expected: %lu, Got: "
                             "%lu).\n\tPlease try by increasing volume size.",
                             limits.name, static_cast<unsigned long>(limits.hard_min),
                             static_cast<unsigned long>(count));
        return invalid_argument;
    }
    if (p.in_range == 0 && count > limits.hard_max) {
        format_monitor_error(
            monitor,
            "Volume size is too big to be formatted as %s\n\t(Max clusters lim: %lu, Calculated: "
            "%lu).\n\tPlease try by reducing volume size or by\n\tincreasing sectors per cluster value.",
            limits.name, static_cast<unsigned long>(limits.hard_max), static_cast<unsigned long>(count));
        return invalid_argument;
    }
    const bool below = count < limits.recommended_min;
    const bool above = count > limits.recommended_max;
    if ((!below && !above) || p.card != nullptr) return QFS_OK;
    const unsigned long recommended = below ? limits.recommended_min : limits.recommended_max;
    if (!p.force) {
        format_monitor_error(monitor,
                             below ? "Number of clusters is less than the recommended minimum amount of clusters for a "
                                     "%s volume: %lu (minimum recommended: %lu) Specify force mode to override this "
                                     "check."
                                   : "Number of clusters is larger than the recommended maximum amount of clusters "
                                     "for a %s volume: %lu (maximum recommended: %lu) Specify force mode to override "
                                     "this check.",
                             limits.name, static_cast<unsigned long>(count), recommended);
        return invalid_argument;
    }
    format_monitor_warning(monitor,
                           below ? "Number of clusters is less than the recommended minimum amount of clusters for a "
                                   "%s volume: %lu (minimum recommended: %lu) Continuing due to force mode..."
                                 : "Number of clusters is larger than the recommended maximum amount of clusters for "
                                   "a %s volume: %lu (maximum recommended: %lu) Continuing due to force mode...",
                           limits.name, static_cast<unsigned long>(count), recommended);
    return QFS_OK;
}

// The root directory fills the gap up to the aligned data area, unless the caller sized it.
qfs_result settle_root_directory(const plan_state &p, const format_monitor *monitor, fat_layout &layout) {
    const uint32_t ss = layout.sector_size;
    if (layout.fat_type == 32) {
        layout.root_directory_entries = 0;
        layout.root_directory_sectors = 0;
        return QFS_OK;
    }
    if (p.root_entries_by_user) {
        if (layout.root_directory_entries % (ss / fat_ondisk::dentry_size) != 0) {
            format_monitor_error(monitor,
                                 "Invalid root directory entries: %hu, set by user.\n\tPlease select number of "
                                 "entries such that, root\n\tdirectory results in an integral multiple of\n\tsector "
                                 "size: %hu bytes.",
                                 static_cast<unsigned short>(layout.root_directory_entries),
                                 static_cast<unsigned short>(ss));
            return invalid_argument;
        }
        return QFS_OK;
    }
    layout.root_directory_sectors =
        static_cast<uint32_t>(round_up(layout.root_directory_sectors, layout.alignment / ss));
    layout.root_directory_entries = layout.root_directory_sectors * (ss / fat_ondisk::dentry_size);
    return QFS_OK;
}

// The limits, the root directory, the backup boot sector and the minimum size.
qfs_result finish_layout(const plan_state &p, const format_monitor *monitor, fat_layout &layout) {
    const fat_type_limits *limits = fat_limits_of(layout.fat_type);
    if (limits == nullptr) return QFS_ERR_SYS_INTERNAL; // the search refuses any other type
    qfs_result r = check_cluster_limits(p, *limits, p.cluster_count, monitor);
    if (r != QFS_OK) return r;
    format_monitor_info(monitor, "Cluster size: %lu bytes", static_cast<unsigned long>(layout.cluster_size));
    if (layout.cluster_count == 0) {
        format_monitor_error(monitor, "Failed to compute cluster count. Aborting.");
        return invalid_argument;
    }
    format_monitor_info(monitor, "FAT: %lu bits", static_cast<unsigned long>(layout.fat_type));
    if (layout.alignment % layout.cluster_size != 0) {
        format_monitor_warning(monitor, "Alignment (%lu) is not a multiple of the cluster size (%lu).",
                               static_cast<unsigned long>(layout.alignment),
                               static_cast<unsigned long>(layout.cluster_size));
    }
    r = settle_root_directory(p, monitor, layout);
    if (r != QFS_OK) return r;
    if (layout.fat_type == 32) {
        const uint32_t reserved = layout.reserved_sectors;
        layout.backup_boot_sector = reserved >= fat32_own_backup_from      ? fat32_backup_boot_sector
                                    : reserved >= fat32_backup_boot_sector ? static_cast<uint16_t>(reserved - 1)
                                                                           : 0;
    }
    const uint64_t required = static_cast<uint64_t>(layout.reserved_sectors) + 2ull * layout.fat_sectors;
    if (layout.sector_count < required) {
        format_monitor_error(monitor,
                             "Device is too small to hold a FAT file system (device size: %llu B, required: %llu B).",
                             static_cast<unsigned long long>(layout.sector_count * layout.sector_size),
                             static_cast<unsigned long long>(required * layout.sector_size));
        return QFS_ERR_SYS_NO_SPACE;
    }
    return QFS_OK;
}

} // namespace

qfs_result fat_format_query_device_characteristics(qfs_device *device, bool relaxed, const uint16_t *in_sector_size,
                                                   uint32_t *out_sector_size, uint64_t *out_sector_count,
                                                   const format_monitor *monitor) {
    return format_query_device_characteristics(device, relaxed, in_sector_size, out_sector_size, out_sector_count,
                                               monitor);
}

qfs_result fat_format_query_device(qfs_device *device, const fat_format_request &request, const format_monitor *monitor,
                                   fat_device_facts *out_facts) {
    fat_device_facts facts{};
    const bool relaxed = request.force || request.tca_strict || request.tca_whole;
    const qfs_result r = fat_format_query_device_characteristics(device, relaxed, request.sector_size,
                                                                 &facts.sector_size, &facts.sector_count, monitor);
    if (r != QFS_OK) {
        format_monitor_error(monitor, "Failed to retrieve necessary device characteristics: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    // The layout decides what stands in for an answer the device cannot give.
    facts.partition_start_result = qfs_device_get_partition_start_sector(device, &facts.partition_start_sector);
    facts.heads_result = qfs_device_get_heads(device, &facts.heads);
    facts.sectors_per_track_result = qfs_device_get_sectors_per_track(device, &facts.sectors_per_track);
    *out_facts = facts;
    return QFS_OK;
}

qfs_result fat_format_plan_layout(const fat_format_request &request, const fat_device_facts &facts,
                                  const fat_tca_record *card, const format_monitor *monitor, fat_layout *out_layout) {
    if (out_layout == nullptr) return QFS_ERR_INVALID_PARAMETER;
    plan_state p{fat_plan_wishes_of(request), card, request.force, false, false, false, 0, 0};
    qfs_result r = QFS_OK;
    if (card != nullptr) {
        r = fat_plan_apply_card_record(*card, monitor, &p.wishes);
        if (r != QFS_OK) return r;
    }
    r = fat_plan_check_cluster_size(p.wishes, monitor);
    if (r != QFS_OK) return r;
    fat_layout layout{};
    layout.number_of_fats = number_of_fats;
    layout.card_record = card != nullptr;
    if (card != nullptr) layout.card = *card;
    layout.boundary_unit = card != nullptr ? card->row.boundary_unit : 0;
    r = fat_plan_settle_geometry(p.wishes, facts, request.force, monitor, &layout);
    if (r != QFS_OK) return r;
    r = fat_plan_settle_sector_size(p.wishes, facts, request.tca_whole ? card : nullptr, request.force, monitor,
                                    &layout);
    if (r != QFS_OK) return r;
    r = settle_type_and_cluster_size(p, monitor, layout);
    if (r != QFS_OK) return r;
    layout.partition_start = settle_partition_start(p, facts, monitor);
    r = settle_alignment(p, monitor, layout);
    if (r == QFS_OK) r = settle_reserved_sectors(p, monitor, layout);
    if (r == QFS_OK) r = run_search(p, monitor, layout);
    if (r == QFS_OK) r = finish_layout(p, monitor, layout);
    if (r != QFS_OK) return r;
    *out_layout = layout;
    return QFS_OK;
}

qfs_result fat_format_decide_layout(qfs_device *device, const fat_format_request &request,
                                    const format_monitor *monitor, fat_layout *out_layout) {
    qfs_result r = fat_format_check_request(request, monitor);
    if (r != QFS_OK) return r;
    fat_device_facts facts{};
    r = fat_format_query_device(device, request, monitor, &facts);
    if (r != QFS_OK) return r;
    if (!request.tca_strict && !request.tca_whole) {
        return fat_format_plan_layout(request, facts, nullptr, monitor, out_layout);
    }
    fat_tca_record card{};
    r = fat_format_get_tca_param(facts.sector_size * facts.sector_count / TCA_SECTOR_SIZE, &card.row, &card.fat_type,
                                 &card.partition_start_sector, &card.partition_sector_count, request.tca_whole,
                                 request.tca_relax, request.tca_align_to_cylinder, monitor);
    if (r != QFS_OK) return r;
    return fat_format_plan_layout(request, facts, &card, monitor, out_layout);
}
