// Layout rules of the exFAT engine at their boundaries, worked out by hand.
#include <gtest/gtest.h>

#include "exfat/format_layout.h"
#include "support/qfs_logging.h"

namespace {

TEST(ExfatClusterSize, DefaultsByVolumeSize) {
    constexpr std::pair<uint64_t, uint32_t> cases[] = {
        {1048576, 4096},
        {268435455, 4096},     // 256 MiB - 1
        {268435456, 32768},    // 256 MiB
        {34359738367, 32768},  // 32 GiB - 1
        {34359738368, 131072}, // 32 GiB
        // 2^32 - 11 clusters of 128 KiB are about 512 TiB; one cluster more needs 256 KiB.
        {4294967285ull * 131072, 131072},
        {4294967285ull * 131072 + 131072, 262144},
    };
    for (const auto &[volume_bytes, expected] : cases) {
        uint32_t cluster_size = 0;
        ASSERT_EQ(exfat_format_determine_cluster_size(volume_bytes, &cluster_size), QFS_OK);
        EXPECT_EQ(cluster_size, expected) << volume_bytes;
    }
}

TEST(ExfatDistribution, FatOffsetFollowsThePartitionOffset) {
    struct distribution_case {
        uint64_t sector_count;
        uint32_t alignment_sectors;
        uint64_t partition_offset;
        uint32_t cluster_size;
        uint64_t fat_offset, fat_length, heap_offset, cluster_count;
    };
    const distribution_case cases[] = {
        // Partition offset 0, A = 128: the 24 boot sectors round up to 128.
        // 1 GiB in 4 KiB clusters: round 1 (2097152 - 128) / 8 = 262128 clusters,
        // 2 * ceil(262130 * 4 / 512) = 2 * 2048 = 4096 FAT sectors (aligned: 4096);
        // round 2 (2097152 - 128 - 4096) / 8 = 261616, 2 * ceil(261618 * 4 / 512) = 4088 -> 4096: repeats.
        {2097152, 128, 0, 4096, 128, 4096, 4224, 261616},
        // The smallest recommended card: the heap lies one boundary unit into the partition.
        {67076096, 16384, 32768, 131072, 16384, 16384, 32768, 261888},
        // An offset of 100 sectors: roundup(124, 128) - 100 = 28.
        {2097152, 128, 100, 4096, 28, 4096, 4124, 261628},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.sector_count);
        uint64_t fat_offset = 0, fat_length = 0, heap = 0, clusters = 0;
        ASSERT_EQ(exfat_format_calculate_fat_heap_distribution(512, c.sector_count, c.alignment_sectors,
                                                               c.partition_offset, c.cluster_size, &fat_offset,
                                                               &fat_length, &heap, &clusters),
                  QFS_OK);
        EXPECT_EQ(fat_offset, c.fat_offset);
        EXPECT_EQ(fat_length, c.fat_length);
        EXPECT_EQ(heap, c.heap_offset);
        EXPECT_EQ(clusters, c.cluster_count);
    }
    uint64_t a = 7, b = 0, c = 0, d = 0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(exfat_format_calculate_fat_heap_distribution(4096, 1 << 20, 8, 0, 2048, &a, &b, &c, &d), 22)
        << "a cluster smaller than a sector";
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(a, 7u);
}

} // namespace
