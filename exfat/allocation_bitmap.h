// The allocation bitmap of the FAT in use: one bit per cluster of the heap,
// set when the cluster is allocated.
#pragma once

#include <cstdint>

#include "device/qfs_device.h"
#include "exfat/fat_table.h"
#include "exfat/volume_geometry.h"
#include "support/qfs_error.h"

struct exfat_allocation_bitmap;

// The bitmap stored in the chain from `first_cluster`, `length` bytes long.
// It must hold a bit for every cluster of the heap.
[[nodiscard]] qfs_result exfat_allocation_bitmap_create(qfs_device *device, const exfat_geometry *geometry,
                                                        exfat_fat *fat, uint32_t first_cluster, uint64_t length,
                                                        exfat_allocation_bitmap **out_bitmap);
[[nodiscard]] qfs_result exfat_allocation_bitmap_destroy(exfat_allocation_bitmap **bitmap);

// Reads the bitmap from the device and counts the set bits of clusters
// 2 to cluster count + 1; bits past the last cluster are not counted. Every
// cluster of `in_use` (ascending, `in_use_count` of them), the clusters the
// volume's own metadata occupies, must be marked: one that is not fails with QFS_ERR_SYS_IO.
[[nodiscard]] qfs_result exfat_allocation_bitmap_count_allocated(exfat_allocation_bitmap *bitmap,
                                                                 const uint32_t *in_use, size_t in_use_count,
                                                                 uint64_t *out_allocated);
