// Whole cards of every exFAT size class, formatted from the command line and
// checked with independent tools. Expected layouts, worked out by hand:
//
//  card        sectors      row  BU      cluster  partition start/count       clusters
//  32 GiB      67108864     2    32768   128 KiB  32768 / 67076096            261888
//  64 GiB      134217728    2    32768   128 KiB  32768 / 134184960           524032
//  256 GiB     536870912    3    65536   256 KiB  65536 / 536805376           1048320
//  1 TiB       2147483648   4    131072  512 KiB  131072 / 2147352576         2096896
//  2.5 TiB     5368709120   6    262144  1 MiB    262144 / 5368184832 (GPT)   2621056
//
// e.g. 256 GiB: FAT offset roundup(65536 + 24, 32768) - 65536 = 32768; clusters
// (536805376 - 32768) / 512 = 1048384 need 2 * ceil(1048386 * 4 / 512) = 16382
// FAT sectors, aligned 32768; then (536805376 - 65536) / 512 = 1048320, which repeats.
// Free space is (clusters - 3) * cluster size: bitmap, up-case table and root take one cluster each.
#include <gtest/gtest.h>

#include "cli/cli_texts.h"
#include "exfat/volume.h"
#include "harness/device_handle.h"
#include "harness/loop_device.h"
#include "harness/process.h"
#include "harness/temp_files.h"

