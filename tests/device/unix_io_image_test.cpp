// Creating devices and the backend over image files: creation failures, the
// image lock, sizes found by probing, and requests only block devices answer.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "device/qfs_device.h"
#include "device/qfs_device_unix_io.h"
#include "harness/device_handle.h"
#include "harness/temp_files.h"
#include "harness/trace_capture.h"

namespace {

using qfs_device_test::device_handle;
using qfs_device_test::held_by_child;

class UnixIoImage : public qfs_device_test::device_test {
protected:
    qfs_test::temp_dir dir_;
};

TEST_F(UnixIoImage, CreationFailuresFreeEverythingAndClearTheOutPointer) {
    const std::string image = dir_.file("card.img");
    qfs_test::make_sparse_image(image, 4096);
    qfs_device sentinel = {};

    const std::string missing = dir_.file("missing.img");
    qfs_device *dev = &sentinel;
    testing::internal::CaptureStderr();
    EXPECT_EQ(qfs_device_create_default(missing.c_str(), 0, &dev), ENOENT);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[ERROR] Failed to stat device \"" + missing + "\": 2 (No such file or directory)\n"
              "[ERROR] Error while initializing device implementation: 2 (No such file or directory)\n");
    EXPECT_EQ(dev, nullptr);

    const qfs_device_operations no_init = {};
    dev = &sentinel;
    testing::internal::CaptureStderr();
    EXPECT_EQ(qfs_device_create(image.c_str(), 0, &no_init, &dev), QFS_ERR_INVALID_PARAMETER);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[ERROR] No 'init' operation defined in supplied device operations.\n");
    EXPECT_EQ(dev, nullptr);
}

TEST_F(UnixIoImage, CreationKeepsOnlyItsOwnFlagsAndAddsTheBackendsOnes) {
    const std::string image = dir_.file("card.img");
    qfs_test::make_sparse_image(image, 4096);
    device_handle dev;
    // Every creation flag except the shadow layer: open (1), written (4), device (8) and 128 are not the caller's.
    ASSERT_EQ(qfs_device_create_default(image.c_str(), 0xFF & ~uint64_t{QFS_DEVICE_FLAG_SHADOW}, dev.receive()),
              QFS_OK);
    EXPECT_EQ(dev->flags, uint64_t{2 | 16 | 64 | 128});
    // An open device cannot be destroyed.
    ASSERT_EQ(qfs_device_open(dev, 0), QFS_OK);
    qfs_device *raw = dev.get();
    EXPECT_EQ(qfs_device_destroy(&raw), QFS_ERR_DEVICE_BUSY);
    EXPECT_EQ(raw, dev.get());
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

    struct lock_case {
        uint64_t flags;
        const char *kind;
    };
    constexpr lock_case cases[] = {{0, "write"}, {QFS_DEVICE_FLAG_READ_ONLY, "read"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.kind);
        device_handle dev;
        ASSERT_EQ(qfs_device_create_default(path, c.flags, dev.receive()), QFS_OK);
        testing::internal::CaptureStderr();
        EXPECT_EQ(qfs_device_open(dev, 0), EAGAIN);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), std::string("[ERROR] Failed to ") + c.kind + " lock '" +
                                                              image + "': 11 (Resource temporarily unavailable)\n");
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
    struct size_case {
        uint64_t bytes;
        uint32_t sector_size;
        uint64_t sectors;
    };
    constexpr size_case cases[] = {
        {1000, 512, 1},                  // the last readable byte is 999: (999 + 1) / 512 = 1
        {0, 512, 0},                     // nothing readable: (0 + 1) / 512 = 0
        {8292, 512, 16},                 // 8292 / 512 = 16.2
        {64ull << 30, 512, 134217728},   // 2^36 / 2^9 = 2^27
        {64ull << 30, 4096, 16777216},   // 2^36 / 2^12 = 2^24
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.bytes);
        const std::string image = dir_.file("size.img");
        qfs_test::make_sparse_image(image, c.bytes);
        device_handle dev;
        ASSERT_EQ(qfs_device_create_default(image.c_str(), QFS_DEVICE_FLAG_READ_ONLY, dev.receive()), QFS_OK);
        ASSERT_EQ(qfs_device_open(dev, 0), QFS_OK);
        uint64_t sectors = 0;
        EXPECT_EQ(qfs_device_get_size_in_sectors(dev, c.sector_size, &sectors), QFS_OK);
        EXPECT_EQ(sectors, c.sectors);
        // The probe rewinds the file.
        EXPECT_EQ(lseek(qfs_device_unix_io_from_layer(dev->layer)->fd, 0, SEEK_CUR), 0);
    }
}

