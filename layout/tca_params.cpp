#include "layout/tca_params.h"

#include <iterator>

#include "layout/tca_tna_layout.h"
#include "support/qfs_logging.h"

// exFAT cards (TNC and TNE), by ascending capacity. Heads and sectors per
// track only fill the MBR's CHS fields.
constexpr tca_param exfat_tca_params[] = {
    // below 32 GiB: not an exFAT card at all
    {67108863u, 0u, 0, 0, 0, 0, false, false},
    // TNC 32 GiB to 128 GiB
    {268173312u, 67108864u, 32768, 256, 255, 63, true, false},
    // TNC 128 GiB to 512 GiB
    {1073479680u, 268173313u, 65536, 512, 255, 63, true, false},
    // TNC 512 GiB to 2 TiB
    {4294705152u, 1073479681u, 131072, 1024, 255, 63, true, false},
    // gap between the largest TNC and the smallest TNE card; the previous
    // row's values for relaxed use
    {4294968319u, 4294705153u, 131072, 1024, 255, 63, false, false},
    // TNE 2 TiB to 4 TiB
    {8589934592u, 4294968320u, 262144, 2048, 255, 63, true, false},
    // TNE 4 TiB to 8 TiB
    {17179869184u, 8589934593u, 262144, 4096, 255, 63, true, false},
    // TNE 8 TiB to 16 TiB
    {34359738368u, 17179869185u, 524288, 8192, 255, 63, true, false},
    // TNE 16 TiB to 32 TiB
    {68719476736u, 34359738369u, 524288, 16384, 255, 63, true, false},
    // TNE 32 TiB to 64 TiB
    {137438953472u, 68719476737u, 1048576, 32768, 255, 63, true, false},
    // TNE 64 TiB to 128 TiB, and every larger device
    {274877906944u, 137438953473u, 1048576, 65536, 255, 63, true, false},
};

// FAT cards (TNA and TNB), by ascending capacity. Rows with a boundary unit
// below 8192 are TNA cards whose FAT type and partition start are worked out
// from the size; the others fix the start at one boundary unit and take the
// FAT type from the row.
constexpr tca_param fat_tca_params[] = {
    // TNA up to about 2 MB
    {3936u, 0u, 16, 16, 2, 16, true, false},
    // TNA up to 8 MB
    {16224u, 3937u, 16, 16, 2, 32, true, false},
    // TNA up to 16 MB
    {32448u, 16225u, 32, 32, 2, 32, true, false},
    // TNA up to 32 MB
    {64896u, 32449u, 32, 32, 4, 32, true, false},
    // TNA up to 64 MB
    {129792u, 64897u, 32, 32, 8, 32, true, false},
    // TNA up to 128 MB
    {259584u, 129793u, 64, 32, 8, 32, true, false},
    // TNA up to 256 MB
    {519168u, 259585u, 64, 32, 16, 32, true, false},
    // TNA up to 512 MB
    {1021952u, 519169u, 128, 32, 16, 63, true, false},
    // TNA up to 1 GB
    {2043904u, 1021953u, 128, 32, 32, 63, true, false},
    // TNA just above 1 GB with 32-sector clusters
    {2076672u, 2043905u, 128, 32, 64, 63, true, false},
    // TNA up to 2 GB with 64-sector clusters
    {4087808u, 2076673u, 128, 64, 64, 63, true, false},
    // TNA largest cards
    {4153344u, 4087809u, 128, 64, 128, 63, true, false},
    // the whole gap between TNA and TNB: not covered by the recommendations
    {4211712u, 4153345u, 8192, 64, 128, 63, false, false},
    // lower part of that gap, reached only when relaxed: FAT16 on a TNB layout
    {4210047u, 4153345u, 8192, 64, 128, 63, true, false},
    // TNB up to 4 GB: FAT32
    {8192000u, 4211713u, 8192, 64, 128, 63, true, true},
    // TNB up to 32 GB: FAT32
    {66945024u, 8192001u, 8192, 64, 255, 63, true, true},
};

