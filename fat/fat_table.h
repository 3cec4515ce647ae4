// The FAT of an open FAT volume: entries read through the device a window at
// a time, the reserved entries, free clusters and cluster chains.
#pragma once

#include <cstdint>
#include <vector>

#include "device/qfs_device.h"
#include "fat/volume.h"
#include "support/qfs_error.h"

struct fat_table;

[[nodiscard]] qfs_result fat_table_create(qfs_device *device, const fat_boot_values &boot, fat_table **out_table);
qfs_result fat_table_destroy(fat_table **table);

// The entry of a cluster (0 to cluster count + 1); FAT32 entries without their top four bits.
[[nodiscard]] qfs_result fat_table_get_entry(fat_table *table, uint32_t cluster, uint32_t *out_entry);
// Entry 0 must repeat the media byte with every higher bit set; entry 1 must
// be an end-of-chain mark, apart from the clean-shutdown and hard-error bits
// that FAT16 and FAT32 keep in it. Anything else is refused with EIO.
[[nodiscard]] qfs_result fat_table_check_reserved_entries(fat_table *table, uint8_t media);
[[nodiscard]] qfs_result fat_table_count_free(fat_table *table, uint32_t *out_free_clusters);
// The clusters of the chain from `first` in order. A chain that leaves the
// data clusters, runs into a free or bad entry, or holds more than
// `max_clusters` (a loop does, sooner or later) fails with EIO.
[[nodiscard]] qfs_result fat_table_read_chain(fat_table *table, uint32_t first, uint32_t max_clusters,
                                              std::vector<uint32_t> *out_clusters);
