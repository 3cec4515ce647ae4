// Image files: their size in 512-byte sectors chooses the FAT or the exFAT run,
// and they are never asked for a partition start (on a regular file that
// question can only fail), so an image reaches its run.
#include <gtest/gtest.h>

#include <cstdint>

#include "cli/cli_texts.h"
#include "harness/process.h"
#include "harness/temp_files.h"

namespace {

using qfs_test::banner;

// Largest card of the "TNB" class, the last one that gets FAT: 34275852288 bytes.
constexpr uint64_t largest_fat_sectors = 66945024;

struct size_case {
    const char *name;
    uint64_t bytes;
    std::string err; // after the banner
};

void PrintTo(const size_case &c, std::ostream *os) { *os << c.name; }

class ImageSize : public testing::TestWithParam<size_case> {};

TEST_P(ImageSize, ChoosesTheRunAndLeavesTheImageAsItWas) {
    const auto &c = GetParam();
    qfs_test::temp_dir dir;
    const std::string image = dir.file("card.img");
    qfs_test::make_sparse_image(image, c.bytes);
    // Marked bytes at both ends (the sizes are at least 1000 bytes).
    qfs_test::write_bytes(image, 0, {0xEB, 0x3C, 0x90});
    qfs_test::write_bytes(image, c.bytes - 3, {0x55, 0xAA, 0x5A});
    const std::string before = qfs_test::image_fingerprint(image);

    const auto r = qfs_test::run_tool({"--tca-formatter-progress", image});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, banner + c.err);
    EXPECT_EQ(qfs_test::image_fingerprint(image), before);
}

const size_case size_cases[] = {
    // 1000 bytes: one whole sector of 512 bytes, far below the exFAT threshold. The card rules
    // take the 33 sectors of their smallest layout off that one sector; the count wraps around.
    // (The largest FAT card itself formats: see fat_cards_test.cpp.)
    {"ThousandBytes", 1000,
     "ERROR: Volume size is too big to be formatted as FAT16\n\t(Max cluster limit: 65525, Calculated: "
     "2250700302057483).\n\tPlease try by reducing volume size or by\n\tincreasing sectors per cluster value.\n"
     "ERROR: Number of clusters are not enough to make a\n\tFAT16 volume (Min expected: 4086, Got: 0).\n\tPlease "
     "try by increasing volume size.\nFormatting failed!\n"},
    // One sector more is exFAT, but no TNC row starts that low: the card is out of
    // the recommendations and refused before anything is written.
    {"SmallestExfatCard", (largest_fat_sectors + 1) * 512,
     "ERROR: 'tca-whole' - Device with 66945025 sectors is too small for TNE and too large for TNC "
     "recommendations to apply.\n"
     "Formatting failed!\n"},
};

INSTANTIATE_TEST_SUITE_P(Cli, ImageSize, testing::ValuesIn(size_cases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(Cli, DeviceNodeThatIsNoFileIsAskedForItsPartitionStart) {
    // The contrast to the images above: a character device is asked, and the geometry
    // request that answers for anything but a block device fails on it.
    const auto r = qfs_test::run_tool({"/dev/zero"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, banner + "[ERROR] Error while getting device start sector: 25 (Inappropriate ioctl for device)\n");
}

} // namespace
