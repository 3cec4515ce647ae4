// Choosing FAT type and cluster size: the default cluster tables, the FAT
// size of one candidate, and the search among FAT12, FAT16 and FAT32.
#include <algorithm>
#include <iterator>

#include "fat/format_layout.h"
#include "fat/format_limits.h"
#include "support/qfs_logging.h"

namespace {

// Cluster size when the type is fixed or the volume is tiny; the search grows it as needed.
constexpr uint32_t starting_sectors_per_cluster = 4;
// Without a cluster size from the caller the search tries up to 64 KiB clusters at 512-byte sectors.
constexpr uint32_t largest_searched_sectors_per_cluster = 128;
// The boundary unit from which a fixed FAT16 type gets the TNB placement.
constexpr uint32_t tnb_boundary_unit = 8192;
// The FATs of a boundary-placed layout stay behind at least this many reserved sectors.
constexpr uint64_t boundary_min_reserved = 9;
// FAT32 keeps at least this many reserved sectors (boot region, backup, FSInfo).
constexpr uint64_t fat32_min_reserved = 32;
constexpr uint64_t fat32_own_reserved_below = 9;

struct cluster_size_row {
    uint64_t below_units; // first row whose bound exceeds the size applies
    uint32_t sectors_per_cluster;
};

// Sectors per cluster by size in 512-byte units, for FAT16 and FAT32.
constexpr cluster_size_row fat16_cluster_sizes[] = {
    {8400, 0},     // below 4.1 MB: left to FAT12, never reached here
    {32680, 2},    // up to 16 MB
    {262144, 4},   // up to 128 MiB
    {524288, 8},   // up to 256 MiB
    {1048576, 16}, // up to 512 MiB
};
constexpr uint32_t fat16_beyond_table = 16; // exactly 512 MiB
constexpr cluster_size_row fat32_cluster_sizes[] = {
    {66600, 0},       // below 32.5 MiB: too small for FAT32, never reached here
    {532480, 1},      // up to 260 MiB
    {16777216, 8},    // up to 8 GiB
    {33554432, 16},   // up to 16 GiB
    {67108864, 32},   // up to 32 GiB
    {4294967295, 64}, // up to 2 TiB
};
constexpr uint32_t fat32_beyond_table = 64; // 2 TiB and beyond

template <size_t N>
uint32_t table_sectors_per_cluster(const cluster_size_row (&rows)[N], uint64_t units, uint32_t beyond) {
    const auto row =
        std::find_if(std::begin(rows), std::end(rows), [&](const auto &r) { return r.below_units > units; });
    return row == std::end(rows) ? beyond : row->sectors_per_cluster;
}

uint64_t round_up(uint64_t value, uint64_t multiple) {
    if (multiple == 0) return value;
    return (value + multiple - 1) / multiple * multiple;
}

uint64_t div_round_up(uint64_t value, uint64_t divisor) { return value / divisor + (value % divisor != 0); }

uint64_t minus_or_zero(uint64_t value, uint64_t taken) { return value > taken ? value - taken : 0; }

struct candidate {
    uint64_t count = 0;
    uint64_t fat_sectors = 0;
    uint64_t max_clusters = 0;
    bool survived = false;
    // A rejected count takes no part in comparisons between the types.
    uint64_t surviving_count() const { return survived ? count : 0; }
};

// The inputs and the state of one search.
struct search {
    uint32_t alignment;
    uint64_t hidden;
    uint32_t boundary;
    uint64_t device;
    uint32_t sector_size;
    uint64_t reserved;
    bool root_by_user;
    uint32_t root_sectors;
    uint8_t nr_fats;
    uint8_t fat_type;
    uint32_t spc;
    uint32_t max_spc;
    candidate c12, c16, c32;

