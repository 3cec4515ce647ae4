#include "layout/tca_tna_layout.h"

#include "support/qfs_logging.h"

namespace {

// One reserved (boot) sector and a 512-entry root directory of 32 sectors
// lie in front of the FATs.
constexpr uint64_t tna_fixed_sectors = 1 + 32;

struct fat_candidate {
    uint32_t bits;
    uint64_t cluster_limit; // the most clusters a FAT of this width may hold
};

constexpr fat_candidate tna_candidates[] = {
    {12, 4084},  // FAT12 first: small cards keep the smaller FAT
    {16, 65524}, // FAT16 for everything that does not fit
};

// Sectors in front of the volume so that the data area, which follows the
// fixed sectors and both FATs, starts on a boundary unit; never less than one
// unit, so the partition does not start at the very front of the card.
uint64_t start_before_data(uint64_t both_fats, uint64_t boundary_unit) {
    const uint64_t head = tna_fixed_sectors + both_fats;
    uint64_t start = (head + boundary_unit - 1) / boundary_unit * boundary_unit - head;
    if (start < boundary_unit) {
        start += boundary_unit;
    }
    return start;
}

} // namespace

qfs_result tca_tna_layout_compute(const tca_param *row, uint64_t sector_count, bool strict,
                                  uint8_t *out_fat_type, uint64_t *out_partition_start_sector) {
    if (row->boundary_unit == 0 || row->sectors_per_cluster == 0) {
        QFS_LOG_CRITICAL("Internal error: TCA row without boundary unit (%lu) or cluster size (%lu).",
                         static_cast<unsigned long>(row->boundary_unit),
                         static_cast<unsigned long>(row->sectors_per_cluster));
        return QFS_ERR_INTERNAL_ERROR;
    }
    // All of this is unsigned arithmetic on purpose: the card rules' own
    // calculation, wrap-arounds on absurdly small cards included.
    const uint64_t bu = row->boundary_unit;
    const uint64_t sc = row->sectors_per_cluster;
    const uint64_t total = strict ? sector_count + bu : sector_count;

    uint32_t bits = 0;
    uint64_t start = 0;
    for (const fat_candidate &candidate : tna_candidates) {
        bits = candidate.bits;
        // Estimate the entries from the space that clusters and FAT share.
        const uint64_t entries = ((total - tna_fixed_sectors) * 4096) / (sc * 4096 + 2 * bits);
        uint64_t fat_bytes = (bits * (entries + 2) + 7) / 8;
        uint64_t both_fats = ((511 + fat_bytes) / 512) * 2;
        uint64_t clusters = (total - tna_fixed_sectors - both_fats) / sc;
        start = start_before_data(both_fats, bu);
        const uint64_t clusters_after_start = (total - tna_fixed_sectors - both_fats - start) / sc;

        if (clusters != clusters_after_start) {
            // Size the FAT again for the clusters left behind the start.
            fat_bytes = 511 + (bits * (clusters_after_start + 2) + 7) / 8;
            both_fats = (fat_bytes / 512) * 2;
            start = start_before_data(both_fats, bu);
            clusters = (total - tna_fixed_sectors - both_fats - start) / sc;
            const uint32_t addressable =
                static_cast<uint32_t>((bits - 1 + (fat_bytes / 512) * 4096) / bits - 2);
            if (addressable < clusters) {
                start += bu;
            }
        }
        if (clusters <= candidate.cluster_limit) {
            break;
        }
    }
    // Neither width fits: still FAT16 with the last start worked out.
    *out_fat_type = static_cast<uint8_t>(bits);
    *out_partition_start_sector = start;
    return QFS_OK;
}
