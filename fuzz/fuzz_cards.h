// The cards the volume fuzz targets work on: the seed maker formats each
// one, and its target opens mutations of it over a device of the same size.
#pragma once

#include <cstdint>

// exFAT: 8 MiB of 512-byte sectors in 4 KiB clusters.
inline constexpr uint64_t fuzz_exfat_card_bytes = 8ull << 20;
inline constexpr uint32_t fuzz_exfat_cluster_size = 4096;

// FAT: the smallest card of each type in 512-byte clusters (FAT32 needs
// 65,525 clusters; FAT16 more than 4,085).
struct fuzz_fat_card {
    uint8_t fat_type;
    uint64_t bytes;
};
inline constexpr fuzz_fat_card fuzz_fat12_card{12, 1ull << 20};
inline constexpr fuzz_fat_card fuzz_fat16_card{16, 4ull << 20};
inline constexpr fuzz_fat_card fuzz_fat32_card{32, 36ull << 20};
