// The dry-run layer: writes stay in memory, reads see them over the card's
// own bytes, and the card keeps every byte, also through a whole format.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>

#include "cli/cli_texts.h"
#include "device/qfs_device_shadow_io.h"
#include "exfat/format.h"
#include "exfat/volume.h"
#include "harness/device_handle.h"
#include "harness/loop_device.h"
#include "harness/process.h"
#include "harness/recording_device.h"
#include "harness/temp_files.h"

namespace {

using qfs_device_test::device_handle;
using qfs_device_test::pattern;

class ShadowIo : public qfs_device_test::device_test {
protected:
    // An image of `size` bytes filled with the test pattern, opened through the dry-run layer.
    void open_shadowed(uint64_t size) {
        image_ = dir_.file("card.img");
        qfs_test::make_sparse_image(image_, size);
        qfs_test::write_bytes(image_, 0, pattern(size));
        qfs_device_test::open_device(device_, image_, QFS_DEVICE_FLAG_SHADOW);
        before_ = qfs_test::image_fingerprint(image_);
    }

    qfs_test::temp_dir dir_;
    std::string image_, before_;
    device_handle device_;
};

TEST_F(ShadowIo, ReadsSeeWritesOverTheCardsBytesAndTheCardKeepsItsOwn) {
    open_shadowed(200 * qfs_shadow_page_size + 1000); // the last page has 1000 valid bytes
    const std::vector<uint8_t> written(10, 0xEE);
    size_t done = 0;
    ASSERT_EQ(qfs_device_pwrite(device_, 5, written.size(), written.data(), &done), QFS_OK);
    std::vector<uint8_t> seen(20);
    ASSERT_EQ(qfs_device_pread(device_, 0, seen.size(), seen.data(), &done), QFS_OK);
    std::vector<uint8_t> expected = pattern(20);
    std::fill(expected.begin() + 5, expected.begin() + 15, 0xEE);
    EXPECT_EQ(seen, expected);

    // Zeros over two whole pages and one byte of a third, then read across all three.
    const std::vector<uint8_t> zeros(2 * qfs_shadow_page_size + 1);
    ASSERT_EQ(qfs_device_pwrite(device_, qfs_shadow_page_size, zeros.size(), zeros.data(), &done), QFS_OK);
    std::vector<uint8_t> across(3 * qfs_shadow_page_size);
    ASSERT_EQ(qfs_device_pread(device_, qfs_shadow_page_size, across.size(), across.data(), &done), QFS_OK);
    expected = pattern(across.size(), qfs_shadow_page_size);
    std::fill(expected.begin(), expected.begin() + zeros.size(), 0);
    EXPECT_EQ(across, expected);

    // A byte in every page: all of them are found again, next to the card's own bytes.
    const std::vector<uint8_t> mark(1, 0x5A);
    for (uint64_t page = 3; page <= 200; ++page) {
        ASSERT_EQ(qfs_device_pwrite(device_, page * qfs_shadow_page_size, 1, mark.data(), &done), QFS_OK);
    }
    for (uint64_t page = 3; page <= 200; ++page) {
        uint8_t two[2] = {};
        ASSERT_EQ(qfs_device_pread(device_, page * qfs_shadow_page_size, 2, two, &done), QFS_OK);
        EXPECT_EQ(two[0], 0x5A);
        EXPECT_EQ(two[1], pattern(1, page * qfs_shadow_page_size + 1)[0]);
    }
    // Nothing may be written beyond the card's last byte.
    EXPECT_EQ(qfs_device_pwrite(device_, 200 * qfs_shadow_page_size + 999, 1, mark.data(), &done), QFS_OK);
    EXPECT_EQ(qfs_device_pwrite(device_, 200 * qfs_shadow_page_size + 1000, 1, mark.data(), &done),
              QFS_ERR_IO_ERROR);

    EXPECT_EQ(qfs_device_sync(device_), QFS_OK);
    EXPECT_EQ(qfs_device_close(device_), QFS_OK);
    EXPECT_EQ(qfs_test::image_fingerprint(image_), before_);
}

TEST_F(ShadowIo, WholeFormatThroughTheLayerReadsBackWhileNothingReachesTheCard) {
    // A 64 GiB card: partition at sector 32768, 524032 clusters of 128 KiB, three of them in use.
    image_ = dir_.file("card.img");
    qfs_test::make_sparse_image(image_, 64ull << 30);
    qfs_test::write_bytes(image_, 0, pattern(4096));
    before_ = qfs_test::image_fingerprint(image_);
    std::vector<std::string> card_saw;
    {
        qfs_test::recording_device card(image_, &card_saw, {}, QFS_DEVICE_FLAG_SHADOW);
        const std::u16string label = u"DRY";
        ASSERT_EQ(exfat_format_volume(card.get(), false, false, false, false, false, EXFAT_DISCARD_REGULAR, nullptr,
                                      nullptr, nullptr, nullptr, nullptr,
                                      reinterpret_cast<const uint16_t *>(label.data()), 3, nullptr, nullptr, nullptr,
                                      false, true, false, false, nullptr),
                  QFS_OK);
        exfat_volume *volume = nullptr;
        ASSERT_EQ(exfat_volume_create(card.get(), EXFAT_VOLUME_READ_ONLY, &volume), QFS_OK);
        exfat_volume_info info{};
        EXPECT_EQ(exfat_volume_get_info(volume, &info), QFS_OK);
        EXPECT_STREQ(exfat_volume_get_label(volume), "DRY");
        EXPECT_EQ(info.free_clusters, 524032u - 3);
        EXPECT_EQ(exfat_volume_close(volume), QFS_OK);
        EXPECT_EQ(exfat_volume_destroy(&volume), QFS_OK);
    }
    // No write or flush reaches the card. The discard and the re-read are handed down to a
    // card that is open read-only, which refuses the one and only reads its own table for the other.
    const std::vector<std::string> handed_down = {qfs_test::recording_device::entry("discard", 0, 64ull << 30),
                                                  "refresh"};
    EXPECT_EQ(card_saw, handed_down);
    EXPECT_EQ(qfs_test::image_fingerprint(image_), before_);
}

TEST(DryRun, PrintsWhatARealRunPrintsAndLeavesTheImage) {
    qfs_test::temp_dir dir;
    // 64 GiB gets an MBR, 2.5 TiB a GPT; a Tarn card FAT16 and a TNB card FAT32.
    for (const uint64_t bytes : {64ull << 30, 5368709120ull * 512, 259584ull * 512, 4211713ull * 512}) {
        SCOPED_TRACE(bytes);
        const std::string real = dir.file("real.img"), dry = dir.file("dry.img");
        qfs_test::make_sparse_image(real, bytes);
        qfs_test::make_sparse_image(dry, bytes);
        const std::string before = qfs_test::image_fingerprint(dry);
        const auto expected = qfs_test::run_tool({"--tca-formatter-progress", "-l", "X", real});
        const auto run = qfs_test::run_tool({"--tca-formatter-progress", "--dry-run", "-l", "X", dry});
        EXPECT_EQ(run.exit_status, 0);
        EXPECT_EQ(run.out, expected.out);
        std::string err = expected.err;
        for (size_t at; (at = err.find(real)) != std::string::npos;) err.replace(at, real.size(), dry);
        EXPECT_EQ(run.err, err + "Dry run: nothing was written to \"" + dry + "\".\n");
        EXPECT_EQ(qfs_test::image_fingerprint(dry), before);
    }
}

TEST(DryRun, OnALoopDeviceTheCardAndItsPartitionsStayAsTheyWere) {
    qfs_test::temp_dir dir;
    const std::string image = dir.file("card.img");
    qfs_test::make_sparse_image(image, 64ull << 30);
    ASSERT_EQ(qfs_test::run_tool({image}).exit_status, 0);
    const std::string before = qfs_test::image_fingerprint(image);
    QFS_ATTACH_LOOP_OR_SKIP(loop, image);
    loop->scan_partitions();
    // A discard is asked for too: the card below the dry run is open read-only and refuses it.
    const auto run = qfs_test::run_tool({"--dry-run", "--discard", loop->path()});
    EXPECT_EQ(run.exit_status, 0) << run.err;
    EXPECT_EQ(access(loop->partition(1).c_str(), F_OK), 0) << "the partition node is still there";
    EXPECT_EQ(qfs_test::image_fingerprint(image), before);
}

} // namespace