    // FAT12/16 leave room for the root directory, grown to the alignment unless the user sized it.
    uint64_t available_fat16() const {
        const uint64_t root = root_by_user ? root_sectors : round_up(root_sectors, alignment);
        return minus_or_zero(device, reserved + root);
    }
    // FAT32 keeps at least 32 reserved sectors ending on an alignment boundary, unless it has its own count.
    uint64_t available_fat32() const {
        if (reserved < fat32_own_reserved_below) {
            return minus_or_zero(device, round_up(hidden + fat32_min_reserved, alignment) - hidden);
        }
        return minus_or_zero(device, reserved);
    }
    candidate calculate(uint8_t bits, uint64_t available, uint32_t boundary_unit) const {
        candidate c;
        fat_format_calculate_fat_size(alignment, hidden, boundary_unit, available, sector_size, spc, nr_fats, bits,
                                      &c.count, &c.fat_sectors, &c.max_clusters);
        return c;
    }
    candidate &of_type(uint8_t bits) { return bits == 12 ? c12 : bits == 16 ? c16 : c32; }
};

bool above_limit(const candidate &c, const fat_type_limits &limits) {
    return c.count > std::min<uint64_t>(c.max_clusters, limits.hard_max);
}

constexpr const fat_type_limits &fat12 = fat_limits_table[0];
constexpr const fat_type_limits &fat16 = fat_limits_table[1];
constexpr const fat_type_limits &fat32 = fat_limits_table[2];

// A FAT16 or FAT32 type that the defaults chose is kept unless its count falls short of the type's minimum.
bool keep_preset(search &s) {
    if (s.fat_type == 16) {
        s.c16 = s.calculate(16, minus_or_zero(s.device, s.reserved + round_up(s.root_sectors, s.alignment)), 0);
        return s.c16.count == 0 || s.c16.count >= fat16.hard_min;
    }
    if (s.fat_type == 32) {
        s.c32 = s.calculate(32, minus_or_zero(s.device, s.reserved), 0);
        return s.c32.count == 0 || s.c32.count >= fat32.hard_min;
    }
    return false;
}

void search_automatically(search &s) {
    for (; s.spc != 0 && s.spc <= s.max_spc; s.spc *= 2) {
        s.c12 = s.calculate(12, s.available_fat16(), 0);
        s.c12.survived = !above_limit(s.c12, fat12);
        // A fitting FAT12 wins over any preset type.
        if (s.c12.survived && s.fat_type != 0) s.fat_type = 12;
        s.c16 = s.calculate(16, s.available_fat16(), s.boundary);
        s.c16.survived = !above_limit(s.c16, fat16) && s.c16.count >= fat16.hard_min;
        s.c32 = s.calculate(32, s.available_fat32(), s.boundary);
        s.c32.survived = !(s.c32.count != 0 && s.c32.count < fat32.hard_min) && !above_limit(s.c32, fat32);
        if (s.c12.survived && (s.fat_type == 0 || s.fat_type == 12)) break;
        if (s.c16.survived && (s.fat_type == 0 || s.fat_type == 16)) break;
        if (s.c32.survived && s.fat_type == 32) break;
    }
    if (s.spc == 0 || s.spc > s.max_spc) s.spc = s.max_spc;
    if (s.fat_type == 0 && (s.c12.survived || s.c16.survived)) {
        s.fat_type = s.c16.surviving_count() > s.c12.surviving_count() ? 16 : 12;
    } else if (s.c32.survived) {
        s.fat_type = 32;
        s.reserved = s.device - s.available_fat32();
    }
}

// Reserved sectors that put the end of the FATs on a boundary unit of the
// card, one unit more when the FAT could not address the clusters behind it.
void place_on_boundary(search &s, const candidate &c, uint64_t entries_per_sector) {
    const uint64_t fats = c.fat_sectors * s.nr_fats;
    s.reserved = round_up(fats + boundary_min_reserved + s.hidden, s.boundary) - s.hidden - fats;
    if (minus_or_zero(s.device, s.reserved + fats) / s.spc > c.fat_sectors * entries_per_sector - 2) {
        s.reserved += s.boundary;
    }
}

// The type the user fixed: the smallest cluster size from the given one on whose count fits.
qfs_result search_fixed_type(search &s, const format_monitor *monitor, bool *out_found) {
    const fat_type_limits *limits = fat_limits_of(s.fat_type);
    if (limits == nullptr) {
        format_monitor_error(monitor, "FAT type incorrectly set by user.");
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    uint64_t last_rejected = 0;
    bool found = false;
    for (; s.spc != 0 && s.spc <= s.max_spc; s.spc *= 2) {
        bool last_pass = false;
        candidate c;
        if (s.fat_type == 16) {
            const uint32_t boundary = s.boundary >= tnb_boundary_unit ? s.boundary : 0;
            c = s.calculate(16, s.available_fat16(), boundary);
            if (boundary != 0) {
                QFS_TRACE("Special case: FAT16 in TNB layout");
                place_on_boundary(s, c, s.sector_size / 2);
                last_pass = true;
            }
        } else if (s.fat_type == 32) {
            c = s.calculate(32, s.available_fat32(), s.boundary);
            if (!above_limit(c, fat32) && s.boundary != 0) place_on_boundary(s, c, s.sector_size / 4);
        } else {
            c = s.calculate(12, s.available_fat16(), 0);
        }
        c.survived = !above_limit(c, *limits);
        s.of_type(s.fat_type) = c;
        if (c.survived) {
            found = true;
            break;
        }
        last_rejected = c.count;
        if (last_pass) break;
    }
    if (s.spc == 0 || s.spc > s.max_spc) s.spc = s.max_spc;
    if (!found) {
        format_monitor_error(
            monitor,
            "Volume size is too big to be formatted as %s\n\t(Max cluster limit: %lu, Calculated: "
            "%lu).\n\tPlease try by reducing volume size or by\n\tincreasing sectors per cluster value.",
            limits->name, static_cast<unsigned long>(limits->hard_max), static_cast<unsigned long>(last_rejected));
    }
    *out_found = found;
    return QFS_OK;
}

} // namespace

qfs_result fat_format_get_default_sectors_per_cluster(bool fat_type_fixed, uint32_t sector_size, uint64_t sector_count,
                                                      uint8_t *out_fat_type, uint32_t *out_sectors_per_cluster) {
    if (out_fat_type == nullptr || out_sectors_per_cluster == nullptr) return QFS_ERR_INVALID_PARAMETER;
    const uint64_t units = static_cast<uint64_t>(sector_size / 512) * sector_count;
    if (fat_type_fixed || units < fat_undecided_below_units) {
        *out_sectors_per_cluster = starting_sectors_per_cluster;
    } else if (units > fat32_above_units) {
        *out_fat_type = 32;
        *out_sectors_per_cluster = table_sectors_per_cluster(fat32_cluster_sizes, units, fat32_beyond_table);
    } else {
        *out_fat_type = 16;
        *out_sectors_per_cluster = table_sectors_per_cluster(fat16_cluster_sizes, units, fat16_beyond_table);
    }
    return QFS_OK;
}

void fat_format_calculate_fat_size(uint32_t alignment, uint64_t partition_start, uint32_t boundary_unit,
                                   uint64_t available_sectors, uint32_t sector_size, uint32_t sectors_per_cluster,
                                   uint8_t number_of_fats, uint8_t fat_bits, uint64_t *out_cluster_count,
                                   uint64_t *out_fat_sectors, uint64_t *out_max_clusters) {
    const uint64_t s = sector_size, c = sectors_per_cluster, f = number_of_fats, k = fat_bits;
    uint64_t n = available_sectors;
    // A first estimate of the clusters, and of the FATs that map them.
    const uint64_t estimated_clusters = (s * n * 8) / (k * f + c * s * 8);
    const uint32_t estimated_entries = static_cast<uint32_t>(estimated_clusters + 2);
    const uint64_t estimated_fats = f * div_round_up((k * estimated_entries + 7) / 8, s);
    if (boundary_unit != 0) {
        const uint64_t in_front = partition_start + estimated_fats + boundary_min_reserved;
        n = minus_or_zero(n, round_up(in_front, boundary_unit) - in_front);
    }
    const uint64_t entries = minus_or_zero(n, estimated_fats) / c + 2;
    const uint64_t fat_sectors = round_up(div_round_up((k * entries + 7) / 8, s), alignment);
    *out_fat_sectors = fat_sectors;
    *out_cluster_count = minus_or_zero(n, f * fat_sectors) / c;
    *out_max_clusters = minus_or_zero(s * fat_sectors * 8 / k, 2);
}

qfs_result fat_format_dynamically_determine_sectors_per_cluster(
    uint32_t alignment, uint64_t hidden_sectors, uint32_t boundary_unit_sectors, bool fat_type_by_user,
    uint64_t device_sector_count, uint32_t sector_size, uint64_t reserved_sectors, bool root_dir_entries_by_user,
    uint32_t root_directory_entries, bool sec_per_clus_by_user, uint32_t sectors_per_cluster, uint8_t nr_fats,
    uint8_t fat_type, uint32_t *out_in_range, uint32_t *out_sectors_per_cluster, uint64_t *out_cluster_count,
    uint32_t *out_root_directory_sectors, uint8_t *out_fat_type, uint64_t *out_reserved_sectors,
    uint64_t *out_fat_sectors, const format_monitor *message_handler) {
    QFS_TRACE("Entering: alignment=%lu hidden_sectors=%llu boundary_unit_sectors=%lu fat_type_by_user=%d "
              "device_sector_count=%llu sector_size=%lu reserved_sectors=%llu root_dir_entries_by_user=%d "
              "root_directory_entries=%lu sec_per_clus_by_user=%d sectors_per_cluster=%lu nr_fats=%hhu fat_type=%hhu "
              "out_sectors_per_cluster=%p out_cluster_count=%p out_root_directory_sectors=%p out_fat_type=%p "
              "out_reserved_sectors=%p out_fat_sectors=%p message_handler=%p",
              static_cast<unsigned long>(alignment), static_cast<unsigned long long>(hidden_sectors),
              static_cast<unsigned long>(boundary_unit_sectors), fat_type_by_user,
              static_cast<unsigned long long>(device_sector_count), static_cast<unsigned long>(sector_size),
              static_cast<unsigned long long>(reserved_sectors), root_dir_entries_by_user,
              static_cast<unsigned long>(root_directory_entries), sec_per_clus_by_user,
              static_cast<unsigned long>(sectors_per_cluster), nr_fats, fat_type,
              static_cast<void *>(out_sectors_per_cluster), static_cast<void *>(out_cluster_count),
              static_cast<void *>(out_root_directory_sectors), static_cast<void *>(out_fat_type),
              static_cast<void *>(out_reserved_sectors), static_cast<void *>(out_fat_sectors),
              static_cast<const void *>(message_handler));
    if (sectors_per_cluster == 0 || sector_size == 0) return QFS_ERR_SYS_INVALID_ARGUMENT;
    search s{};
    s.alignment = alignment != 0 ? alignment : sectors_per_cluster;
    s.hidden = hidden_sectors;
    s.boundary = boundary_unit_sectors;
    s.device = device_sector_count;
    s.sector_size = sector_size;
    s.reserved = reserved_sectors;
    s.root_by_user = root_dir_entries_by_user;
    s.root_sectors =
        static_cast<uint32_t>(div_round_up(static_cast<uint64_t>(root_directory_entries) * 32, sector_size));
    s.nr_fats = nr_fats;
    s.fat_type = fat_type;
    s.spc = sectors_per_cluster;
    s.max_spc = sec_per_clus_by_user ? sectors_per_cluster : largest_searched_sectors_per_cluster;

    const bool preset_only = !sec_per_clus_by_user && !fat_type_by_user && !root_dir_entries_by_user && fat_type != 0;
    if (!(preset_only && keep_preset(s))) {
        if (!fat_type_by_user) {
            search_automatically(s);
        } else {
            bool found = false;
            const qfs_result r = search_fixed_type(s, message_handler, &found);
            if (r != QFS_OK) return r;
            if (!found) {
                *out_in_range = 0;
                *out_sectors_per_cluster = s.spc;
                *out_cluster_count = 0;
                *out_root_directory_sectors = s.root_sectors;
                *out_fat_type = s.fat_type;
                *out_reserved_sectors = s.reserved;
                *out_fat_sectors = 0;
                return QFS_OK;
            }
        }
    }

    const fat_type_limits *limits = fat_limits_of(s.fat_type);
    if (limits == nullptr) {
        format_monitor_error(message_handler, "FAT type: (%lu) could not be determined.",
                             static_cast<unsigned long>(s.fat_type));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    const candidate &chosen = s.of_type(s.fat_type);
    *out_in_range = chosen.count >= limits->hard_min && chosen.count <= limits->hard_max ? 1 : 0;
    *out_sectors_per_cluster = s.spc;
    *out_cluster_count = chosen.count;
    *out_root_directory_sectors = s.root_sectors;
    *out_fat_type = s.fat_type;
    *out_reserved_sectors = s.reserved;
    *out_fat_sectors = chosen.fat_sectors;
    return QFS_OK;
}
