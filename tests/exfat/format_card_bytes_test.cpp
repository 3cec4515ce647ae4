// The bytes a format writes on the smallest recommended exFAT card, checked
// against values worked out here by hand.
//
// Card: 67108864 sectors of 512 bytes (32 GiB), recommendation row 2:
// boundary unit 32768 sectors, 256 sectors (128 KiB) per cluster, 255 heads,
// 63 sectors per track.
//   partition start      = one boundary unit            = 32768
//   partition sectors    = 67108864 - 32768             = 67076096
//   alignment            = 32768 / 2 sectors            = 16384 sectors (8 MiB)
//   FAT offset           = roundup(32768 + 24, 16384) - 32768 = 16384
//   clusters, round 1    = (67076096 - 16384) / 256     = 261952
//     FAT sectors        = 2 * ceil(261954 * 4 / 512) = 2 * 2047 = 4094 -> aligned 16384
//   clusters, round 2    = (67076096 - 16384 - 16384) / 256 = 261888 (round 3 repeats it)
//   cluster heap offset  = 16384 + 16384 = 32768 (one boundary unit into the partition)
//   bitmap               = ceil(261888 / 8) = 32736 bytes: 1 cluster at cluster 2
//   up-case table        = 5836 bytes: 1 cluster at cluster 3
//   root directory       = cluster 4
#include <gtest/gtest.h>

#include <cstring>

#include "harness/exfat_image.h"

namespace {

using namespace qfs_exfat_test;

constexpr uint64_t card_sectors = 67108864;
constexpr uint64_t partition_start = 32768;
constexpr uint64_t partition_sectors = 67076096;
constexpr uint64_t volume_byte = partition_start * 512; // byte 0 of the volume on the card
constexpr uint32_t fat_offset = 16384;
constexpr uint32_t heap_offset = 32768;
constexpr uint32_t cluster_count = 261888;
constexpr uint32_t cluster_bytes = 131072;

uint64_t cluster_byte(uint32_t cluster) {
    return volume_byte + static_cast<uint64_t>(heap_offset) * 512 + static_cast<uint64_t>(cluster - 2) * cluster_bytes;
}

class CardBytes : public testing::Test {
protected:
    static void SetUpTestSuite() {
        dir_ = new qfs_test::temp_dir;
        image_ = dir_->file("card.img");
        qfs_test::make_sparse_image(image_, card_sectors * 512);
        // An existing OEM parameter slot that the format must keep: slot 0 with some other GUID.
        std::vector<uint8_t> slot(48);
        for (size_t i = 0; i < slot.size(); ++i) slot[i] = static_cast<uint8_t>(0xC0 + i);
        qfs_test::write_bytes(image_, volume_byte + 9 * 512, slot);
        const std::u16string label = u"Tarn Card";
        format_request request;
        request.label = &label;
        ASSERT_EQ(format_image(image_, request), QFS_OK);
    }
    static void TearDownTestSuite() {
        delete dir_;
        dir_ = nullptr;
    }
    static std::vector<uint8_t> read(uint64_t offset, size_t length) { return qfs_test::read_bytes(image_, offset, length); }

