// The backend over image files: creation failures, the image lock, sizes
// found by probing, and requests only block devices answer.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "device/qfs_device.h"
#include "harness/device_handle.h"
#include "harness/temp_files.h"

namespace {

using qfs_device_test::device_handle;
using qfs_device_test::held_by_child;

class UnixIoImage : public qfs_device_test::device_test {
protected:
    qfs_test::temp_dir dir_;
};

TEST_F(UnixIoImage, MissingImageIsNotCreated) {
    qfs_device sentinel = {};
    qfs_device *dev = &sentinel;
    testing::internal::CaptureStderr();
    EXPECT_EQ(qfs_device_create_default(dir_.file("missing.img").c_str(), 0, &dev), ENOENT);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(dev, nullptr);
}

TEST_F(UnixIoImage, ImageLockedByAnotherProcessDoesNotOpen) {
    const std::string image = dir_.file("card.img");
    qfs_test::make_filled_image(image, 8192, 0x5C);
    const std::string before = qfs_test::image_fingerprint(image);
    const char *path = image.c_str();
    held_by_child locker([path] {
        const int fd = open(path, O_RDWR);
        struct flock lock = {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        return fd >= 0 && fcntl(fd, F_SETLK, &lock) == 0;
    });
    ASSERT_TRUE(locker.holding());
    for (const uint64_t flags : {uint64_t{0}, uint64_t{QFS_DEVICE_FLAG_READ_ONLY}}) {
        SCOPED_TRACE(flags);
        device_handle dev;
        ASSERT_EQ(qfs_device_create_default(path, flags, dev.receive()), QFS_OK);
        testing::internal::CaptureStderr();
        EXPECT_EQ(qfs_device_open(dev, 0), EAGAIN);
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(dev->flags & QFS_DEVICE_FLAG_OPEN, 0u);
    }
    // Without locking the same image opens.
    device_handle unlocked;
    ASSERT_EQ(qfs_device_create_default(path, QFS_DEVICE_FLAG_READ_ONLY | QFS_DEVICE_FLAG_NO_LOCKING,
                                        unlocked.receive()),
              QFS_OK);
    EXPECT_EQ(qfs_device_open(unlocked, 0), QFS_OK);
    EXPECT_EQ(qfs_test::image_fingerprint(image), before);
}

TEST_F(UnixIoImage, ImageSizeIsFoundByReading) {
    const struct {
        uint64_t bytes;
        uint32_t sector_size;
        uint64_t sectors;
    } cases[] = {
        {1000, 512, 1},                // the last readable byte is 999: (999 + 1) / 512 = 1
        {0, 512, 0},                   // nothing readable
        {8292, 512, 16},               // 8292 / 512 = 16.2
        {64ull << 30, 512, 134217728}, // 2^36 / 2^9 = 2^27
        {64ull << 30, 4096, 16777216}, // 2^36 / 2^12 = 2^24
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.bytes);
        const std::string image = dir_.file("size.img");
        qfs_test::make_sparse_image(image, c.bytes);
        device_handle dev;
        qfs_device_test::open_device(dev, image, QFS_DEVICE_FLAG_READ_ONLY);
        uint64_t sectors = 0;
        EXPECT_EQ(qfs_device_get_size_in_sectors(dev, c.sector_size, &sectors), QFS_OK);
        EXPECT_EQ(sectors, c.sectors);
    }
}

TEST_F(UnixIoImage, SizeQueriesRejectBadSectorSizesAndRanges) {
    const std::string image = dir_.file("card.img");
    qfs_test::make_sparse_image(image, 8192);
    device_handle dev;
    qfs_device_test::open_device(dev, image, QFS_DEVICE_FLAG_READ_ONLY);
    uint64_t sectors = 77;
    EXPECT_EQ(qfs_device_get_size_in_sectors(dev, 0, &sectors), QFS_ERR_INVALID_PARAMETER);
    EXPECT_EQ(qfs_device_get_size_in_sectors(dev, 1000, &sectors), QFS_ERR_INVALID_PARAMETER);
    // A range of 1000 bytes is not a whole number of 512-byte sectors.
    ASSERT_EQ(qfs_device_set_range(dev, 0, 1000), QFS_OK);
    EXPECT_EQ(qfs_device_get_size_in_sectors(dev, 512, &sectors), QFS_ERR_INVALID_PARAMETER);
    EXPECT_EQ(sectors, 77u);
    // A start alone leaves what lies behind it: (8192 - 1024) / 512 = 14.
    ASSERT_EQ(qfs_device_set_range(dev, 1024, 0), QFS_OK);
    ASSERT_EQ(qfs_device_get_size_in_sectors(dev, 512, &sectors), QFS_OK);
    EXPECT_EQ(sectors, 14u);
}

TEST_F(UnixIoImage, BlockDeviceRequestsFailOnImagesWithTheirErrno) {
    const std::string image = dir_.file("card.img");
    qfs_test::make_filled_image(image, 65536, 0x77);
    const std::string before = qfs_test::image_fingerprint(image);
    device_handle dev;
    qfs_device_test::open_device(dev, image, 0);
    // A regular file answers no block-device request: ENOTTY (25).
    EXPECT_EQ(qfs_device_discard_byte_range(dev, 0, 4096, 0), ENOTTY);
    EXPECT_EQ(qfs_device_discard_byte_range(dev, 0, 4096, 1), ENOTTY);
    uint32_t value = 0;
    EXPECT_EQ(qfs_device_get_sector_size(dev, &value), ENOTTY);
    EXPECT_EQ(qfs_device_get_heads(dev, &value), ENOTTY);
    uint64_t start = 0;
    EXPECT_EQ(qfs_device_get_partition_start_sector(dev, &start), ENOTTY);
    // With a range the discard is checked against it first.
    ASSERT_EQ(qfs_device_set_range(dev, 4096, 8192), QFS_OK);
    EXPECT_EQ(qfs_device_discard_byte_range(dev, 8192, 512, 0), QFS_ERR_OVERFLOW);
    EXPECT_EQ(qfs_device_discard_byte_range(dev, 4096, 4097, 0), QFS_ERR_OVERFLOW);
    ASSERT_EQ(qfs_device_close(dev), QFS_OK);
    EXPECT_EQ(qfs_test::image_fingerprint(image), before);
}

TEST_F(UnixIoImage, ClearingThePartitionTableWipesTwoSectorsThroughTheDevice) {
    const std::string image = dir_.file("card.img");
    // Writable: both sectors are zeroed, then the kernel cannot re-read an image's table.
    for (const auto &[flags, result] : {std::pair<uint64_t, qfs_result>{0, ENOTTY},
                                        {QFS_DEVICE_FLAG_READ_ONLY, QFS_ERR_DEVICE_READ_ONLY}}) {
        SCOPED_TRACE(flags);
        qfs_test::make_filled_image(image, 8192, 0x3C);
        device_handle dev;
        qfs_device_test::open_device(dev, image, flags);
        testing::internal::CaptureStderr();
        EXPECT_EQ(qfs_device_clear_partition_table(dev, nullptr), result);
        testing::internal::GetCapturedStderr();
        ASSERT_EQ(qfs_device_close(dev), QFS_OK);
        std::vector<uint8_t> expected(8192, 0x3C);
        if (flags == 0) std::fill(expected.begin(), expected.begin() + 1024, 0);
        EXPECT_EQ(qfs_test::read_bytes(image, 0, 8192), expected);
    }
}

} // namespace