const size_t exfat_tca_params_count = std::size(exfat_tca_params);
const size_t fat_tca_params_count = std::size(fat_tca_params);

static_assert(std::size(exfat_tca_params) == 11);
static_assert(std::size(fat_tca_params) == 16);

namespace {

// Rows with a boundary unit above this have the TNB layout: the start is
// one boundary unit and the FAT type is fixed by the row.
constexpr uint32_t tna_max_boundary_unit = 8191;

// With cylinder alignment a partition ending above this is made FAT32.
constexpr uint64_t cylinder_aligned_fat16_max_end = 4209983;

// The MBR's CHS addresses count at most 1024 cylinders.
constexpr uint64_t chs_max_cylinder = 1023;

// exFAT too-small messages name both classes up to the end of the TNC/TNE gap.
constexpr uint64_t exfat_gap_max_sector_count = 4294968319u;

const char *mode_word(bool tca_whole) { return tca_whole ? "whole" : "strict"; }

// What one row gives for the card: the partition start and, for FAT, the type.
struct row_layout {
    uint64_t partition_start_sector = 0;
    uint8_t fat_type = 0;
};

struct row_choice {
    const tca_param *row = nullptr;
    uint64_t compared_sector_count = 0;
    row_layout layout;
};

enum class out_of_spec_kind { exfat, fat };

// Walks the table in order and keeps the last recommended (in_spec) row whose range holds
// the compared count. The last row has no upper bound, so every larger
// device lands there. `layout_of` gives a row's start (and FAT type).
template <typename LayoutOf>
qfs_result select_row(const char *function, const tca_param *table, size_t count, uint64_t sector_count,
                      bool tca_whole, bool tca_relax, out_of_spec_kind kind, const format_monitor *monitor,
                      LayoutOf layout_of, row_choice *out_choice) {
    row_choice match;
    for (size_t i = 0; i < count; ++i) {
        const tca_param &row = table[i];
        const size_t number = i + 1;
        row_layout layout;
        const qfs_result r = layout_of(row, &layout);
        if (r != QFS_OK) {
            return r;
        }
        // Inside an existing partition the area that the card rules reserve in
        // front of it counts towards the card's size.
        const uint64_t n = tca_whole ? sector_count : sector_count + layout.partition_start_sector;
        if (match.row != nullptr && row.min_sector_count > n) {
            QFS_TRACE("No match for parameter %zu / %zu because of device sector count underflow: %llu < %llu",
                      number, count, static_cast<unsigned long long>(n),
                      static_cast<unsigned long long>(row.min_sector_count));
            continue;
        }
        if (number != count && row.max_sector_count < n) {
            QFS_TRACE("No match for parameter %zu / %zu because of device sector count overflow: %llu > %llu",
                      number, count, static_cast<unsigned long long>(n),
                      static_cast<unsigned long long>(row.max_sector_count));
            continue;
        }
        if (row.in_spec) {
            QFS_TRACE("Match for parameter %zu / %zu: %llu <= %llu <= %llu", number, count,
                      static_cast<unsigned long long>(row.min_sector_count), static_cast<unsigned long long>(n),
                      static_cast<unsigned long long>(row.max_sector_count));
            match.row = &row;
            match.compared_sector_count = n;
            match.layout = layout;
            continue;
        }
        if (!tca_relax) {
            if (kind == out_of_spec_kind::exfat) {
                format_monitor_error_from(
                    monitor, function,
                    "'tca-%s' - Device with %llu sectors is too small for %sTNC recommendations to apply.",
                    mode_word(tca_whole), static_cast<unsigned long long>(n),
                    n <= exfat_gap_max_sector_count ? "TNE and too large for " : "");
            } else {
                format_monitor_error_from(monitor, function,
                                          "'tca-%s' - Device with %llu sectors is too small for %sTNB and too "
                                          "large for Tarn recommendations to apply.",
                                          mode_word(tca_whole), static_cast<unsigned long long>(n), "");
            }
            return QFS_ERR_SYS_INVALID_ARGUMENT;
        }
        // Relaxed: the next larger class whose range covers the card takes it.
        QFS_TRACE("No match for parameter %zu / %zu because it's out-of-spec.", number, count);
    }
    if (match.row == nullptr) {
        if (!tca_relax) {
            format_monitor_error_from(monitor, function,
                                      "'tca-%s' - Volume is too large for TCA recommendations to apply.",
                                      mode_word(tca_whole));
            return QFS_ERR_SYS_INVALID_ARGUMENT;
        }
        match.row = &table[count - 1];
    }
    *out_choice = match;
    return QFS_OK;
}

// Room for the backup GPT: devices that need a GPT keep one boundary unit free at the end.
uint64_t partition_sector_count(const row_choice &choice, uint64_t sector_count) {
    const uint64_t tail = sector_count > TCA_MBR_MAX_SECTORS ? choice.row->boundary_unit : 0;
    return choice.compared_sector_count - choice.layout.partition_start_sector - tail;
}

void trace_row(const tca_param &row) {
    QFS_TRACE("Got TCA parameters:");
    QFS_TRACE("    max_sector_count: %llu", static_cast<unsigned long long>(row.max_sector_count));
    QFS_TRACE("    min_sector_count: %llu", static_cast<unsigned long long>(row.min_sector_count));
    QFS_TRACE("    boundary_unit: %lu", static_cast<unsigned long>(row.boundary_unit));
    QFS_TRACE("    sectors_per_cluster: %lu", static_cast<unsigned long>(row.sectors_per_cluster));
    QFS_TRACE("    heads: %hhu", row.heads);
    QFS_TRACE("    sectors_per_track: %hhu", row.sectors_per_track);
}

void trace_partition(uint64_t start, uint64_t count) {
    QFS_TRACE("    tca_partition_start_sector: %llu", static_cast<unsigned long long>(start));
    QFS_TRACE("    tca_partition_sector_count: %llu", static_cast<unsigned long long>(count));
}

// A FAT row's start and type: fixed for TNB rows, worked out for TNA rows.
qfs_result fat_row_layout(const tca_param &row, uint64_t sector_count, bool strict, row_layout *out_layout) {
    row_layout layout;
    if (row.boundary_unit > tna_max_boundary_unit) {
        layout.partition_start_sector = row.boundary_unit;
        layout.fat_type = row.fat32 ? 32 : 16;
    } else {
        const qfs_result r = tca_tna_layout_compute(&row, sector_count, strict, &layout.fat_type,
                                                    &layout.partition_start_sector);
        if (r != QFS_OK) {
            return r;
        }
    }
    *out_layout = layout;
    return QFS_OK;
}

// Ends the partition on a whole cylinder when the card has at most 1024 of
// them, and settles the FAT type and start again for the shorter partition.
qfs_result align_end_to_cylinder(const tca_param &row, uint64_t n, row_layout *inout_layout,
                             uint64_t *inout_partition_sector_count) {
    const uint64_t cylinder = static_cast<uint64_t>(row.heads) * row.sectors_per_track;
    if (n / cylinder > chs_max_cylinder) {
        return QFS_OK;
    }
    const uint64_t end = (n / cylinder) * cylinder;
    QFS_TRACE("Aligning to cylinder size: %llu sectors (%llu bytes)", static_cast<unsigned long long>(cylinder),
              static_cast<unsigned long long>(cylinder * TCA_SECTOR_SIZE));
    QFS_TRACE("Partition end: %llu sectors (%llu bytes) -> %llu sectors (%llu bytes)",
              static_cast<unsigned long long>(n), static_cast<unsigned long long>(n * TCA_SECTOR_SIZE),
              static_cast<unsigned long long>(end), static_cast<unsigned long long>(end * TCA_SECTOR_SIZE));
    row_layout layout = *inout_layout;
    if (end > cylinder_aligned_fat16_max_end) {
        layout.fat_type = 32;
        layout.partition_start_sector = row.boundary_unit;
    } else {
        QFS_TRACE("Recalculating FAT type and partition start sector after CHS alignment:");
        QFS_TRACE("  Before: fat_type=%hhu partition_start_sector=%llu", layout.fat_type,
                  static_cast<unsigned long long>(layout.partition_start_sector));
        const qfs_result r =
            tca_tna_layout_compute(&row, end, false, &layout.fat_type, &layout.partition_start_sector);
        if (r != QFS_OK) {
            return r;
        }
        QFS_TRACE("  After: fat_type=%hhu partition_start_sector=%llu", layout.fat_type,
                  static_cast<unsigned long long>(layout.partition_start_sector));
    }
    *inout_layout = layout;
    *inout_partition_sector_count = end - layout.partition_start_sector;
    return QFS_OK;
}

} // namespace

