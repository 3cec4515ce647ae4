// Where things are on an open exFAT volume, as its boot sector says.
#pragma once

#include <cstdint>

#include "exfat/exfat_ondisk.h"

struct exfat_geometry {
    uint8_t bytes_per_sector_shift;
    uint8_t sectors_per_cluster_shift;
    uint32_t bytes_per_sector;
    uint32_t cluster_size;
    uint32_t fat_offset;          // sectors
    uint32_t fat_length;          // sectors, one FAT
    uint32_t cluster_heap_offset; // sectors
    uint32_t cluster_count;
    uint8_t number_of_fats;
    uint8_t active_fat; // 0 or 1
    uint64_t volume_length; // sectors
};

// Clusters are numbered from 2; the heap holds cluster_count of them.
inline bool exfat_geometry_cluster_is_valid(const exfat_geometry &g, uint64_t cluster) {
    return cluster >= exfat_ondisk::first_data_cluster &&
           cluster < static_cast<uint64_t>(g.cluster_count) + exfat_ondisk::first_data_cluster;
}

// Byte position of a cluster on the volume.
inline uint64_t exfat_geometry_cluster_position(const exfat_geometry &g, uint32_t cluster) {
    return (static_cast<uint64_t>(g.cluster_heap_offset) << g.bytes_per_sector_shift) +
           (static_cast<uint64_t>(cluster - exfat_ondisk::first_data_cluster) * g.cluster_size);
}

// Byte position of the FAT in use.
inline uint64_t exfat_geometry_active_fat_position(const exfat_geometry &g) {
    return (static_cast<uint64_t>(g.fat_offset) + static_cast<uint64_t>(g.active_fat) * g.fat_length)
           << g.bytes_per_sector_shift;
}