TEST_F(UnixIoImage, SizeQueriesRejectBadSectorSizesAndRanges) {
    const std::string image = dir_.file("card.img");
    qfs_test::make_sparse_image(image, 8192);
    device_handle dev;
    ASSERT_EQ(qfs_device_create_default(image.c_str(), QFS_DEVICE_FLAG_READ_ONLY, dev.receive()), QFS_OK);
    ASSERT_EQ(qfs_device_open(dev, 0), QFS_OK);
    uint64_t sectors = 77;
    for (const uint32_t bad : {0u, 1000u}) {
        SCOPED_TRACE(bad);
        EXPECT_EQ(qfs_device_get_size_in_sectors(dev, bad, &sectors), QFS_ERR_INVALID_PARAMETER);
    }
    // A range of 1000 bytes is not a whole number of 512-byte sectors.
    ASSERT_EQ(qfs_device_set_range(dev, 0, 1000), QFS_OK);
    EXPECT_EQ(qfs_device_get_size_in_sectors(dev, 512, &sectors), QFS_ERR_INVALID_PARAMETER);
    EXPECT_EQ(sectors, 77u);
    ASSERT_EQ(qfs_device_set_range(dev, 0, 4096), QFS_OK);
    ASSERT_EQ(qfs_device_get_size_in_sectors(dev, 512, &sectors), QFS_OK);
    EXPECT_EQ(sectors, 8u);
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
    ASSERT_EQ(qfs_device_create_default(image.c_str(), 0, dev.receive()), QFS_OK);
    ASSERT_EQ(qfs_device_open(dev, 0), QFS_OK);
    // A regular file answers no block-device request: ENOTTY (25).
    EXPECT_EQ(qfs_device_discard_byte_range(dev, 0, 4096, 0), ENOTTY);
    EXPECT_EQ(qfs_device_discard_byte_range(dev, 0, 4096, 1), ENOTTY);
    uint32_t value = 0;
    EXPECT_EQ(qfs_device_get_sector_size(dev, &value), ENOTTY);
    EXPECT_EQ(qfs_device_get_heads(dev, &value), ENOTTY);
    uint64_t start = 0;
    {
        qfs_test::trace_capture trace;
        EXPECT_EQ(qfs_device_get_partition_start_sector(dev, &start), ENOTTY);
        if (qfs_test::trace_compiled_in) {
            EXPECT_TRUE(trace.contains("Not a block device"));
        }
    }
    // With a range the discard is checked against it first.
    ASSERT_EQ(qfs_device_set_range(dev, 4096, 8192), QFS_OK);
    EXPECT_EQ(qfs_device_discard_byte_range(dev, 8192, 512, 0), QFS_ERR_OVERFLOW);
    EXPECT_EQ(qfs_device_discard_byte_range(dev, 4096, 4097, 0), QFS_ERR_OVERFLOW);
    ASSERT_EQ(qfs_device_close(dev), QFS_OK);
    EXPECT_EQ(qfs_test::image_fingerprint(image), before);
}

TEST_F(UnixIoImage, ClearingThePartitionTableWipesTwoSectorsThroughTheDevice) {
    const std::string image = dir_.file("card.img");
    qfs_test::make_filled_image(image, 8192, 0x3C);
    struct clear_case {
        const char *name;
        uint64_t flags;
        qfs_result result;
        const char *message;
    };
    constexpr clear_case cases[] = {
        // Both sectors are zeroed, then the kernel cannot re-read an image's table.
        {"writable", 0, ENOTTY,
         "[ERROR] Error while refreshing partition table info in kernel: 25 (Inappropriate ioctl for device)\n"},
        {"read-only", QFS_DEVICE_FLAG_READ_ONLY, QFS_ERR_DEVICE_READ_ONLY,
         "[ERROR] Error while clearing MBR: 11 (QFS_ERR_DEVICE_READ_ONLY)\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        qfs_test::make_filled_image(image, 8192, 0x3C);
        device_handle dev;
        ASSERT_EQ(qfs_device_create_default(image.c_str(), c.flags, dev.receive()), QFS_OK);
        ASSERT_EQ(qfs_device_open(dev, 0), QFS_OK);
        testing::internal::CaptureStderr();
        EXPECT_EQ(qfs_device_clear_partition_table(dev, nullptr), c.result);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.message);
        ASSERT_EQ(qfs_device_close(dev), QFS_OK);
        std::vector<uint8_t> expected(8192, 0x3C);
        if (c.result == ENOTTY) std::fill(expected.begin(), expected.begin() + 1024, 0);
        EXPECT_EQ(qfs_test::read_bytes(image, 0, 8192), expected);
    }
}

} // namespace
