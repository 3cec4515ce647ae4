// FAT layout rules off the card tables; the layouts of every card class at
// the edges of its row are checked on whole cards in cli/fat_cards_test.cpp.
#include <algorithm>

#include "fat/fat_test_support.h"
#include "harness/recorded_monitor.h"

using namespace fat_test;
using qfs_exfat_test::recorded_monitor;

namespace {

// A device that tells its size and a partition start of 0, nothing else.
fat_device_facts device_of(uint64_t sectors) { return {512, sectors, QFS_OK, 0, QFS_OK, 255, QFS_OK, 63}; }

TEST(FatLayout, DefaultsWithoutACard) {
    recorded_monitor m;
    fat_layout l{};
    // 64 GiB: FAT32 with 32 KiB clusters; 1 MiB alignment puts 32 reserved sectors up to 2048.
    ASSERT_EQ(fat_format_plan_layout({}, device_of(134217728), nullptr, m.get(), &l), QFS_OK);
    EXPECT_EQ(l.fat_type, 32);
    EXPECT_EQ(l.sectors_per_cluster, 64u);
    EXPECT_EQ(l.reserved_sectors, 2048u);
    EXPECT_EQ(l.fat_sectors % 2048, 0u);
    EXPECT_EQ(l.backup_boot_sector, 6);
    // 614400 sectors (300 MiB): FAT16 in 16-sector clusters; 128 reserved and 128 root
    // sectors leave n = 614144, 150 sectors per FAT rounded up to 256, so the data area
    // starts at 128 + 512 + 128 = 768 and holds (614400 - 768) / 16 = 38352 clusters.
    ASSERT_EQ(fat_format_plan_layout({}, device_of(614400), nullptr, m.get(), &l), QFS_OK);
    EXPECT_EQ(l.fat_type, 16);
    EXPECT_EQ(l.sectors_per_cluster, 16u);
    EXPECT_EQ(l.fat_sectors, 256u);
    EXPECT_EQ(l.cluster_count, 38352u);
    // 4000 sectors (under 8401 units): undecided, 4 sectors per cluster, FAT12. The
    // 64 KiB alignment (128 sectors) rounds reserved, each FAT and the root
    // directory to 128: (4000 - 4 * 128) / 4 = 872 clusters, 2048 root entries.
    ASSERT_EQ(fat_format_plan_layout({}, device_of(4000), nullptr, m.get(), &l), QFS_OK);
    EXPECT_EQ(l.fat_type, 12);
    EXPECT_EQ(l.sectors_per_cluster, 4u);
    EXPECT_EQ(l.reserved_sectors, 128u);
    EXPECT_EQ(l.fat_sectors, 128u);
    EXPECT_EQ(l.root_directory_entries, 2048u);
    EXPECT_EQ(l.cluster_count, 872u);
}

TEST(FatLayout, CallerFixedValues) {
    recorded_monitor m;
    fat_layout l{};
    fat_format_request request{};
    const uint8_t fat32 = 32, fat16 = 16;
    const uint32_t one_sector = 512, four_mib = 4194304, clusters_32k = 32768;
    // FAT32 without a card starts from 32 reserved sectors.
    request.fat_type = &fat32;
    request.alignment = &one_sector;
    ASSERT_EQ(fat_format_plan_layout(request, device_of(2097152), nullptr, m.get(), &l), QFS_OK);
    EXPECT_EQ(l.reserved_sectors, 32u);
    // 512 root entries (32 sectors) grow to 4 MiB of alignment: 8192 sectors, 131072 entries.
    request.fat_type = &fat16;
    request.alignment = &four_mib;
    request.cluster_size = &clusters_32k;
    ASSERT_EQ(fat_format_plan_layout(request, device_of(2097152), nullptr, m.get(), &l), QFS_OK);
    EXPECT_EQ(l.root_directory_sectors, 8192u);
    EXPECT_EQ(l.root_directory_entries, 131072u);
}

TEST(FatLayout, ClusterLimits) {
    const uint8_t fat12 = 12, fat16 = 16, fat32 = 32;
    const uint32_t one_sector = 512, four_sectors = 4, eight_sectors = 8, sixty_four = 64;
    fat_format_request request{};
    request.alignment = &one_sector;
    fat_layout l{};
    {
        // FAT12 in 4-sector clusters on 100000 sectors: n = 100000 - 33, 74 sectors
        // per FAT, (n - 148) / 4 = 24954 clusters, far above 4085.
        recorded_monitor m;
        request.fat_type = &fat12;
        request.sectors_per_cluster = &four_sectors;
        EXPECT_EQ(fat_format_plan_layout(request, device_of(100000), nullptr, m.get(), &l),
                  QFS_ERR_SYS_INVALID_ARGUMENT);
        EXPECT_EQ(m.errors, (std::vector<std::string>{
                                "Volume size is too big to be formatted as FAT12\n\t(Max cluster limit: 4085, "
                                "Calculated: 24954).\n\tPlease try by reducing volume size or by\n\tincreasing sectors "
                                "per cluster value.",
                                "Failed to compute cluster count. Aborting."}));
    }
    {
        // FAT32 in 8-sector clusters on 100000 sectors: n = 100000 - 32 = 99968, estimate
        // 512*n*8 / (64 + 8*4096) = 12471 clusters, 98 sectors per FAT, (n - 196) / 8 = 12471.
        recorded_monitor m;
        request.fat_type = &fat32;
        request.sectors_per_cluster = &eight_sectors;
        EXPECT_EQ(fat_format_plan_layout(request, device_of(100000), nullptr, m.get(), &l),
                  QFS_ERR_SYS_INVALID_ARGUMENT);
        EXPECT_EQ(m.errors,
                  (std::vector<std::string>{"Number of clusters are not enough to make a\n\tFAT32 volume (Min "
                                            "expected: 65526, Got: 12471).\n\tPlease try by increasing volume "
                                            "size."}));
    }
    // FAT16 with 65515 clusters of 64 sectors: 1 + 2 * 256 + 32 + 65515 * 64 sectors. Above the
    // recommended 65509: refused, allowed with a warning under force, silently with a card.
    request.fat_type = &fat16;
    request.sectors_per_cluster = &sixty_four;
    const uint64_t sectors = 1 + 2 * 256 + 32 + 65515ull * 64;
    const std::string text = "Number of clusters is larger than the recommended maximum amount of clusters for a FAT16 "
                             "volume: 65515 (maximum recommended: 65509) ";
    for (bool force : {false, true}) {
        recorded_monitor m;
        request.force = force;
        EXPECT_EQ(fat_format_plan_layout(request, device_of(sectors), nullptr, m.get(), &l),
                  force ? QFS_OK : QFS_ERR_SYS_INVALID_ARGUMENT);
        const std::vector<std::string> &said = force ? m.warnings : m.errors;
        const std::string expected =
            text + (force ? "Continuing due to force mode..." : "Specify force mode to override this check.");
        EXPECT_NE(std::find(said.begin(), said.end(), expected), said.end()) << expected;
    }
}

TEST(FatLayout, CardRecordRefusesOtherValues) {
    fat_tca_record card{};
    ASSERT_EQ(fat_format_get_tca_param(4211713, &card.row, &card.fat_type, &card.partition_start_sector,
                                       &card.partition_sector_count, true, false, false, nullptr),
              QFS_OK);
    const uint8_t fat16 = 16;
    const uint32_t cluster_4k = 4096;
    fat_format_request request{};
    request.tca_whole = true;
    fat_layout l{};
    recorded_monitor m;
    request.fat_type = &fat16;
    EXPECT_EQ(fat_format_plan_layout(request, device_of(4211713), &card, m.get(), &l), QFS_ERR_SYS_INVALID_ARGUMENT);
    request.fat_type = nullptr;
    request.cluster_size = &cluster_4k;
    EXPECT_EQ(fat_format_plan_layout(request, device_of(4211713), &card, m.get(), &l), QFS_ERR_SYS_INVALID_ARGUMENT);
    EXPECT_EQ(m.errors, (std::vector<std::string>{"Error: Invalid specified FAT type (16) for TCA formatting.",
                                                  "Error: Invalid specified cluster size (4096) for TCA formatting."}));
}

// The whole decision on an image: the request checks come before the device is asked anything.
TEST(FatLayout, RequestChecksComeFirst) {
    qfs_test::temp_dir dir;
    const std::string image = dir.file("card.img");
    qfs_test::make_sparse_image(image, 4211713ull * 512);
    qfs_device_test::device_handle device;
    ASSERT_EQ(qfs_device_create_default(image.c_str(), 0, device.receive()), QFS_OK);
    ASSERT_EQ(qfs_device_open(device, 0), QFS_OK);
    fat_format_request request{};
    request.tca_whole = true;
    const uint8_t lower_case[] = {'d', 'a', 't', 'a'};
    request.volume_name = lower_case;
    request.volume_name_length = 4;
    recorded_monitor m;
    fat_layout l{};
    EXPECT_EQ(fat_format_decide_layout(device, request, m.get(), &l), QFS_ERR_SYS_INVALID_ARGUMENT);
    EXPECT_EQ(m.errors, std::vector<std::string>{"Invalid characters in volume name."});
    EXPECT_TRUE(m.warnings.empty()) << "the device's sector size was not asked for";
}

} // namespace