namespace {

struct card_case {
    const char *name;
    uint64_t sectors;
    const char *card_class;
    uint64_t partition_start, partition_sectors;
    const char *capacity, *free, *cluster;
    bool gpt;
    uint64_t free_bytes;
    uint32_t cluster_bytes;
};

// Opens the card's partition read-only with the tool's own volume code.
void expect_reader_agrees(const std::string &path, const card_case &c) {
    qfs_device_test::device_handle device;
    qfs_device_test::open_device(device, path, QFS_DEVICE_FLAG_READ_ONLY);
    ASSERT_EQ(qfs_device_set_range(device, c.partition_start * 512, c.partition_sectors * 512), QFS_OK);
    exfat_volume *volume = nullptr;
    ASSERT_EQ(exfat_volume_create(device, EXFAT_VOLUME_READ_ONLY, &volume), QFS_OK);
    exfat_volume_info info{};
    EXPECT_EQ(exfat_volume_get_info(volume, &info), QFS_OK);
    EXPECT_STREQ(exfat_volume_get_label(volume), "TARN");
    EXPECT_EQ(info.cluster_size, c.cluster_bytes);
    EXPECT_EQ(info.free_clusters * info.cluster_size, c.free_bytes);
    EXPECT_EQ(info.volume_length, c.partition_sectors);
    EXPECT_FALSE(info.dirty) << "the tool's verification leaves the volume clean";
    EXPECT_EQ(exfat_volume_close(volume), QFS_OK);
    EXPECT_EQ(exfat_volume_destroy(&volume), QFS_OK);
}

void PrintTo(const card_case &c, std::ostream *os) { *os << c.name; }

class ExfatCards : public testing::TestWithParam<card_case> {};

TEST_P(ExfatCards, FormatReportAndIndependentChecks) {
    const card_case &c = GetParam();
    qfs_test::temp_dir dir;
    const std::string path = dir.file("card.img");
    qfs_test::make_sparse_image(path, c.sectors * 512);
    const auto r = qfs_test::run_tool({"-l", "TARN", path});
    ASSERT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(r.err, qfs_test::banner + c.card_class + " formatting of \"" + path +
                         "\" was successfully completed.\nVolume information:\n\tFile system: exFAT\n\tCapacity: " +
                         c.capacity + "\n\tFree space: " + c.free + "\n\tCluster size: " + c.cluster +
                         "\n\tVolume label: TARN\n");

    if (c.gpt) {
        ASSERT_TRUE(qfs_test::have_program("sgdisk"));
        const auto verify = qfs_test::run_command({"sgdisk", "-v", path});
        EXPECT_NE(verify.out.find("No problems found."), std::string::npos) << verify.out;
        const std::string info = qfs_test::must_run({"sgdisk", "-i", "1", path});
        EXPECT_NE(info.find("First sector: " + std::to_string(c.partition_start) + " "), std::string::npos) << info;
        EXPECT_NE(info.find("Last sector: " + std::to_string(c.partition_start + c.partition_sectors - 1) + " "),
                  std::string::npos)
            << info;
        for (const char *line : {"Partition GUID code: EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", "Partition name: 'Primary'",
                                 "Attribute flags: 0000000000000000"})
            EXPECT_NE(info.find(line), std::string::npos) << line;
        const std::string listed = qfs_test::must_run({"sgdisk", "-p", path});
        EXPECT_NE(listed.find("First usable sector is " + std::to_string(c.partition_start) + ", last usable sector is " +
                              std::to_string(c.partition_start + c.partition_sectors - 1)),
                  std::string::npos)
            << listed;
        EXPECT_NE(listed.find("\n   1 "), std::string::npos);
        EXPECT_EQ(listed.find("\n   2 "), std::string::npos) << "exactly one partition";
        // The protective MBR: one entry of type EE from sector 1 over all an MBR can address.
        const std::vector<uint8_t> entry = {0, 0, 2, 0, 0xEE, 0xFF, 0xFF, 0xFF, 1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF};
        EXPECT_EQ(qfs_test::read_bytes(path, 446, 16), entry);
        EXPECT_TRUE(qfs_test::all_zero(path, 462, 48));
    } else {
        ASSERT_TRUE(qfs_test::have_program("sfdisk"));
        const std::string table = qfs_test::must_run({"sfdisk", "-d", path});
        char line[128];
        snprintf(line, sizeof(line), "%s1 : start=%12llu, size=%12llu, type=7\n", path.c_str(),
                 static_cast<unsigned long long>(c.partition_start),
                 static_cast<unsigned long long>(c.partition_sectors));
        EXPECT_NE(table.find(line), std::string::npos) << table;
        EXPECT_EQ(table.find(path + "2"), std::string::npos) << "exactly one partition";
    }

    expect_reader_agrees(path, c);

    ASSERT_TRUE(qfs_test::have_program("fsck.exfat"));
    QFS_ATTACH_LOOP_OR_SKIP(partition, path, {.offset = c.partition_start * 512, .read_only = true});
    qfs_test::expect_clean({"fsck.exfat", "-n", partition->path()});
}

const card_case cards[] = {
    {"Card32GiB", 67108864, "TNC", 32768, 67076096, "32.0 GiB (34342961152 bytes)", "32.0 GiB (34325790720 bytes)",
     "128.0 kiB (131072 bytes)", false, 34325790720, 131072},
    {"Card64GiB", 134217728, "TNC", 32768, 134184960, "64.0 GiB (68702699520 bytes)", "64.0 GiB (68685529088 bytes)",
     "128.0 kiB (131072 bytes)", false, 68685529088, 131072},
    {"Card256GiB", 536870912, "TNC", 65536, 536805376, "256.0 GiB (274844352512 bytes)",
     "255.9 GiB (274810011648 bytes)", "256.0 kiB (262144 bytes)", false, 274810011648, 262144},
    {"Card1TiB", 2147483648, "TNC", 131072, 2147352576, "1023.9 GiB (1099444518912 bytes)",
     "1023.9 GiB (1099375837184 bytes)", "512.0 kiB (524288 bytes)", false, 1099375837184, 524288},
    {"Card2_5TiB", 5368709120, "TNE", 262144, 5368184832, "2.5 TiB (2748510633984 bytes)",
     "2.5 TiB (2748373270528 bytes)", "1.0 MiB (1048576 bytes)", true, 2748373270528, 1048576},
};

INSTANTIATE_TEST_SUITE_P(Cli, ExfatCards, testing::ValuesIn(cards), [](const auto &info) { return info.param.name; });

} // namespace
