// Whole FAT cards of every row's smallest and largest size, formatted from
// the command line and checked from outside: the partition table by sfdisk,
// the boot sector's fields against layouts worked out by hand, the data
// area's place on the card and fsck.fat on the partition (a read-only loop
// device at its offset, so root only). Files that mtools writes onto such
// cards read back through their FAT chains in layout/power_cut_test.cpp.
#include <gtest/gtest.h>

#include "cli/cli_texts.h"
#include "fat/fat_test_support.h"
#include "harness/loop_device.h"

namespace {

using fat_test::le;

struct card_case {
    uint64_t sectors;
    bool relax;
    uint64_t start;
    uint8_t fat_type;
    uint32_t spc, reserved, fat_sectors, root_entries, clusters;
};

// Worked by hand for five rows (the others follow the same steps):
// 3937 (row 2, BU 16, 16 sectors per cluster): the card rules put the
//   partition at 29, leaving 3908 sectors; 1 reserved and 32 root sectors
//   leave n = 3875. Estimate 512*3875*8 / (12*2 + 16*4096) = 242 clusters;
//   (3875 - 2) / 16 + 2 = 244 entries of 12 bits = 366 bytes: 1 sector per
//   FAT; (3875 - 2) / 16 = 242 clusters. Data at 29 + 1 + 2 + 32 = 64 = 4 BU.
// 4153344 (row 12, BU 128, 64 per cluster, FAT16): start 227, n = 4153117 - 33
//   = 4153084; estimate n*4096 / (32 + 64*4096) = 64884 clusters, 64886
//   entries = 129772 bytes: 254 sectors per FAT; (n - 508) / 64 = 64884.
//   Data at 227 + 1 + 508 + 32 = 768 = 6 BU.
// 4211713 (row 15, FAT32, BU 8192): 4203521 sectors from 8192; n = 4203521 - 9
//   (9 reserved on a FAT32 card) = 4203512; estimate n*4096 / (64 + 64*4096) =
//   65664 clusters, 2 FATs of ceil(65666*4 / 512) = 2*514; 8192 + 1028 + 9 lies
//   7155 short of 16384, so n = 4196357; (n - 1028) / 64 + 2 = 65554 entries:
//   513 sectors; (n - 1026) / 64 = 65552 clusters. Reserved = 16384 - 8192 - 1026
//   = 7166, so the data area starts at 16384 = 2 BU.
// 66945024 (row 16): n = 66936823, estimate 1045632 clusters, FATs 2*8170 =
//   16340; 8192 + 16340 + 9 lies 35 short of 24576, n = 66936788; 8170 sectors
//   per FAT, 1045632 clusters; reserved = 24576 - 8192 - 16340 = 44.
// 4210047 relaxed (row 14, FAT16 on a TNB layout): 4201855 sectors from 8192,
//   n = 4201822, estimate 65646 clusters, 2*257 FAT sectors; 8192 + 514 + 9 is
//   7669 short of 16384: n = 4194153, (n - 514) / 64 + 2 = 65527 entries = 256
//   sectors, (n - 512) / 64 = 65525 clusters; reserved 16384 - 8192 - 512 = 7680:
//   the FATs end on a boundary unit and the data area follows 32 root sectors later.
// Every row's smallest and largest card (rows 13 and 14, the gap, only when relaxed).
constexpr card_case fat_cards[] = {
    {3936, false, 29, 12, 16, 1, 1, 512, 242},
    {3937, false, 29, 12, 16, 1, 1, 512, 242},
    {16224, false, 25, 12, 16, 1, 3, 512, 1010},
    {16225, false, 59, 12, 32, 1, 2, 512, 504},
    {32448, false, 57, 12, 32, 1, 3, 512, 1011},
    {32449, false, 57, 12, 32, 1, 3, 512, 1011},
    {64896, false, 51, 12, 32, 1, 6, 512, 2025},
    {64897, false, 51, 12, 32, 1, 6, 512, 2025},
    {129792, false, 39, 12, 32, 1, 12, 512, 4053},
    {129793, false, 71, 12, 32, 1, 12, 512, 4052},
    {259584, false, 95, 16, 32, 1, 32, 512, 8106},
    {259585, false, 95, 16, 32, 1, 32, 512, 8106},
    {519168, false, 95, 16, 32, 1, 64, 512, 16216},
    {519169, false, 223, 16, 32, 1, 64, 512, 16212},
    {1021952, false, 229, 16, 32, 1, 125, 512, 31920},
    {1021953, false, 229, 16, 32, 1, 125, 512, 31920},
    {2043904, false, 235, 16, 32, 1, 250, 512, 63848},
    {2043905, false, 235, 16, 32, 1, 250, 512, 63848},
    {2076672, false, 227, 16, 32, 1, 254, 512, 64872},
    {2076673, false, 225, 16, 64, 1, 127, 512, 32440},
    {4087808, false, 235, 16, 64, 1, 250, 512, 63860},
    {4087809, false, 235, 16, 64, 1, 250, 512, 63860},
    {4153344, false, 227, 16, 64, 1, 254, 512, 64884},
    {4153345, true, 8192, 16, 64, 7686, 253, 512, 64639},
    {4210047, true, 8192, 16, 64, 7680, 256, 512, 65525},
    {4211712, true, 8192, 32, 64, 7166, 513, 0, 65552},
    {4211713, false, 8192, 32, 64, 7166, 513, 0, 65552},
    {8192000, false, 8192, 32, 64, 6194, 999, 0, 127744},
    {8192001, false, 8192, 32, 64, 6194, 999, 0, 127744},
    {66945024, false, 8192, 32, 64, 44, 8170, 0, 1045632},
};

// The boundary unit of a card's row (the card association's table).
uint64_t boundary_unit(uint64_t sectors) {
    return sectors <= 16224 ? 16 : sectors <= 129792 ? 32 : sectors <= 519168 ? 64 : sectors <= 4153344 ? 128 : 8192;
}

// The MBR partition type follows the partition's size alone.
unsigned mbr_type(uint64_t start, uint64_t count) {
    if (count <= 32679) return 0x01;
    if (count <= 65535) return 0x04;
    if (start + count < 4210048) return 0x06;
    return count <= 16450560 ? 0x0B : 0x0C; // 1024 cylinders of 255 heads and 63 sectors
}

// What the card holds after a format: the table, the boot sector and fsck.fat's view.
void expect_card_holds(const std::string &image, const card_case &c) {
    const uint64_t count = c.sectors - c.start;
    char line[128];
    snprintf(line, sizeof(line), "%s1 : start=%12llu, size=%12llu, type=%x\n", image.c_str(),
             static_cast<unsigned long long>(c.start), static_cast<unsigned long long>(count), mbr_type(c.start, count));
    const std::string table = qfs_test::must_run({"sfdisk", "-d", image});
    EXPECT_NE(table.find(line), std::string::npos) << table;

    const std::vector<uint8_t> boot = qfs_test::read_bytes(image, c.start * 512, 512);
    const bool fat32 = c.fat_type == 32;
    EXPECT_EQ(le(boot, 11, 2), 512u);
    EXPECT_EQ(boot[13], c.spc);
    EXPECT_EQ(le(boot, 14, 2), c.reserved);
    EXPECT_EQ(le(boot, 17, 2), c.root_entries);
    EXPECT_EQ(fat32 ? le(boot, 36, 4) : le(boot, 22, 2), c.fat_sectors);
    EXPECT_EQ(le(boot, 28, 4), c.start) << "hidden sectors";
    const std::string type_name(boot.begin() + (fat32 ? 82 : 54), boot.begin() + (fat32 ? 90 : 62));
    EXPECT_EQ(type_name, "FAT" + std::to_string(c.fat_type) + "   ");
    // Counted from the card's start with the boot sector's own fields. On the FAT16
    // layout of a TNB card the FATs end on the boundary unit, before the root directory.
    const uint64_t root_sectors = le(boot, 17, 2) * 32 / 512;
    const uint64_t data = c.start + le(boot, 14, 2) + 2ull * (fat32 ? le(boot, 36, 4) : le(boot, 22, 2)) + root_sectors;
    const bool tnb_fat16 = boundary_unit(c.sectors) == 8192 && !fat32;
    EXPECT_EQ((data - (tnb_fat16 ? root_sectors : 0)) % boundary_unit(c.sectors), 0u) << "data area at " << data;

    QFS_ATTACH_LOOP_OR_SKIP(partition, image, {.offset = c.start * 512, .read_only = true});
    const fat_test::fsck_report fsck = fat_test::run_fsck(partition->path());
    // The largest relaxed gap cards get 65525 clusters, still FAT16 by the card rules; fsck.fat
    // (like the FAT definition it follows, FAT16 below 65525) counts that as FAT32's.
    if (c.fat_type == 16 && c.clusters == 65525) {
        EXPECT_NE(fsck.output.find("Too many clusters (65525) for FAT16 filesystem."), std::string::npos);
        return;
    }
    EXPECT_EQ(fsck.status, 0) << fsck.output;
    EXPECT_EQ(fsck.total, c.clusters);
    EXPECT_EQ(fsck.used, fat32 ? 1u : 0u) << "FAT32's root directory takes the only used cluster";
}

class FatCards : public testing::Test {
protected:
    void SetUp() override {
        for (const char *tool : {"sfdisk", "fsck.fat"})
            if (!qfs_test::have_program(tool)) GTEST_SKIP() << tool << " is not installed";
    }
    std::string card(uint64_t sectors) {
        const std::string image = dir_.file("card.img");
        qfs_test::make_sparse_image(image, sectors * 512);
        return image;
    }
    qfs_test::temp_dir dir_;
};

TEST_F(FatCards, EveryRowsEdgesFormatAsWorkedOut) {
    for (const card_case &c : fat_cards) {
        SCOPED_TRACE(c.sectors);
        const std::string image = card(c.sectors);
        std::vector<std::string> args = {"-l", "tarn", image};
        if (c.relax) args.insert(args.begin(), "--tca-relax");
        const auto r = qfs_test::run_tool(args);
        ASSERT_EQ(r.exit_status, 0) << r.err;
        const std::string cluster_bytes = std::to_string(c.spc * 512);
        EXPECT_EQ(r.err.rfind(qfs_test::banner + (c.sectors <= 4153344 ? "Tarn" : "TNB") + " formatting of \"" +
                                  image + "\" was successfully completed.\nVolume information:\n\tFile system: FAT" +
                                  std::to_string(c.fat_type) + "\n\tCapacity: ",
                              0),
                  0u)
            << r.err;
        for (const std::string &part : {"(" + std::to_string((c.sectors - c.start) * 512) + " bytes)\n\tFree space: ",
                                        "(" + std::to_string((c.clusters - 1ull) * c.spc * 512) + " bytes)\n",
                                        "(" + cluster_bytes + " bytes)\n\tVolume label: TARN\n"})
            EXPECT_NE(r.err.find(part), std::string::npos) << part;
        expect_card_holds(image, c);
    }
}

TEST_F(FatCards, GapCardsNeedRelaxing) {
    for (const uint64_t sectors : {4153345ull, 4210047ull, 4211712ull}) {
        SCOPED_TRACE(sectors);
        const std::string image = card(sectors);
        const std::string before = qfs_test::image_fingerprint(image);
        const auto r = qfs_test::run_tool({image});
        EXPECT_EQ(r.exit_status, 1);
        EXPECT_EQ(r.err, qfs_test::banner + "ERROR: 'tca-whole' - Device with " + std::to_string(sectors) +
                             " sectors is too small for TNB and too large for Tarn recommendations to apply.\n"
                             "Formatting failed!\n");
        EXPECT_EQ(qfs_test::image_fingerprint(image), before);
    }
}

// Partitions that end on a whole cylinder of the row's geometry, while the card has fewer than 1024.
//  16224 (2 heads, 32 sectors: cylinders of 64): 253 cylinders end at 16192. The card rules for
//    16192 sectors: E = 16159 * 4096 / 65560 = 1009, 2 FATs of 3 sectors, start 25 (39 rounds up to
//    48, less than a boundary unit in: plus 16); (16192 - 25 - 39) / 16 = 1008 clusters, FAT12.
//  8192000 (128 heads, 63 sectors: 8064): 1015 cylinders end at 8184960, above 4209983: FAT32 from
//    8192, 8176768 sectors. n = 8176768 - 9, about 127730 clusters, 2 FATs of 998 sectors; 8192 +
//    1996 + 9 rounds up to 16384: 6196 reserved, (8176768 - 6196 - 1996) / 64 = 127634 clusters.
//  66945024 (255 heads, 63 sectors): 4167 cylinders, nothing changes.
constexpr card_case cylinder_cards[] = {
    {16224, false, 25, 12, 16, 1, 3, 512, 1008},
    {8192000, false, 8192, 32, 64, 6196, 998, 0, 127634},
    {66945024, false, 8192, 32, 64, 44, 8170, 0, 1045632},
};
constexpr uint64_t cylinder_card_ends[] = {16192, 8184960, 66945024};

TEST_F(FatCards, AlignedToCylinders) {
    for (size_t i = 0; i < std::size(cylinder_cards); ++i) {
        card_case c = cylinder_cards[i];
        SCOPED_TRACE(c.sectors);
        const std::string image = card(c.sectors);
        const auto r = qfs_test::run_tool({"--tca-align-to-cylinder", image});
        ASSERT_EQ(r.exit_status, 0) << r.err;
        // The sectors behind the last whole cylinder stay outside the partition.
        c.sectors = cylinder_card_ends[i];
        expect_card_holds(image, c);
    }
}

// One card of each FAT type, used with mtools: a directory tree, a file over
// many clusters and a long file name come back as written, and fsck.fat
// still finds nothing wrong.
TEST_F(FatCards, FilesWrittenByMtoolsReadBack) {
    for (const char *tool : {"mcopy", "mmd", "mdir"})
        if (!qfs_test::have_program(tool)) GTEST_SKIP() << tool << " is not installed";
    // 3 MiB of varied bytes: 384 clusters of 8 KiB on the FAT12 card, 48 of 64 KiB on the others.
    const std::string payload = dir_.file("payload.bin");
    std::vector<uint8_t> bytes(3 * 1048576);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 2654435761u >> 13);
    qfs_test::make_sparse_image(payload, 0);
    qfs_test::write_bytes(payload, 0, bytes);
    for (const card_case &c : fat_cards) {
        if (c.sectors != 16224 && c.sectors != 1021952 && c.sectors != 4211713) continue;
        SCOPED_TRACE(c.sectors);
        const std::string image = card(c.sectors);
        ASSERT_EQ(qfs_test::run_tool({"-l", "FILES", image}).exit_status, 0);
        const std::string volume = image + "@@" + std::to_string(c.start * 512);
        qfs_test::must_run({"mmd", "-i", volume, "::/Photos", "::/Photos/2026"});
        qfs_test::must_run({"mcopy", "-i", volume, payload, "::/Photos/2026/payload.bin"});
        qfs_test::must_run({"mcopy", "-i", volume, payload, "::/A rather long file name.data"});
        const std::string listing = qfs_test::must_run({"mdir", "-i", volume, "::/"});
        EXPECT_NE(listing.find("A rather long file name.data"), std::string::npos) << listing;
        EXPECT_NE(listing.find("Volume in drive : is FILES"), std::string::npos) << listing;
        for (const char *name : {"::/Photos/2026/payload.bin", "::/A rather long file name.data"}) {
            const std::string back = dir_.file("back.bin");
            qfs_test::must_run({"mcopy", "-n", "-i", volume, name, back});
            EXPECT_EQ(qfs_test::read_bytes(back, 0, bytes.size() + 1), bytes) << name;
        }
        QFS_ATTACH_LOOP_OR_SKIP(partition, image, {.offset = c.start * 512, .read_only = true});
        EXPECT_EQ(fat_test::run_fsck(partition->path()).status, 0);
    }
}

} // namespace
