// The geometry of a new exFAT volume, settled before anything is written.
#pragma once

#include <cstddef>
#include <cstdint>

#include "device/qfs_device.h"
#include "layout/format_monitor.h"
#include "support/qfs_error.h"

// Size of the recommended compressed up-case table that every format writes.
inline constexpr uint32_t exfat_default_upcase_bytes = 5836;

// What the caller (or the card tables) fixed; null means "not specified".
struct exfat_layout_request {
    bool force;
    uint32_t device_sector_size;        // as queried
    uint64_t device_sector_count;       // in device sectors
    const uint16_t *sector_size;
    const uint64_t *sector_count;
    const uint32_t *cluster_size;
    const uint64_t *partition_start_sector;
    const uint32_t *alignment;
    // Whole-card mode: the volume is the recommended partition of this many 512-byte sectors.
    bool tca_whole;
    uint64_t tca_partition_sector_count;
};

struct exfat_layout {
    uint32_t sector_size;
    uint64_t device_sector_count; // in sectors of sector_size
    uint64_t volume_sector_count;
    uint32_t cluster_size;
    uint64_t partition_offset; // the volume's first sector on the device
    uint32_t alignment;        // bytes
    uint32_t fat_offset;
    uint32_t fat_length;
    uint32_t cluster_heap_offset;
    uint32_t cluster_count;
    // System objects in the cluster heap.
    uint64_t bitmap_bytes;
    uint32_t bitmap_first_cluster;
    uint32_t bitmap_clusters;
    uint32_t upcase_bytes;
    uint32_t upcase_first_cluster;
    uint32_t upcase_clusters;
    uint32_t root_first_cluster;
    uint32_t used_fat_entries;
    // Sizes of the images built in memory.
    size_t boot_region_size;
    size_t partial_fat_size;
    size_t partial_bitmap_size;
    size_t root_dir_size;
};

[[nodiscard]] qfs_result exfat_format_query_device_characteristics(qfs_device *device, bool assume_512_on_failure,
                                                                   const uint16_t *in_sector_size,
                                                                   uint32_t *out_sector_size,
                                                                   uint64_t *out_sector_count,
                                                                   const format_monitor *monitor);

[[nodiscard]] qfs_result exfat_format_determine_cluster_size(uint64_t volume_size_bytes, uint32_t *out_cluster_size);

[[nodiscard]] qfs_result exfat_format_calculate_fat_heap_distribution(uint32_t sector_size, uint64_t sector_count,
                                                                      uint32_t alignment_sectors,
                                                                      uint64_t partition_offset, uint32_t cluster_size,
                                                                      uint64_t *out_fat_offset,
                                                                      uint64_t *out_fat_length,
                                                                      uint64_t *out_cluster_heap_offset,
                                                                      uint64_t *out_cluster_count);

// Every layout rule in order: sector and volume size, cluster size,
// partition offset, alignment, minimum size, FAT and heap distribution,
// limits, system objects and buffer sizes. Nothing is written.
[[nodiscard]] qfs_result exfat_format_plan_layout(qfs_device *device, const exfat_layout_request &request,
                                                  const format_monitor *monitor, exfat_layout *out_layout);
