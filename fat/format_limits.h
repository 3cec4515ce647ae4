// Cluster-count limits of the three FAT types: the legal range that the
// type decision rests on, and the narrower range that keeps a volume clear
// of the counts where implementations disagree about the type.
#pragma once

#include <cstdint>

struct fat_type_limits {
    uint8_t bits;
    const char *name;
    uint32_t hard_min;
    uint32_t hard_max;
    uint32_t recommended_min;
    uint32_t recommended_max;
};

inline constexpr fat_type_limits fat_limits_table[] = {
    // FAT12: anything up to 4085 clusters; keep 16 clear of the FAT16 boundary
    {12, "FAT12", 0, 4085, 0, 4069},
    // FAT16: 4086 to 65525 clusters; keep 16 clear of either boundary
    {16, "FAT16", 4086, 65525, 4102, 65509},
    // FAT32: from 65526 clusters to what 28-bit entries address
    {32, "FAT32", 65526, 268435445, 65542, 268435445},
};

// Sizes in 512-byte units where the FAT type changes when nobody fixed it:
// below 8401 it is left open (and ends as FAT12), above 1048576 it is FAT32.
inline constexpr uint64_t fat_undecided_below_units = 8401;
inline constexpr uint64_t fat32_above_units = 1048576;

// The limits of a FAT type, or null for anything but 12, 16 and 32.
inline const fat_type_limits *fat_limits_of(uint8_t fat_type) {
    for (const fat_type_limits &limits : fat_limits_table) {
        if (limits.bits == fat_type) return &limits;
    }
    return nullptr;
}
