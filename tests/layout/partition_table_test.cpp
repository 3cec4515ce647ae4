// Partition tables of whole cards: CHS addresses, partition types, and the
// GPT of a card above 2^32 - 1 sectors, checked byte by byte.
#include <gtest/gtest.h>

#include <cstring>

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

TEST(FatPartitionType, FirstRuleThatHoldsWins) {
    struct type_case {
        uint64_t start, count;
        uint8_t type;
    };
    constexpr type_case cases[] = {
        {16, 32679, 0x01},       {16, 32680, 0x04},      {16, 65535, 0x04},
        {32, 65536, 0x06},       {8192, 4210048 - 8193, 0x06},
        {8192, 4210048 - 8192, 0x0B}, {8192, 16450560, 0x0B}, {8192, 16450561, 0x0C},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.count);
        EXPECT_EQ(fat_partition_type(c.start, c.count), c.type);
    }
}

// CRC-32 bit by bit, independent of the table-driven one under test.
uint32_t crc32_bitwise(const uint8_t *data, size_t length) {
    uint32_t crc = 0xFFFFFFFF;
    for (size_t i = 0; i < length; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1)));
    }
    return ~crc;
}

// 2.5 TiB = 5368709120 sectors, row 6: boundary unit 262144.
//   partition start = 262144, count = 5368709120 - 262144 - 262144 (one unit kept free at the end) = 5368184832
//   last usable LBA = 262144 + 5368184832 - 1 = 5368446975
//   backup entries at 5368446976, backup header at the card's last sector 5368709119.
constexpr uint64_t gpt_card_sectors = 5368709120;
constexpr uint64_t gpt_start = 262144;
constexpr uint64_t gpt_last_usable = 5368446975;
constexpr uint64_t gpt_backup_header = 5368709119;

class GptCard : public testing::Test {
protected:
    static void SetUpTestSuite() {
        dir_ = new qfs_test::temp_dir;
        image_ = dir_->file("gpt.img");
        qfs_test::make_sparse_image(image_, gpt_card_sectors * 512);
        ASSERT_EQ(qfs_exfat_test::format_image(image_), QFS_OK);
    }
    static void TearDownTestSuite() {
        delete dir_;
        dir_ = nullptr;
    }
    static std::vector<uint8_t> lba(uint64_t sector, size_t count = 1) {
        return qfs_test::read_bytes(image_, sector * 512, count * 512);
    }
    static void check_header(const std::vector<uint8_t> &h, uint64_t current, uint64_t backup, uint64_t entries) {
        EXPECT_EQ(std::string(h.begin(), h.begin() + 8), "EFI PART");
        EXPECT_EQ(le32(h, 8), 0x00010000u);
        EXPECT_EQ(le32(h, 12), 92u);
        EXPECT_EQ(le32(h, 20), 0u);
        EXPECT_EQ(le64(h, 24), current);
        EXPECT_EQ(le64(h, 32), backup);
        EXPECT_EQ(le64(h, 40), gpt_start) << "first usable LBA";
        EXPECT_EQ(le64(h, 48), gpt_last_usable);
        EXPECT_EQ(le64(h, 72), entries);
        EXPECT_EQ(le32(h, 80), 128u);
        EXPECT_EQ(le32(h, 84), 128u);
        std::vector<uint8_t> zeroed(h.begin(), h.begin() + 92);
        std::fill(zeroed.begin() + 16, zeroed.begin() + 20, 0);
        EXPECT_EQ(le32(h, 16), crc32_bitwise(zeroed.data(), 92)) << "header CRC";
        EXPECT_EQ(std::vector<uint8_t>(h.begin() + 92, h.end()), std::vector<uint8_t>(512 - 92, 0));
    }
    static qfs_test::temp_dir *dir_;
    static std::string image_;
};
qfs_test::temp_dir *GptCard::dir_ = nullptr;
std::string GptCard::image_;

TEST_F(GptCard, ProtectiveMbr) {
    const auto mbr = lba(0);
    std::vector<uint8_t> expected(512, 0);
    const uint8_t entry[16] = {0x00, 0x00, 0x02, 0x00, 0xEE, 0xFF, 0xFF, 0xFF, 1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF};
    memcpy(expected.data() + 446, entry, 16);
    expected[510] = 0x55;
    expected[511] = 0xAA;
    EXPECT_EQ(mbr, expected);
}

