// Partition start and FAT type of a TNA card (a FAT row whose boundary unit
// is below 8192 sectors), where the card rules leave both to be worked out
// from the card's size instead of fixing them in the table.
#pragma once

#include <cstdint>

#include "layout/tca_params.h"
#include "support/qfs_error.h"

// `sector_count` is the card (or, with `strict`, the existing partition,
// which then gets one boundary unit in front of it added). The layout has one
// reserved sector, a 512-entry root directory and two FATs; the start is
// chosen so that the data area begins on a boundary unit at least one unit
// into the card. Gives FAT12 when the clusters fit, else FAT16.
[[nodiscard]] qfs_result tca_tna_layout_compute(const tca_param *row, uint64_t sector_count, bool strict,
                                                uint8_t *out_fat_type, uint64_t *out_partition_start_sector);
