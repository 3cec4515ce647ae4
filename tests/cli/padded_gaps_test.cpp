// A quick format over a card that held another volume: every area the format
// pads (between the MBR and the volume, between the boot regions and the FAT,
// the FAT's entries, the reserved region, the root directory and the exFAT
// structures' clusters) holds no old byte afterwards. Where the areas lie is
// read from the first format's own MBR and boot sector; old bytes are then
// planted there and the card formatted again. fsck then checks the partition,
// cut out of the image, without root.
#include <gtest/gtest.h>

#include <cstring>
#include <string_view>

#include "harness/partition_image.h"
#include "harness/process.h"
#include "harness/temp_files.h"
#include "support/qfs_endian.h"

namespace {

struct area {
    uint64_t from, to;
    const char *name;
};

struct partition {
    uint64_t start, length;
};

partition partition_of(const std::string &image) {
    const auto entry = qfs_test::read_bytes(image, 446, 16);
    return {get_le32(entry.data(), 8) * 512ull, get_le32(entry.data(), 12) * 512ull};
}

bool is_exfat(const std::vector<uint8_t> &boot) { return memcmp(boot.data() + 3, "EXFAT   ", 8) == 0; }

std::vector<area> padded_areas(const std::string &image) {
    const uint64_t volume = partition_of(image).start;
    const auto boot = qfs_test::read_bytes(image, volume, 512);
    std::vector<area> areas{{512, volume, "between the MBR and the volume"}};
    if (is_exfat(boot)) {
        const uint64_t sector = 1ull << boot[108], cluster = sector << boot[109];
        const uint64_t fat = volume + get_le32(boot.data(), 80) * sector;
        const uint64_t heap = volume + get_le32(boot.data(), 88) * sector;
        // Bitmap, up-case table and root directory lead the heap, the root directory last.
        const uint64_t root_end = heap + (get_le32(boot.data(), 96) - 1ull) * cluster;
        areas.push_back({volume + 24 * sector, fat, "between the boot regions and the FAT"});
        areas.push_back({fat, fat + (get_le32(boot.data(), 92) + 2ull) * 4, "the FAT's entries"});
        areas.push_back({heap, root_end, "the clusters of bitmap, up-case table and root directory"});
    } else {
        const uint64_t sector = get_le16(boot.data(), 11);
        const uint64_t fat_sectors = get_le16(boot.data(), 22) ? get_le16(boot.data(), 22) : get_le32(boot.data(), 36);
        // FAT32 keeps its root directory in the data area's first cluster.
        const uint64_t root_bytes = get_le16(boot.data(), 17) ? get_le16(boot.data(), 17) * 32ull : boot[13] * sector;
        const uint64_t root_end = volume + (get_le16(boot.data(), 14) + boot[16] * fat_sectors) * sector + root_bytes;
        areas.push_back({volume + sector, root_end, "the reserved region, the FATs and the root directory"});
    }
    return areas;
}

constexpr std::string_view old_bytes = "OLD CARD";

void plant_old_bytes(const std::string &image, const area &a) {
    std::vector<uint8_t> bytes(a.to - a.from);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(old_bytes[i % old_bytes.size()]);
    qfs_test::write_bytes(image, a.from, bytes);
}

bool holds_old_bytes(const std::string &image, const area &a) {
    const auto bytes = qfs_test::read_bytes(image, a.from, a.to - a.from);
    return std::string_view(reinterpret_cast<const char *>(bytes.data()), bytes.size()).find(old_bytes) !=
           std::string_view::npos;
}

TEST(PaddedGaps, QuickFormatLeavesNoOldBytesInAPaddedArea) {
    struct card {
        uint64_t sectors;
        const char *fsck;
    };
    // The smallest exFAT card, a FAT32 card and a FAT16 card.
    const card cards[] = {{67108864, "fsck.exfat"}, {8388608, "fsck.fat"}, {262144, "fsck.fat"}};
    qfs_test::temp_dir dir;
    for (const card &c : cards) {
        SCOPED_TRACE(c.sectors);
        const std::string image = dir.file("card.img");
        qfs_test::make_sparse_image(image, c.sectors * 512);
        ASSERT_EQ(qfs_test::run_tool({image}).exit_status, 0);
        const std::vector<area> areas = padded_areas(image);
        for (const area &a : areas) plant_old_bytes(image, a);
        const auto again = qfs_test::run_tool({image});
        ASSERT_EQ(again.exit_status, 0) << again.err;
        for (const area &a : areas) EXPECT_FALSE(holds_old_bytes(image, a)) << a.name;

        if (!qfs_test::have_program(c.fsck)) continue;
        const std::string volume = dir.file("volume.img");
        qfs_test::cut_partition(image, partition_of(image).start, partition_of(image).length, volume);
        const auto fsck = qfs_test::run_command({c.fsck, "-n", volume});
        EXPECT_EQ(fsck.exit_status, 0) << fsck.out << fsck.err;
    }
}

// Two formats of the same card write two different, non-zero disk signatures.
TEST(MbrDiskSignature, IsWrittenAndNewOnEachFormat) {
    qfs_test::temp_dir dir;
    std::vector<uint32_t> signatures;
    for (int run = 0; run < 2; ++run) {
        const std::string image = dir.file("card.img");
        qfs_test::make_sparse_image(image, 16 << 20);
        ASSERT_EQ(qfs_test::run_tool({image}).exit_status, 0);
        signatures.push_back(get_le32(qfs_test::read_bytes(image, 440, 4).data(), 0));
    }
    EXPECT_NE(signatures[0], 0u);
    EXPECT_NE(signatures[1], 0u);
    EXPECT_NE(signatures[0], signatures[1]);
}

} // namespace
