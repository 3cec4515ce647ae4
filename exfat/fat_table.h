// The FAT of an open exFAT volume: entries read on demand from the FAT in
// use, and the cluster chains they form.
#pragma once

#include <cstdint>
#include <vector>

#include "device/qfs_device.h"
#include "exfat/volume_geometry.h"
#include "support/qfs_error.h"

struct exfat_fat;

[[nodiscard]] qfs_result exfat_fat_create(qfs_device *device, const exfat_geometry &geometry, exfat_fat **out_fat);
[[nodiscard]] qfs_result exfat_fat_destroy(exfat_fat **fat);

// The raw entry of a cluster (0 to cluster count + 1).
[[nodiscard]] qfs_result exfat_fat_get_entry(exfat_fat *fat, uint32_t cluster, uint32_t *out_entry);
// The cluster after `cluster` in its chain, or exfat_ondisk::fat_end_of_chain
// when the chain ends there. A free, bad or out-of-range entry inside a chain
// fails with QFS_ERR_SYS_IO.
[[nodiscard]] qfs_result exfat_fat_next_cluster(exfat_fat *fat, uint32_t cluster, uint32_t *out_next);
// Number of clusters in the chain starting at `first`. A chain longer than
// the heap (a loop) fails with QFS_ERR_SYS_IO.
[[nodiscard]] qfs_result exfat_fat_count_chain(exfat_fat *fat, uint32_t first, uint32_t *out_count);
// Appends the clusters of the chain from `first`, at most `max_clusters` of
// them; the walk stops early where the chain ends.
[[nodiscard]] qfs_result exfat_fat_append_chain(exfat_fat *fat, uint32_t first, uint32_t max_clusters,
                                                std::vector<uint32_t> *clusters);
