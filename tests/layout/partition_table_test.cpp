// Partition tables of whole cards: CHS addresses, where the GPT takes over,
// and the partition writers' refusals. Whole cards' tables are checked by
// sfdisk and sgdisk in cli/fat_cards_test.cpp and cli/exfat_cards_test.cpp.
#include <gtest/gtest.h>

#include "harness/exfat_image.h"
#include "harness/recorded_monitor.h"
#include "layout/partition_table.h"

namespace {

using qfs_exfat_test::le32;
using qfs_exfat_test::le64;

TEST(Chs, AddressesAndTheCylinderLimit) {
    struct chs_case {
        uint64_t sector;
        uint8_t heads, sectors_per_track;
        uint8_t expected[3];
    };
    constexpr chs_case cases[] = {
        {0, 255, 63, {0, 1, 0}},
        // 32768 = 2 * 16065 + 638; 638 = 10 * 63 + 8: C=2 H=10 S=9.
        {32768, 255, 63, {10, 9, 2}},
        // The last sector of cylinder 1023: 1024 * 16065 - 1 = 16450559: H=254 S=63, C=1023 = 0x3FF.
        {16450559, 255, 63, {254, 63 | 0xC0, 0xFF}},
        // Cylinder 1024 no longer fits.
        {16450560, 255, 63, {0xFE, 0xFF, 0xFF}},
        // Cylinder 300 = 0x12C: the high two bits go to the sector byte's top.
        {300ull * 2 * 32 + 33, 2, 32, {1, 2 | 0x40, 0x2C}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.sector);
        uint8_t out[3] = {};
        mbr_chs_address(c.sector, c.heads, c.sectors_per_track, out);
        EXPECT_EQ(out[0], c.expected[0]);
        EXPECT_EQ(out[1], c.expected[1]);
        EXPECT_EQ(out[2], c.expected[2]);
    }
}

TEST(PartitionTableChoice, MbrUpToTwoToTheThirtyTwoMinusOneSectors) {
    // Both counts lie in row 5 (the gap between the classes), so --tca-relax takes row 6:
    // boundary unit 262144. One boundary unit is kept free only above 4294967295 sectors.
    struct choice_case {
        uint64_t sectors;
        bool gpt;
        uint64_t partition_count;
    };
    constexpr choice_case cases[] = {
        {4294967295, false, 4294967295 - 262144},
        {4294967296, true, 4294967296 - 2 * 262144},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.sectors);
        qfs_test::temp_dir dir;
        const std::string image = dir.file("card.img");
        qfs_test::make_sparse_image(image, c.sectors * 512);
        qfs_exfat_test::format_request request;
        request.tca_relax = true;
        ASSERT_EQ(qfs_exfat_test::format_image(image, request), QFS_OK);
        const auto mbr = qfs_test::read_bytes(image, 0, 512);
        EXPECT_EQ(mbr[446 + 4], c.gpt ? 0xEE : 0x07);
        if (c.gpt) {
            const auto entry = qfs_test::read_bytes(image, 1024, 128);
            EXPECT_EQ(le64(entry, 40) - le64(entry, 32) + 1, c.partition_count);
        } else {
            EXPECT_EQ(le32(mbr, 446 + 12), c.partition_count);
        }
    }
}

class PartitionWriterRefusals : public testing::Test {
protected:
    void SetUp() override {
        image_ = dir_.file("card.img");
        qfs_test::make_sparse_image(image_, 64 << 20);
        qfs_device_test::open_device(device_, image_, 0);
        before_ = qfs_test::image_fingerprint(image_);
    }
    qfs_test::temp_dir dir_;
    std::string image_, before_;
    qfs_device_test::device_handle device_;
    qfs_exfat_test::recorded_monitor monitor_;
};

// Each refusal leaves the card as it was.
TEST_F(PartitionWriterRefusals, RowsAndPartitionsOutOfReach) {
    const tca_param gpt_row{8589934592, 4294968320, 262144, 2048, 255, 63, true, false};
    const tca_param no_unit{67108863, 0, 0, 0, 0, 0, false, false};
    const tca_param fat_row{66945024, 8192001, 8192, 64, 255, 63, true, true};
    const auto &m = monitor_;
    EXPECT_EQ(exfat_format_partition_gpt(device_, &gpt_row, 262145, 1000, false, nullptr, m.get()), EINVAL)
        << "a start off the boundary unit";
    EXPECT_EQ(exfat_format_create_tca_partitioning(device_, &no_unit, 0, 100, 131072, false, nullptr, m.get()), EINVAL);
    EXPECT_EQ(fat_format_create_tca_partitioning(device_, &no_unit, 0, 100, 131072, false, nullptr, m.get()), EINVAL);
    EXPECT_EQ(fat_format_create_tca_partitioning(device_, &fat_row, 8192, 1ull << 32, 1ull << 33, false, nullptr,
                                                 m.get()),
              EINVAL)
        << "a count beyond an MBR";
    EXPECT_EQ(fat_format_create_tca_partitioning(device_, &fat_row, 1ull << 32, 8192, 1ull << 33, false, nullptr,
                                                 m.get()),
              EINVAL)
        << "a start beyond an MBR";
    EXPECT_EQ(monitor_.errors.size(), 5u);
    EXPECT_EQ(qfs_test::image_fingerprint(image_), before_);
}

} // namespace
