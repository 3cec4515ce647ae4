// FAT layouts off the card tables, which the tool itself never asks for:
// what a caller of the engine relies on. The layouts of every card class at
// the edges of its row are checked on whole cards in cli/fat_cards_test.cpp.
#include "fat/fat_test_support.h"
#include "harness/recorded_monitor.h"

using namespace fat_test;
using qfs_exfat_test::recorded_monitor;

namespace {

// A device that tells its size and a partition start of 0, nothing else.
fat_device_facts device_of(uint64_t sectors) { return {512, sectors, QFS_OK, 0, QFS_OK, 255, QFS_OK, 63}; }

// Without a card the engine picks the type and cluster size by the volume's size, and
// the pieces add up: reserved sectors, the FATs, the root directory and whole clusters.
TEST(FatLayout, DefaultsWithoutACard) {
    struct default_case {
        uint64_t sectors;
        uint8_t type;
        uint32_t sectors_per_cluster;
    };
    // 614400 sectors (300 MiB): 128 reserved and 128 root sectors, 150 sectors per FAT
    // rounded up to 256: the data area at 768 holds (614400 - 768) / 16 = 38352 clusters.
    constexpr default_case cases[] = {{134217728, 32, 64}, {614400, 16, 16}, {4000, 12, 4}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.sectors);
        recorded_monitor m;
        fat_layout l{};
        ASSERT_EQ(fat_format_plan_layout({}, device_of(c.sectors), nullptr, m.get(), &l), QFS_OK);
        EXPECT_EQ(l.fat_type, c.type);
        EXPECT_EQ(l.sectors_per_cluster, c.sectors_per_cluster);
        const uint64_t data = l.reserved_sectors + 2ull * l.fat_sectors + l.root_directory_sectors;
        EXPECT_EQ(l.cluster_count, (c.sectors - data) / c.sectors_per_cluster);
        EXPECT_GE(l.fat_sectors * 512 * 8 / (c.type == 32 ? 32 : c.type), l.cluster_count + 2u) << "FAT too short";
        EXPECT_TRUE(c.sectors != 614400 || l.cluster_count == 38352u);
    }
}

// Types and cluster sizes a caller fixes are refused when the cluster count
// falls outside the type's range, and beyond the recommended FAT16 maximum
// unless forced; a card's own row admits no other type or cluster size.
TEST(FatLayout, FixedValuesOutOfRange) {
    const uint8_t fat12 = 12, fat16 = 16, fat32 = 32;
    const uint32_t one_sector = 512, four = 4, eight = 8, sixty_four = 64, cluster_4k = 4096;
    // FAT16 with 65515 clusters of 64 sectors: above the recommended 65509.
    const uint64_t fat16_sectors = 1 + 2 * 256 + 32 + 65515ull * 64;
    struct fixed_case {
        const uint8_t *type;
        const uint32_t *sectors_per_cluster;
        uint64_t sectors;
        bool force;
        qfs_result result;
    };
    const fixed_case cases[] = {
        {&fat12, &four, 100000, false, QFS_ERR_SYS_INVALID_ARGUMENT},  // 24954 clusters
        {&fat32, &eight, 100000, false, QFS_ERR_SYS_INVALID_ARGUMENT}, // 12471 clusters
        {&fat16, &sixty_four, fat16_sectors, false, QFS_ERR_SYS_INVALID_ARGUMENT},
        {&fat16, &sixty_four, fat16_sectors, true, QFS_OK},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << int(*c.type) << " on " << c.sectors);
        fat_format_request request{};
        request.alignment = &one_sector;
        request.fat_type = c.type;
        request.sectors_per_cluster = c.sectors_per_cluster;
        request.force = c.force;
        recorded_monitor m;
        fat_layout l{};
        EXPECT_EQ(fat_format_plan_layout(request, device_of(c.sectors), nullptr, m.get(), &l), c.result);
        EXPECT_EQ(m.warnings.empty(), !c.force);
    }
    fat_tca_record card{};
    ASSERT_EQ(fat_format_get_tca_param(4211713, &card.row, &card.fat_type, &card.partition_start_sector,
                                       &card.partition_sector_count, true, false, false, nullptr),
              QFS_OK);
    for (const bool by_cluster : {false, true}) {
        fat_format_request request{};
        request.tca_whole = true;
        request.fat_type = by_cluster ? nullptr : &fat16;
        request.cluster_size = by_cluster ? &cluster_4k : nullptr;
        recorded_monitor m;
        fat_layout l{};
        EXPECT_EQ(fat_format_plan_layout(request, device_of(4211713), &card, m.get(), &l),
                  QFS_ERR_SYS_INVALID_ARGUMENT);
    }
}

// The request checks come before the device is asked anything.
TEST(FatLayout, RequestChecksComeFirst) {
    qfs_test::temp_dir dir;
    const std::string image = dir.file("card.img");
    qfs_test::make_sparse_image(image, 4211713ull * 512);
    qfs_device_test::device_handle device;
    qfs_device_test::open_device(device, image, 0);
    fat_format_request request{};
    request.tca_whole = true;
    const uint8_t lower_case[] = {'d', 'a', 't', 'a'};
    request.volume_name = lower_case;
    request.volume_name_length = 4;
    recorded_monitor m;
    fat_layout l{};
    EXPECT_EQ(fat_format_decide_layout(device, request, m.get(), &l), QFS_ERR_SYS_INVALID_ARGUMENT);
    EXPECT_TRUE(m.warnings.empty()) << "the device's sector size was not asked for";
}

} // namespace