qfs_result exfat_format_get_tca_param(uint64_t sector_count, tca_param *out_param,
                                      uint64_t *out_partition_start_sector,
                                      uint64_t *out_partition_sector_count, bool tca_whole, bool tca_relax,
                                      const format_monitor *monitor) {
    const auto exfat_row_layout = [](const tca_param &row, row_layout *out_layout) {
        out_layout->partition_start_sector = row.boundary_unit;
        return QFS_OK;
    };
    row_choice choice;
    const qfs_result r = select_row(__func__, exfat_tca_params, exfat_tca_params_count, sector_count,
                                    tca_whole, tca_relax, out_of_spec_kind::exfat, monitor, exfat_row_layout,
                                    &choice);
    if (r != QFS_OK) {
        return r;
    }
    const uint64_t partition_count = partition_sector_count(choice, sector_count);

    trace_row(*choice.row);
    trace_partition(choice.layout.partition_start_sector, partition_count);
    *out_param = *choice.row;
    *out_partition_start_sector = choice.layout.partition_start_sector;
    *out_partition_sector_count = partition_count;
    return QFS_OK;
}

qfs_result fat_format_get_tca_param(uint64_t sector_count, tca_param *out_param, uint8_t *out_fat_type,
                                    uint64_t *out_partition_start_sector,
                                    uint64_t *out_partition_sector_count, bool tca_whole, bool tca_relax,
                                    bool align_to_cylinder, const format_monitor *monitor) {
    // Inside an existing partition the TNA start is worked out for the card
    // that the partition plus one boundary unit in front of it would be.
    const bool strict = !tca_whole;
    const auto layout_of = [sector_count, strict](const tca_param &row, row_layout *out_layout) {
        return fat_row_layout(row, sector_count, strict, out_layout);
    };
    row_choice choice;
    qfs_result r = select_row(__func__, fat_tca_params, fat_tca_params_count, sector_count, tca_whole,
                              tca_relax, out_of_spec_kind::fat, monitor, layout_of, &choice);
    if (r != QFS_OK) {
        return r;
    }
    uint64_t partition_count = partition_sector_count(choice, sector_count);
    if (align_to_cylinder) {
        r = align_end_to_cylinder(*choice.row, choice.compared_sector_count, &choice.layout, &partition_count);
        if (r != QFS_OK) {
            return r;
        }
    }

    trace_row(*choice.row);
    QFS_TRACE("    tca_fat_type: %hhu", choice.layout.fat_type);
    trace_partition(choice.layout.partition_start_sector, partition_count);
    *out_param = *choice.row;
    *out_fat_type = choice.layout.fat_type;
    *out_partition_start_sector = choice.layout.partition_start_sector;
    *out_partition_sector_count = partition_count;
    return QFS_OK;
}
