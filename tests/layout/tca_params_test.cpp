// The row lookups checked against what a recommended layout must be, not
// against the tables: the partition starts on a boundary unit, the sizes add
// up to the card, the FAT data area lands on a boundary unit, cluster counts
// stay within the FAT type's bounds, and a bigger card never gets a smaller
// unit or cluster. Then a few layouts worked out by hand.
#include <gtest/gtest.h>

#include <cstdarg>

#include "layout/tca_params.h"

namespace {

constexpr uint64_t untouched = 0xDEADBEEF;

// Refusals are told to the monitor; their words are checked where the user reads them.
const format_monitor silent = [] {
    format_monitor m{};
    m.error = [](void *, const char *, va_list) {};
    return m;
}();

struct lookup {
    qfs_result result = -1;
    tca_param row{};
    uint8_t fat_type = 0;
    uint64_t start = untouched, count = untouched;
};

lookup exfat_lookup(uint64_t sectors, bool whole = true, bool relax = false) {
    lookup l;
    l.result = exfat_format_get_tca_param(sectors, &l.row, &l.start, &l.count, whole, relax, &silent);
    return l;
}

lookup fat_lookup(uint64_t sectors, bool whole = true, bool relax = false, bool cylinders = false) {
    lookup l;
    l.result = fat_format_get_tca_param(sectors, &l.row, &l.fat_type, &l.start, &l.count, whole, relax, cylinders,
                                        &silent);
    return l;
}

// A FAT12/16 volume of `total` sectors from `start`: one reserved sector, 32
// root directory sectors and two FATs. Answers the clusters of the smallest
// FAT that puts the data area on a boundary unit and addresses them all, or 0.
uint64_t fixed_root_clusters(uint64_t total, uint64_t bu, uint64_t spc, unsigned bits, uint64_t start) {
    for (uint64_t fat = 1; start + 33 + 2 * fat <= total; ++fat) {
        if ((start + 33 + 2 * fat) % bu != 0) continue;
        const uint64_t clusters = (total - start - 33 - 2 * fat) / spc;
        if (fat * 512 * 8 / bits >= clusters + 2) return clusters;
    }
    return 0;
}

// Card sizes through every row and class, whole devices.
constexpr uint64_t fat_cards[] = {3936,    3937,    16224,   16384,   32449,   64896,   130850,   259585,
                                  385231,  519169,  1021952, 2043905, 2076673, 2097152, 4153344,  4211713,
                                  8192000, 8192001, 16450560, 66945024};
constexpr uint64_t exfat_cards[] = {67108864,   134217728,   268173313,    1073479681,  4294968320,
                                    8589934593, 17179869185, 34359738369, 68719476737, 137438953473,
                                    274877906944, 300000000000};

TEST(TcaParams, ExfatRowsKeepTheirPromises) {
    uint64_t last_bu = 0, last_spc = 0;
    for (const uint64_t sectors : exfat_cards) {
        SCOPED_TRACE(sectors);
        const lookup l = exfat_lookup(sectors);
        ASSERT_EQ(l.result, QFS_OK);
        EXPECT_TRUE(l.row.in_spec);
        EXPECT_LE(l.row.min_sector_count, sectors);
        // The last row takes every bigger card.
        EXPECT_TRUE(sectors <= l.row.max_sector_count || sectors > 274877906944);
        EXPECT_EQ(l.start, l.row.boundary_unit) << "one boundary unit in";
        // A card beyond an MBR's reach keeps one more unit free at the end for the backup GPT.
        const uint64_t tail = sectors > TCA_MBR_MAX_SECTORS ? l.row.boundary_unit : 0;
        EXPECT_EQ(l.start + l.count + tail, sectors);
        EXPECT_EQ(l.row.boundary_unit % l.row.sectors_per_cluster, 0u) << "clusters tile the unit";
        EXPECT_LT(l.count / l.row.sectors_per_cluster, 0xFFFFFFF5ull) << "clusters an exFAT FAT can address";
        EXPECT_GE(l.row.boundary_unit, last_bu);
        EXPECT_GE(l.row.sectors_per_cluster, last_spc);
        last_bu = l.row.boundary_unit;
        last_spc = l.row.sectors_per_cluster;
    }
}

TEST(TcaParams, FatRowsKeepTheirPromises) {
    uint64_t last_bu = 0;
    for (const uint64_t sectors : fat_cards) {
        for (const bool cylinders : {false, true}) {
            SCOPED_TRACE(testing::Message() << sectors << (cylinders ? " cylinder-aligned" : ""));
            const lookup l = fat_lookup(sectors, true, false, cylinders);
            ASSERT_EQ(l.result, QFS_OK);
            const tca_param &row = l.row;
            EXPECT_TRUE(row.min_sector_count <= sectors && sectors <= row.max_sector_count);
            const uint64_t cylinder = uint64_t{row.heads} * row.sectors_per_track;
            const uint64_t end = cylinders && sectors / cylinder < 1024 ? sectors / cylinder * cylinder : sectors;
            EXPECT_EQ(l.start + l.count, end) << "the partition runs to the card's (or last cylinder's) end";
            if (l.fat_type == 32) {
                // FAT32 (TNB) cards start one unit in; the engine places their data area.
                EXPECT_EQ(l.start, row.boundary_unit);
                continue;
            }
            // A TNB card cut to a cylinder below 4210048 sectors gets a FAT16 layout of its own.
            const uint64_t bu = row.boundary_unit;
            EXPECT_GE(l.start, bu);
            const uint64_t clusters = fixed_root_clusters(end, bu, row.sectors_per_cluster, l.fat_type, l.start);
            ASSERT_NE(clusters, 0u) << "no FAT size puts the data area on a boundary unit";
            EXPECT_LE(clusters, l.fat_type == 12 ? 4084u : 65524u);
            EXPECT_GE(bu, last_bu);
            last_bu = bu;
        }
    }
}

// Layouts worked out by hand.
//
// 1 GiB = 2097152 sectors (BU 128, 64 sectors per cluster). FAT12 would need
//   32762 clusters, too many. FAT16: 2 FATs of 128 sectors; 33 + 256 = 289 rounds
//   up to 384, less than a unit in, so the start is 95 + 128 = 223 and the data
//   area 223 + 33 + 256 = 512 = 4 BU.
// 16384 sectors (BU 32, 32 per cluster): FAT12, 2 FATs of 2 sectors; 37 rounds to
//   64: 27 + 32 = 59, the data area at 96 = 3 BU with 509 clusters.
// 385231 sectors (BU 64): FAT16 first sized at 2 * 48 sectors gives start 127 and
//   12030 clusters; re-sized to 2 * 47 the start moves to 65, where 12032 clusters
//   outgrow the 12030 entries 47 sectors hold, so one unit more: 129.
// A 21856-sector partition (BU 32) is laid out as if the card had 21856 + 32
//   sectors: FAT12, 2 FATs of 3 sectors, start 57.
// 1 GiB aligned to 64 * 63 = 4032-sector cylinders: 520 of them end at 2096640;
//   FAT16 still at 223, 2096640 - 223 = 2096417 sectors.
// 67108864 sectors (32 GiB): exFAT, 67108864 - 32768 = 67076096 behind one unit.
// 5368709120 sectors (2.5 TiB): 5368709120 - 2 * 262144 = 5368184832 with the GPT's unit.
TEST(TcaParams, WorkedExamples) {
    struct fat_case {
        uint64_t sectors;
        bool whole, cylinders;
        uint8_t type;
        uint64_t start, count;
    };
    constexpr fat_case fat_cases[] = {
        {2097152, true, false, 16, 223, 2097152 - 223}, {16384, true, false, 12, 59, 16384 - 59},
        {385231, true, false, 16, 129, 385231 - 129},   {21856, false, false, 12, 57, 21856},
        {2097152, true, true, 16, 223, 2096417},
    };
    for (const auto &c : fat_cases) {
        SCOPED_TRACE(c.sectors);
        const lookup l = fat_lookup(c.sectors, c.whole, false, c.cylinders);
        ASSERT_EQ(l.result, QFS_OK);
        EXPECT_EQ(l.fat_type, c.type);
        EXPECT_EQ(l.start, c.start);
        EXPECT_EQ(l.count, c.count);
    }
    // exFAT: the association's boundary unit and cluster size of a card in each size class.
    struct exfat_case {
        uint64_t sectors;
        uint32_t bu, spc;
    };
    constexpr exfat_case exfat_cases[] = {{67108864, 32768, 256},        {536870912, 65536, 512},
                                          {2147483648, 131072, 1024},    {5368709120, 262144, 2048},
                                          {10000000000, 262144, 4096},   {20000000000, 524288, 8192},
                                          {40000000000, 524288, 16384},  {100000000000, 1048576, 32768},
                                          {300000000000, 1048576, 65536}};
    for (const auto &c : exfat_cases) {
        SCOPED_TRACE(c.sectors);
        const lookup l = exfat_lookup(c.sectors);
        EXPECT_EQ(l.row.boundary_unit, c.bu);
        EXPECT_EQ(l.row.sectors_per_cluster, c.spc);
    }
    EXPECT_EQ(exfat_lookup(67108864).count, 67076096u);
    EXPECT_EQ(exfat_lookup(5368709120).count, 5368184832u);
}

// Cards between two classes are refused, their outputs untouched, unless
// relaxed; the refusal's words are checked where the user reads them.
TEST(TcaParams, GapCardsOnlyWhenRelaxed) {
    struct gap_case {
        bool exfat;
        uint64_t sectors;
        bool whole;
        uint64_t relaxed_start;
    };
    constexpr gap_case cases[] = {
        {true, 67108863, true, 32768},     {true, 4294705153, true, 262144},
        {false, 4153345, true, 8192},      {false, 4211712, true, 8192},
        // Inside a partition the unit in front counts: 4150000 + 8192 lies in the gap.
        {false, 4150000, false, 8192},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.sectors);
        lookup l = c.exfat ? exfat_lookup(c.sectors, c.whole) : fat_lookup(c.sectors, c.whole);
        EXPECT_EQ(l.result, EINVAL);
        EXPECT_EQ(l.start, untouched);
        EXPECT_EQ(l.count, untouched);
        l = c.exfat ? exfat_lookup(c.sectors, c.whole, true) : fat_lookup(c.sectors, c.whole, true);
        ASSERT_EQ(l.result, QFS_OK);
        EXPECT_EQ(l.start, c.relaxed_start);
    }
}

} // namespace
