// --check-capacity on real block devices: a loop device over a FUSE file
// that claims 8 GiB and keeps 512 MiB (writes past that land on the start),
// and loop devices over plain sparse images that store what they claim.
#include <gtest/gtest.h>
#include <unistd.h>

#include <regex>

#include "harness/loop_device.h"
#include "harness/process.h"
#include "harness/temp_files.h"

namespace {

constexpr uint64_t MiB = UINT64_C(1) << 20;

// The fake card's file system, mounted for the life of the object.
class fake_card_mount {
public:
    fake_card_mount(const std::string &dir, const std::string &backing, uint64_t claimed) : dir_(dir) {
        qfs_test::run_command({"bash", "-c", "setsid /usr/bin/python3 " QFS_SOURCE_DIR "/tests/cli/fake_card_fuse.py " +
                                                 dir + " " + backing + " " + std::to_string(claimed) +
                                                 " >/dev/null 2>&1 &"});
        for (int i = 0; i < 100 && access(card().c_str(), F_OK) != 0; ++i) usleep(50000);
    }
    ~fake_card_mount() { qfs_test::run_command({"fusermount", "-u", dir_}); }
    std::string card() const { return dir_ + "/card"; }

private:
    std::string dir_;
};

TEST(CapacityCheck, FakeCardIsRefusedWithItsRealSizeAndLeftAsItWas) {
    if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "no /dev/fuse to build a fake card with";
    if (qfs_test::run_command({"/usr/bin/python3", "-c", "import fusepy"}).exit_status != 0) {
        GTEST_SKIP() << "python3-fusepy is not installed";
    }
    qfs_test::temp_dir dir;
    const std::string backing = dir.file("flash");
    qfs_test::make_sparse_image(backing, 512 * MiB);
    // Something to lose: bytes at the start, where the wrapped writes land, and in the middle.
    qfs_test::write_bytes(backing, 0, std::vector<uint8_t>(4096, 0xA5));
    qfs_test::write_bytes(backing, 300 * MiB, std::vector<uint8_t>(4096, 0x5A));
    const std::string before = qfs_test::image_fingerprint(backing);
    qfs_test::must_run({"mkdir", dir.file("mnt")});
    const fake_card_mount mount(dir.file("mnt"), backing, 8192 * MiB);
    ASSERT_EQ(access(mount.card().c_str(), F_OK), 0) << "the fake card did not appear";
    {
        QFS_ATTACH_LOOP_OR_SKIP(loop, mount.card());
        const auto run = qfs_test::run_tool({"--check-capacity", loop->path()});
        EXPECT_EQ(run.exit_status, 1) << run.err;
        std::smatch found;
        ASSERT_TRUE(std::regex_search(run.err, found, std::regex("claims 8.0 GiB \\(8589934592 bytes\\) but stores "
                                                                 "only [0-9.]+ MiB \\(([0-9]+) bytes\\)")))
            << run.err;
        const uint64_t real = std::stoull(found[1]);
        EXPECT_LE(real, 512 * MiB);
        EXPECT_GE(real, 512 * MiB - 512 * MiB / 100);
        EXPECT_NE(run.err.find("overwrites earlier data"), std::string::npos);
        EXPECT_EQ(run.err.find("successfully completed"), std::string::npos);
    }
    EXPECT_EQ(qfs_test::image_fingerprint(backing), before);
}

TEST(CapacityCheck, GenuineCardPassesAndIsFormatted) {
    const struct {
        uint64_t bytes;
        const char *fsck;
    } cards[] = {{64 * 1024 * MiB, "fsck.exfat"}, {1024 * MiB, "fsck.fat"}};
    for (const auto &card : cards) {
        qfs_test::temp_dir dir;
        qfs_test::make_sparse_image(dir.file("card"), card.bytes);
        QFS_ATTACH_LOOP_OR_SKIP(loop, dir.file("card"));
        const auto run = qfs_test::run_tool({"--check-capacity", loop->path()});
        EXPECT_EQ(run.exit_status, 0) << run.err;
        EXPECT_TRUE(std::regex_search(run.err, std::regex("\nCapacity check passed: [0-9]+ addresses across all of "
                                                          "[0-9.]+ [GM]iB \\([0-9]+ bytes\\) read back right in ")))
            << run.err;
        loop->scan_partitions();
        qfs_test::expect_clean({card.fsck, "-n", loop->partition(1)});
    }
}

TEST(CapacityCheck, ImageFileIsFormattedWithoutTheCheck) {
    qfs_test::temp_dir dir;
    qfs_test::make_sparse_image(dir.file("card.img"), 64 * MiB);
    const auto run = qfs_test::run_tool({"--check-capacity", dir.file("card.img")});
    EXPECT_EQ(run.exit_status, 0) << run.err;
    EXPECT_NE(run.err.find("Capacity check skipped: \"" + dir.file("card.img") +
                           "\" is an image file, which holds whatever it is given.\n"),
              std::string::npos);
}

} // namespace