TEST_F(GptCard, HeadersEntriesAndChecksums) {
    const auto primary = lba(1);
    const auto backup = lba(gpt_backup_header);
    check_header(primary, 1, gpt_backup_header, 2);
    check_header(backup, gpt_backup_header, 1, gpt_last_usable + 1);
    EXPECT_EQ(std::vector<uint8_t>(primary.begin() + 56, primary.begin() + 72),
              std::vector<uint8_t>(backup.begin() + 56, backup.begin() + 72))
        << "one disk GUID";

    const auto entries = lba(2, 32);
    EXPECT_EQ(lba(gpt_last_usable + 1, 32), entries) << "backup entry array";
    EXPECT_EQ(le32(primary, 88), crc32_bitwise(entries.data(), entries.size()));
    EXPECT_EQ(le32(backup, 88), le32(primary, 88));
    // Basic data partition EBD0A0A2-B9E5-4433-87C0-68B6B72699C7, mixed-endian as stored.
    const uint8_t basic_data[16] = {0xA2, 0xA0, 0xD0, 0xEB, 0xE5, 0xB9, 0x33, 0x44,
                                    0x87, 0xC0, 0x68, 0xB6, 0xB7, 0x26, 0x99, 0xC7};
    EXPECT_EQ(memcmp(entries.data(), basic_data, 16), 0);
    EXPECT_NE(std::vector<uint8_t>(entries.begin() + 16, entries.begin() + 32), std::vector<uint8_t>(16, 0));
    EXPECT_EQ(le64(entries, 32), gpt_start);
    EXPECT_EQ(le64(entries, 40), gpt_last_usable);
    EXPECT_EQ(le64(entries, 48), 0u) << "attributes";
    const char16_t *name = u"Primary";
    for (int i = 0; i < 7; ++i) EXPECT_EQ(qfs_exfat_test::le16(entries, 56 + 2 * i), name[i]);
    EXPECT_EQ(std::vector<uint8_t>(entries.begin() + 70, entries.end()), std::vector<uint8_t>(entries.size() - 70, 0));
    // Everything between the entries and the partition, and between the partition's end and the backup header
    // other than the backup entries, is zero.
    EXPECT_TRUE(qfs_test::all_zero(image_, 34 * 512, (gpt_start - 34) * 512));
    EXPECT_TRUE(qfs_test::all_zero(image_, (gpt_last_usable + 33) * 512,
                                   (gpt_backup_header - gpt_last_usable - 33) * 512));
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
        ASSERT_EQ(qfs_device_create_default(image_.c_str(), 0, device_.receive()), QFS_OK);
        ASSERT_EQ(qfs_device_open(device_, 0), QFS_OK);
        before_ = qfs_test::image_fingerprint(image_);
    }
    qfs_test::temp_dir dir_;
    std::string image_, before_;
    qfs_device_test::device_handle device_;
    qfs_exfat_test::recorded_monitor monitor_;
};

TEST_F(PartitionWriterRefusals, GptStartOffTheBoundaryUnit) {
    const tca_param row{8589934592, 4294968320, 262144, 2048, 255, 63, true, false};
    EXPECT_EQ(exfat_format_partition_gpt(device_, &row, 262145, 1000, false, nullptr, monitor_.get()), 22);
    EXPECT_EQ(monitor_.errors, std::vector<std::string>{"GPT partitioning must be aligned to a boundary unit. "
                                                        "Partition start: 262145, boundary unit: 262144"});
    EXPECT_EQ(qfs_test::image_fingerprint(image_), before_);
}

TEST_F(PartitionWriterRefusals, NoBoundaryUnitAndOversizedFatPartitions) {
    const tca_param no_unit{67108863, 0, 0, 0, 0, 0, false, false};
    EXPECT_EQ(exfat_format_create_tca_partitioning(device_, &no_unit, 0, 100, 131072, false, nullptr, monitor_.get()),
              22);
    EXPECT_EQ(fat_format_create_tca_partitioning(device_, &no_unit, 0, 100, 131072, false, nullptr, monitor_.get()), 22);
    const tca_param fat_row{66945024, 8192001, 8192, 64, 255, 63, true, true};
    EXPECT_EQ(fat_format_create_tca_partitioning(device_, &fat_row, 8192, 1ull << 32, 1ull << 33, false, nullptr,
                                                 monitor_.get()),
              22);
    EXPECT_EQ(fat_format_create_tca_partitioning(device_, &fat_row, 1ull << 32, 8192, 1ull << 33, false, nullptr,
                                                 monitor_.get()),
              22);
    const std::vector<std::string> expected = {
        "'tca-whole' - Volume is too large for TCA recommendations to apply.",
        "'tca-whole' - Volume is too large for TCA recommendations to apply.",
        "Error: Specified sector count is out of bounds for MBR partitioning.",
        "Error: Specified start sector is out of bounds for MBR partitioning.",
    };
    EXPECT_EQ(monitor_.errors, expected);
    testing::internal::CaptureStderr();
    EXPECT_EQ(fat_format_create_tca_partitioning(device_, &fat_row, 8192, 1ull << 32, 131072, false, nullptr,
                                                 monitor_.get()),
              6);
    EXPECT_NE(testing::internal::GetCapturedStderr().find(
                  "Internal error: Device size is inconsistent with partition start sector or sector count"),
              std::string::npos);
    EXPECT_EQ(qfs_test::image_fingerprint(image_), before_);
}

} // namespace