    static qfs_test::temp_dir *dir_;
    static std::string image_;
};
qfs_test::temp_dir *CardBytes::dir_ = nullptr;
std::string CardBytes::image_;

TEST_F(CardBytes, MasterBootRecord) {
    const auto mbr = read(0, 512);
    EXPECT_EQ(std::vector<uint8_t>(mbr.begin(), mbr.begin() + 440), std::vector<uint8_t>(440, 0)) << "no boot code";
    // Not active; start 32768 with 255 heads x 63 sectors: cylinder 32768 / 16065 = 2,
    // remainder 638, head 638 / 63 = 10, sector 638 % 63 + 1 = 9; type 07 (exFAT);
    // the end 67108863 lies on cylinder 4177, beyond 1023: FE FF FF.
    EXPECT_EQ(std::vector<uint8_t>(mbr.begin() + 446, mbr.begin() + 454),
              (std::vector<uint8_t>{0x00, 10, 9, 2, 0x07, 0xFE, 0xFF, 0xFF}));
    EXPECT_EQ(le32(mbr, 446 + 8), partition_start);
    EXPECT_EQ(le32(mbr, 446 + 12), partition_sectors);
    EXPECT_EQ(std::vector<uint8_t>(mbr.begin() + 462, mbr.begin() + 510), std::vector<uint8_t>(48, 0));
    EXPECT_EQ(mbr[510], 0x55);
    EXPECT_EQ(mbr[511], 0xAA);
    EXPECT_TRUE(qfs_test::all_zero(image_, 512, volume_byte - 512)) << "the alignment region is zeroed";
}

TEST_F(CardBytes, BootSector) {
    const auto b = read(volume_byte, 512);
    const uint8_t jump[] = {0xEB, 0x76, 0x90};
    EXPECT_EQ(memcmp(b.data(), jump, 3), 0);
    EXPECT_EQ(std::string(b.begin() + 3, b.begin() + 11), "EXFAT   ");
    EXPECT_EQ(std::vector<uint8_t>(b.begin() + 11, b.begin() + 64), std::vector<uint8_t>(53, 0));
    EXPECT_EQ(le64(b, 64), partition_start);
    EXPECT_EQ(le64(b, 72), partition_sectors);
    EXPECT_EQ(le32(b, 80), fat_offset);
    EXPECT_EQ(le32(b, 84), 16384u);
    EXPECT_EQ(le32(b, 88), heap_offset);
    EXPECT_EQ(le32(b, 92), cluster_count);
    EXPECT_EQ(le32(b, 96), 4u) << "root directory after bitmap and up-case table";
    EXPECT_EQ(le32(b, 100), 0x12345678u);
    EXPECT_EQ(le16(b, 104), 0x0100) << "revision 1.0";
    EXPECT_EQ(le16(b, 106), 0) << "volume flags";
    EXPECT_EQ(b[108], 9) << "512-byte sectors";
    EXPECT_EQ(b[109], 8) << "256 sectors per cluster";
    EXPECT_EQ(b[110], 1) << "one FAT";
    EXPECT_EQ(b[111], 0x80);
    EXPECT_EQ(b[112], 0) << "percent in use";
    EXPECT_EQ(std::vector<uint8_t>(b.begin() + 113, b.begin() + 120), std::vector<uint8_t>(7, 0));
    EXPECT_EQ(std::vector<uint8_t>(b.begin() + 120, b.begin() + 510), std::vector<uint8_t>(390, 0xF4));
    EXPECT_EQ(b[510], 0x55);
    EXPECT_EQ(b[511], 0xAA);
}

TEST_F(CardBytes, BootRegionsAndChecksums) {
    const auto main_region = read(volume_byte, 12 * 512);
    const auto backup_region = read(volume_byte + 12 * 512, 12 * 512);
    EXPECT_EQ(main_region, backup_region);
    for (int sector = 1; sector <= 8; ++sector) {
        SCOPED_TRACE(sector);
        std::vector<uint8_t> expected(512, 0);
        expected[510] = 0x55;
        expected[511] = 0xAA;
        EXPECT_EQ(std::vector<uint8_t>(main_region.begin() + sector * 512, main_region.begin() + (sector + 1) * 512),
                  expected);
    }
    EXPECT_EQ(std::vector<uint8_t>(main_region.begin() + 10 * 512, main_region.begin() + 11 * 512),
              std::vector<uint8_t>(512, 0))
        << "reserved sector";
    const uint32_t checksum = boot_region_checksum(main_region);
    for (size_t i = 0; i < 512; ++i) {
        ASSERT_EQ(main_region[11 * 512 + i], static_cast<uint8_t>(checksum >> (8 * (i % 4)))) << i;
    }
}

TEST_F(CardBytes, OemParametersKeepTheCardsSlotsAndAddFlashParameters) {
    const auto oem = read(volume_byte + 9 * 512, 512);
    for (size_t i = 0; i < 48; ++i) ASSERT_EQ(oem[i], 0xC0 + i) << "slot 0 kept at byte " << i;
    // The first empty slot (slot 1) receives the flash parameters: the GUID
    // 0A0C7E46-3399-4021-90C8-FA6D389C4BA2 in its stored order, then the erase
    // block size boundary_unit * 256 = 8388608 and seven zero fields.
    const uint8_t guid[] = {0x46, 0x7E, 0x0C, 0x0A, 0x99, 0x33, 0x21, 0x40,
                            0x90, 0xC8, 0xFA, 0x6D, 0x38, 0x9C, 0x4B, 0xA2};
    EXPECT_EQ(memcmp(oem.data() + 48, guid, 16), 0);
    EXPECT_EQ(le32(oem, 64), 8388608u);
    EXPECT_EQ(std::vector<uint8_t>(oem.begin() + 68, oem.begin() + 96), std::vector<uint8_t>(28, 0));
    EXPECT_EQ(std::vector<uint8_t>(oem.begin() + 96, oem.end()), std::vector<uint8_t>(512 - 96, 0));
}

TEST_F(CardBytes, FatEntries) {
    const auto fat = read(volume_byte + static_cast<uint64_t>(fat_offset) * 512, 512);
    // Media entry, entry 1, then one-cluster chains: bitmap, up-case table, root directory.
    for (size_t i = 0; i < 5; ++i) EXPECT_EQ(le32(fat, 4 * i), i == 0 ? 0xFFFFFFF8u : 0xFFFFFFFFu) << i;
    EXPECT_EQ(std::vector<uint8_t>(fat.begin() + 20, fat.end()), std::vector<uint8_t>(512 - 20, 0));
    // The rest of the first FAT, (261888 + 2) * 4 bytes, is zeroed.
    EXPECT_TRUE(qfs_test::all_zero(image_, volume_byte + fat_offset * 512ull + 20, (cluster_count + 2) * 4ull - 20));
}

TEST_F(CardBytes, BitmapUpcaseTableAndRootDirectory) {
    const auto bitmap = read(cluster_byte(2), cluster_bytes);
    EXPECT_EQ(bitmap[0], 0x07) << "clusters 2, 3 and 4 in use";
    EXPECT_EQ(std::vector<uint8_t>(bitmap.begin() + 1, bitmap.end()), std::vector<uint8_t>(cluster_bytes - 1, 0));

    const auto upcase = read(cluster_byte(3), cluster_bytes);
    const auto reference = qfs_test::read_bytes(QFS_SOURCE_DIR "/tools/data/exfat-upcase-compressed.bin", 0, 5836);
    ASSERT_EQ(reference.size(), 5836u);
    EXPECT_EQ(std::vector<uint8_t>(upcase.begin(), upcase.begin() + 5836), reference);
    EXPECT_EQ(std::vector<uint8_t>(upcase.begin() + 5836, upcase.end()), std::vector<uint8_t>(cluster_bytes - 5836, 0));

    const auto root = read(cluster_byte(4), cluster_bytes);
    // Volume label "Tarn Card": 9 UTF-16LE characters.
    EXPECT_EQ(root[0], 0x83);
    EXPECT_EQ(root[1], 9);
    const char16_t *text = u"Tarn Card";
    for (int i = 0; i < 9; ++i) EXPECT_EQ(le16(root, 2 + 2 * i), text[i]);
    // Allocation bitmap entry.
    EXPECT_EQ(root[32], 0x81);
    EXPECT_EQ(root[33], 0);
    EXPECT_EQ(le32(root, 32 + 20), 2u);
    EXPECT_EQ(le64(root, 32 + 24), 32736u);
    // Up-case table entry with the table's checksum.
    EXPECT_EQ(root[64], 0x82);
    EXPECT_EQ(le32(root, 64 + 4), 0xE619D30Du);
    EXPECT_EQ(le32(root, 64 + 20), 3u);
    EXPECT_EQ(le64(root, 64 + 24), 5836u);
    // No GUID entry and nothing else.
    EXPECT_EQ(std::vector<uint8_t>(root.begin() + 96, root.end()), std::vector<uint8_t>(cluster_bytes - 96, 0));
}

} // namespace
