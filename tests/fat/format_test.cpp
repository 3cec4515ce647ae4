// The FAT engine's writes as the card sees them, through the recording
// device layer: a whole FAT32 card, the same with the short FAT and without
// syncs, and a partitioning-only run.
//
// The 4211713-sector card (see cli/fat_cards_test.cpp): partition at 8192 sectors (4 MiB),
// 7166 reserved sectors, 2 FATs of 513 sectors, the root directory in cluster 2
// at volume sector 7166 + 1026 = 8192, 65552 clusters of 32 KiB. The boot
// region is sectors 0 to 2, its backup sectors 6 to 8.
#include "fat/fat_test_support.h"
#include "fat/format.h"
#include "harness/recording_device.h"

namespace {

using qfs_test::recording_device;

constexpr uint64_t mib = 1048576;
constexpr uint64_t card_bytes = 4211713ull * 512;
constexpr uint64_t volume = 4 * mib;
constexpr uint64_t fats = volume + 7166 * 512;
constexpr uint64_t fat_bytes = 513 * 512;

std::string zero(uint64_t position, uint64_t length) { return recording_device::entry("zero", position, length); }
std::string write(uint64_t position, uint64_t length) { return recording_device::entry("write", position, length); }

struct run_case {
    const char *name;
    bool short_fat, no_sync, partitioning_only;
    std::vector<std::string> journal; // after the layout's lines and the zeroed head and tail, each synced
};

const std::vector<std::string> partition_table = {
    "Creating partition table...", "Creating Tarn-compatible partition table...",
    write(0, mib), // the MBR, then zeros up to the partition
    zero(mib, volume - mib)};

std::vector<std::string> joined(std::vector<std::string> a, const std::vector<std::string> &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

TEST(FatFormat, WritesOfAWholeFat32Card) {
    // Without a label the root directory is all zeros. With the short FAT each copy
    // covers entries 0 and 1 and one per cluster: (65552 + 2) * 4 bytes.
    const run_case cases[] = {
        {"whole", false, false, false,
         joined({"Writing root directory...", zero(volume + 8192 * 512, 32768),
                 "Writing file allocation table...", write(fats, 2 * fat_bytes),
                 "Writing reserved region...", zero(volume + 9 * 512, (7166 - 9) * 512),
                 "Writing backup boot region...", write(volume + 6 * 512, 3 * 512),
                 // FSInfo and the third boot sector, then zeros up to the backup.
                 "Writing FSInfo sector...", write(volume + 512, 5 * 512),
                 "sync", "Writing boot region...", write(volume, 512)},
                joined(partition_table, {"Syncing device...", "sync", "refresh"}))},
        {"short FAT without syncs", true, true, false,
         joined({"Writing root directory...", zero(volume + 8192 * 512, 32768),
                 "Writing file allocation table...", write(fats, 262216), write(fats + fat_bytes, 262216),
                 "Writing backup boot region...", write(volume + 6 * 512, 3 * 512),
                 "Writing FSInfo sector...", write(volume + 512, 5 * 512),
                 // The boot sector still waits for everything else to be durable.
                 "sync", "Writing boot region...", write(volume, 512)},
                joined(partition_table, {"refresh"}))},
        {"partitioning only", false, false, true, joined(partition_table, {"Syncing device...", "sync", "refresh"})},
    };
    for (const run_case &c : cases) {
        SCOPED_TRACE(c.name);
        qfs_test::temp_dir dir;
        const std::string image = dir.file("card.img");
        qfs_test::make_sparse_image(image, card_bytes);
        qfs_exfat_test::recorded_monitor monitor;
        recording_device device(image, &monitor.infos);
        const uint32_t serial = 0x1234ABCD;
        ASSERT_EQ(fat_format_volume(device.get(), false, c.short_fat, false, c.no_sync, false, FAT_DISCARD_NONE,
                                    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                    nullptr, 437, nullptr, 0, &serial, false, true, false, c.partitioning_only, false,
                                    monitor.get()),
                  QFS_OK);
        const std::vector<std::string> expected = joined(
            {"Sector size: 512 bytes", "Volume size: 4203521 sectors (2152202752 bytes)", "Cluster size: 32768 bytes",
             "FAT: 32 bits", "Overwriting the beginning of the device with zeroed data...", zero(0, volume + mib),
             "sync", "Overwriting the end of the device with zeroed data...", zero(card_bytes - mib, mib), "sync"},
            c.journal);
        EXPECT_EQ(monitor.infos, expected);
        EXPECT_EQ(monitor.fs_name, "FAT32");
        EXPECT_EQ(monitor.free_space, 65551ull * 32768);
    }
}

} // namespace
