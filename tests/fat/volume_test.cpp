// The engine's structures checked from outside: fsck.fat and the tool's own
// reader on volumes written at the layout's offsets, and the reader on
// volumes that mkfs.fat made or that were damaged on purpose.
#include <cstdio>
#include <cstring>

#include "fat/fat_test_support.h"

using namespace fat_test;

namespace {

// fsck.fat finds no fault, and the reader sees the FAT type, the clusters and
// the used clusters that fsck.fat sees; answers the used clusters.
uint64_t expect_clean_and_read_back(const std::string &image, uint8_t fat_type) {
    const fsck_report fsck = run_fsck(image);
    EXPECT_EQ(fsck.status, 0) << fsck.output;
    opened_volume v(image);
    EXPECT_EQ(v.open(), QFS_OK);
    EXPECT_EQ(v.info().fat_type, fat_type);
    EXPECT_EQ(v.info().cluster_count, fsck.total);
    EXPECT_EQ(v.info().cluster_count - v.info().free_clusters, fsck.used);
    return fsck.used;
}

class FatVolume : public testing::Test {
  protected:
    void SetUp() override {
        if (!qfs_test::have_program("fsck.fat") || !qfs_test::have_program("mkfs.fat"))
            GTEST_SKIP() << "dosfstools missing";
    }
    qfs_test::temp_dir dir_;
    std::string image_ = dir_.file("volume.img");
};

struct mkfs_case {
    const char *fat_size, *label, *kib;
    uint8_t fat_type;
};

// mkfs.fat's volumes, with a file of 100000 bytes copied on by mtools: the reader's
// type, cluster count and used clusters against fsck.fat's own figures.
TEST_F(FatVolume, MkfsVolumesReadAsFsckSeesThem) {
    if (!qfs_test::have_program("mcopy")) GTEST_SKIP() << "mtools missing";
    const std::string file = dir_.file("payload");
    qfs_test::make_filled_image(file, 100000, 0x5A);
    const mkfs_case cases[] = {
        {"12", "LABEL12", "2000", 12}, {"16", "LABEL16", "16384", 16}, {"32", "LABEL32", "300000", 32}};
    for (const mkfs_case &c : cases) {
        SCOPED_TRACE(c.fat_size);
        std::remove(image_.c_str());
        qfs_test::must_run({"mkfs.fat", "-C", "-F", c.fat_size, "-s", "1", "-n", c.label, image_, c.kib});
        qfs_test::must_run({"mcopy", "-i", image_, file, "::payload"});
        // 100000 bytes in 512-byte clusters take 196 (and FAT32's root directory one more).
        EXPECT_EQ(expect_clean_and_read_back(image_, c.fat_type), c.fat_type == 32 ? 197u : 196u);
    }
}

// mkfs.fat's FAT32 volume, damaged one way at a time.
TEST_F(FatVolume, BrokenVolumesAreRefused) {
    qfs_test::must_run({"mkfs.fat", "-C", "-F", "32", "-s", "1", image_, "300000"});
    const std::vector<uint8_t> boot = qfs_test::read_bytes(image_, 0, 512);
    const uint64_t fat = uint64_t(le(boot, 14, 2)) * 512;
    const uint32_t clusters = 590687; // as fsck.fat counts them
    const auto le32 = [](uint32_t v) {
        return std::vector<uint8_t>{uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)};
    };
    struct damage {
        const char *what;
        uint64_t offset;
        std::vector<uint8_t> bytes;
        qfs_result expected;
    };
    const damage cases[] = {
        {"FAT entry 0 without the media byte", fat, le32(0x0FFFFF00), QFS_ERR_SYS_IO},
        {"FAT entry 1 free", fat + 4, le32(0), QFS_ERR_SYS_IO},
        {"root chain looping on itself", fat + 8, le32(2), QFS_ERR_SYS_IO},
        {"root chain leaving the volume", fat + 8, le32(clusters + 2), QFS_ERR_SYS_IO},
        {"root cluster beyond the last entry", 44, le32(clusters + 2), QFS_ERR_SYS_INVALID_ARGUMENT},
        {"no sector count", 32, le32(0), QFS_ERR_SYS_INVALID_ARGUMENT},
        {"bogus FSInfo and backup sector numbers", 48, le32(0xFFFFFFFF), QFS_OK},
    };
    for (const damage &d : cases) {
        SCOPED_TRACE(d.what);
        const std::vector<uint8_t> before = qfs_test::read_bytes(image_, d.offset, d.bytes.size());
        qfs_test::write_bytes(image_, d.offset, d.bytes);
        opened_volume v(image_);
        testing::internal::CaptureStderr();
        EXPECT_EQ(v.open(), d.expected);
        testing::internal::GetCapturedStderr();
        qfs_test::write_bytes(image_, d.offset, before);
    }
    // Two clusters chained: the root directory may span clusters.
    qfs_test::write_bytes(image_, fat + 8, le32(3));
    qfs_test::write_bytes(image_, fat + 12, le32(0x0FFFFFFF));
    opened_volume v(image_);
    ASSERT_EQ(v.open(), QFS_OK);
    EXPECT_EQ(v.info().free_clusters, clusters - 2);
}

} // namespace
