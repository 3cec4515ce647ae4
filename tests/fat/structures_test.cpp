// The bytes of the sectors a new FAT volume receives, and the label rules.
#include "fat/fat_test_support.h"
#include "fat/util.h"
#include "harness/recorded_monitor.h"
#include "support/qfs_unistr.h"

using namespace fat_test;
using qfs_exfat_test::recorded_monitor;

namespace {

const uint32_t serial = 0xCAFEF00D;

std::vector<uint8_t> boot_sector(uint64_t sectors, uint8_t fat_type, const std::vector<uint8_t> &label = {},
                                 uint32_t sector_size = 512, uint64_t start = 63) {
    std::vector<uint8_t> b(sector_size);
    recorded_monitor m;
    EXPECT_EQ(fat_format_fill_boot_sector(sector_size, sectors, 4, 1, 2, 512, 63, 255, fat_type, 16, start, &serial,
                                          label.empty() ? nullptr : label.data(), uint8_t(label.size()), 6, b.data(),
                                          m.get()),
              QFS_OK);
    return b;
}

std::string text(const std::vector<uint8_t> &b, size_t at, size_t length) {
    return std::string(b.begin() + long(at), b.begin() + long(at + length));
}

// The fields the whole-card tests read from every card (sector size, cluster size, reserved
// sectors, root entries, FAT size, hidden sectors, type name) are not repeated here.
TEST(FatStructures, Fat16BootSector) {
    // 60000 sectors fit the 16-bit count at offset 19; 70000 go to offset 32.
    const std::vector<uint8_t> small = boot_sector(60000, 16);
    EXPECT_EQ(le(small, 19, 2), 60000u);
    EXPECT_EQ(le(small, 32, 4), 0u);
    const std::vector<uint8_t> b = boot_sector(70000, 16);
    EXPECT_EQ(le(b, 19, 2), 0u);
    EXPECT_EQ(le(b, 32, 4), 70000u);
    struct field {
        size_t at;
        int bytes;
        uint32_t value;
    };
    // The jump EB 00 90, two FATs, a fixed disk's media byte, the geometry, drive 80 and signature 29.
    for (const field f : {field{0, 3, 0x9000EB}, {16, 1, 2}, {21, 1, 0xF8}, {24, 2, 63}, {26, 2, 255}, {36, 1, 0x80},
                          {38, 1, 0x29}, {39, 4, serial}, {510, 2, 0xAA55}})
        EXPECT_EQ(le(b, f.at, f.bytes), f.value) << "at " << f.at;
    EXPECT_EQ(text(b, 3, 8), "MSWIN4.1");
    EXPECT_EQ(text(b, 43, 11), "NO NAME    ");
    EXPECT_EQ(std::count(b.begin() + 62, b.begin() + 510, 0xF4), 448);
    EXPECT_EQ(text(boot_sector(70000, 12, {'D', 'A', 'T', 'A'}), 43, 19), "DATA       FAT12   ");
}

TEST(FatStructures, Fat32BootRegion) {
    fat_layout l{};
    ASSERT_EQ(plan_card(8192000, false, &l), QFS_OK);
    l.sector_size = 4096; // the same figures in 4 KiB sectors show what stays zero
    fat_format_images images{};
    ASSERT_EQ(fat_format_build_images(l, {nullptr, 0, &serial, false}, nullptr, &images), QFS_OK);
    ASSERT_EQ(images.boot_region_size, 3u * 4096);
    const std::vector<uint8_t> r(images.boot_region.get(), images.boot_region.get() + images.boot_region_size);
    struct field {
        size_t at;
        int bytes;
        uint32_t value;
    };
    // Sector size; no root entries, 16-bit counts or FAT16 FAT size; 8183808 sectors in FATs of 999;
    // flags and version 0, root cluster 2, FSInfo in sector 1, the backup in 6; drive 80, signature 29.
    // FSInfo: all clusters but the root's free, the next free one 3, its trail signature.
    for (const field f : {field{11, 2, 4096}, {17, 2, 0}, {19, 2, 0}, {22, 2, 0}, {32, 4, 8183808}, {36, 4, 999},
                          {40, 4, 0}, {44, 4, 2}, {48, 2, 1}, {50, 2, 6}, {64, 1, 0x80}, {66, 1, 0x29}, {510, 2, 0xAA55},
                          {4096 + 488, 4, l.cluster_count - 1}, {4096 + 492, 4, 3}, {4096 + 508, 4, 0xAA550000}})
        EXPECT_EQ(le(r, f.at, f.bytes), f.value) << "at " << f.at;
    EXPECT_TRUE(all_zero(r, 52, 12));
    EXPECT_EQ(text(r, 71, 19), "NO NAME    FAT32   ");
    EXPECT_TRUE(all_zero(r, 512, 4096 - 512));
    EXPECT_EQ(text(r, 4096, 4), "RRaA");
    EXPECT_EQ(text(r, 4096 + 484, 4), "rrAa");
    // The third sector holds its signature at 510 whatever the sector size.
    EXPECT_TRUE(all_zero(r, 8192, 510));
    EXPECT_EQ(le(r, 8192 + 510, 2), 0xAA55u);
    EXPECT_TRUE(all_zero(r, 8192 + 512, 4096 - 512));
    // Outside a card-association run FAT32 entry 1 keeps all 32 bits set; entry 2 ends the root's chain.
    const std::vector<uint8_t> fat(images.fat_sector.get(), images.fat_sector.get() + 12);
    EXPECT_EQ(fat, (std::vector<uint8_t>{0xF8, 0xFF, 0xFF, 0x0F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F}));
}

TEST(FatStructures, LabelEntry) {
    // E5 would mark the entry deleted, so the entry holds 05; the boot sector keeps E5.
    const std::vector<uint8_t> label = {0xE5, 'X'};
    std::vector<uint8_t> root(1024, 0xAA);
    ASSERT_EQ(fat_format_init_root_directory(root.data(), root.size(), label.data(), 2), QFS_OK);
    EXPECT_EQ(text(root, 0, 12), std::string("\x05X         \x08", 12));
    EXPECT_EQ(std::count(root.begin() + 12, root.end(), 0), 1012);
    EXPECT_EQ(boot_sector(70000, 16, label)[43], 0xE5);
    ASSERT_EQ(fat_format_init_root_directory(root.data(), root.size(), nullptr, 0), QFS_OK);
    EXPECT_EQ(std::count(root.begin(), root.end(), 0), 1024);
}

TEST(FatStructures, BootSectorBounds) {
    std::vector<uint8_t> b(512);
    recorded_monitor m;
    testing::internal::CaptureStderr();
    EXPECT_EQ(fat_format_fill_boot_sector(512, 70000, 4, 65536, 2, 512, 63, 255, 16, 16, 0, &serial, nullptr, 0, 0,
                                          b.data(), m.get()),
              QFS_ERR_INTERNAL_ERROR)
        << "65536 reserved sectors do not fit the field";
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(fat_format_fill_boot_sector(512, 1ull << 32, 8, 32, 2, 0, 63, 255, 32, 16, 0, &serial, nullptr, 0, 6,
                                          b.data(), m.get()),
              QFS_ERR_SYS_INVALID_ARGUMENT)
        << "2^32 sectors are beyond FAT32";
    // A start beyond 32 bits is stored as 0.
    EXPECT_EQ(le(boot_sector(70000, 16, {}, 512, 1ull << 32), 28, 4), 0u);
}

TEST(FatLabels, ShortNameRulesAndCapitals) {
    const auto valid = [](uint32_t codepage, const std::string &label) {
        return fat_util_label_is_valid(codepage, reinterpret_cast<const uint8_t *>(label.data()), label.size()) != 0;
    };
    EXPECT_TRUE(valid(437, "MY CARD_1!"));
    EXPECT_TRUE(valid(850, "\x8E"
                           "RGER")); // Ä in code page 850
    for (const char *bad : {"data", " LEAD", "A.B", "A+B", "A\\B", "A\x01"})
        EXPECT_FALSE(valid(437, bad)) << bad;
    // U+85F9 is E5 5C in code page 932: its second byte is no backslash.
    uint8_t bytes[12] = {};
    size_t count = 0;
    const uint16_t ideograph = 0x85F9;
    ASSERT_NE(qfs_unistr_to_codepage(932, &ideograph, 1, nullptr, bytes, sizeof(bytes), &count, 0), nullptr);
    ASSERT_EQ(std::string(reinterpret_cast<char *>(bytes), count), "\xE5\x5C");
    EXPECT_TRUE(fat_util_label_is_valid(932, bytes, count));
    EXPECT_FALSE(fat_util_label_is_valid(437, bytes, count));

}

} // namespace
