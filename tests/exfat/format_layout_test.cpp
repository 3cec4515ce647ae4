// Layout rules of the exFAT engine at their boundaries.
#include <gtest/gtest.h>

#include "exfat/format_layout.h"
#include "harness/trace_capture.h"

namespace {

TEST(ExfatClusterSize, DefaultsByVolumeSize) {
    struct cluster_case {
        uint64_t volume_bytes;
        uint32_t cluster_size;
    };
    constexpr cluster_case cases[] = {
        {1048576, 4096},
        {268435455, 4096},            // 256 MiB - 1
        {268435456, 32768},           // 256 MiB
        {34359738367, 32768},         // 32 GiB - 1
        {34359738368, 131072},        // 32 GiB
        // 2^32 - 11 clusters of 128 KiB are about 512 TiB; one byte more per cluster needs 256 KiB.
        {4294967285ull * 131072, 131072},
        {4294967285ull * 131072 + 131072, 262144},
        {4294967285ull * 33554432, 33554432},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.volume_bytes);
        uint32_t cluster_size = 0;
        ASSERT_EQ(exfat_format_determine_cluster_size(c.volume_bytes, &cluster_size), QFS_OK);
        EXPECT_EQ(cluster_size, c.cluster_size);
    }
    uint32_t untouched = 7;
    testing::internal::CaptureStderr();
    // (2^32 - 10) * 2^25 = 144115187740311552 bytes need more than 4294967285 clusters of 32 MiB.
    EXPECT_EQ(exfat_format_determine_cluster_size(4294967286ull * 33554432, &untouched), 27);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "[ERROR] Device size too large: 144115187740311552 bytes\n");
    EXPECT_EQ(untouched, 7u);
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
}

TEST(ExfatDistribution, EntryBytesAreThirtyTwoBitAsDesigned) {
    // 2^31 sectors in 512-byte clusters: about 2^31 clusters, whose FAT bytes
    // (clusters + 2) * 4 wrap in 32 bits, so the FAT comes out far too small.
    uint64_t a = 0, b = 0, c = 0, d = 0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(exfat_format_calculate_fat_heap_distribution(512, 1ull << 31, 1, 0, 512, &a, &b, &c, &d), 5);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("Incorrect fat/heap distribution (FAT clusters ("), std::string::npos) << err;
    EXPECT_EQ(err.rfind("[CRITICAL <format_layout.cpp:", 0), 0u) << err;
}

TEST(ExfatDistribution, ClusterSmallerThanSectorIsRefused) {
    uint64_t a = 0, b = 0, c = 0, d = 0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(exfat_format_calculate_fat_heap_distribution(4096, 1 << 20, 8, 0, 2048, &a, &b, &c, &d), 22);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[ERROR] Invalid argument: Cluster size (2048) is smaller than sector size (4096).\n");
}

} // namespace
