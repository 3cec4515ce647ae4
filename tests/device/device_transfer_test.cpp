// The device object over image files: range clipping, read-only refusal and
// the aligned path.
#include <gtest/gtest.h>

#include <cstring>

#include "device/qfs_device.h"
#include "harness/device_handle.h"
#include "harness/temp_files.h"

namespace {

using qfs_device_test::device_handle;
using qfs_device_test::pattern;

class DeviceTransfer : public qfs_device_test::device_test {
protected:
    // An image whose byte i is pattern(size)[i], opened read-write.
    void open_patterned(uint64_t size, uint64_t flags = 0) {
        path_ = dir_.file("card.img");
        expected_ = pattern(size);
        qfs_test::make_sparse_image(path_, size);
        qfs_test::write_bytes(path_, 0, expected_);
        qfs_device_test::open_device(dev_, path_, flags);
    }
    void expect_image_is_expected() {
        EXPECT_EQ(qfs_test::read_bytes(path_, 0, expected_.size()), expected_);
    }

    qfs_test::temp_dir dir_;
    std::string path_;
    std::vector<uint8_t> expected_;
    device_handle dev_;
};

TEST_F(DeviceTransfer, TransfersAreClippedAtTheRangeEnd) {
    open_patterned(8192);
    ASSERT_EQ(qfs_device_set_range(dev_, 1024, 4096), QFS_OK);

    // 1000 bytes at 3500 of a 4096-byte range: only 4096 - 3500 = 596 lie inside,
    // at absolute bytes 4524..5119.
    std::vector<uint8_t> got(1000, 0xEE);
    size_t n = 0;
    ASSERT_EQ(qfs_device_pread(dev_, 3500, got.size(), got.data(), &n), QFS_OK);
    ASSERT_EQ(n, 596u);
    EXPECT_EQ(std::vector<uint8_t>(got.begin(), got.begin() + 596),
              std::vector<uint8_t>(expected_.begin() + 4524, expected_.begin() + 5120));
    EXPECT_EQ(got[596], 0xEE) << "a clipped read must not touch the buffer beyond its count";

    // Without a count to report, a clipped read is a failure; past the end nothing is read.
    EXPECT_EQ(qfs_device_pread(dev_, 3500, got.size(), got.data(), nullptr), QFS_ERR_IO_ERROR);
    ASSERT_EQ(qfs_device_pread(dev_, 4096, 10, got.data(), &n), QFS_OK);
    EXPECT_EQ(n, 0u);

    const std::vector<uint8_t> payload(1000, 0xAB);
    ASSERT_EQ(qfs_device_pwrite(dev_, 3500, payload.size(), payload.data(), &n), QFS_OK);
    ASSERT_EQ(n, 596u);
    ASSERT_EQ(qfs_device_close(dev_), QFS_OK);
    std::fill(expected_.begin() + 4524, expected_.begin() + 5120, 0xAB);
    expect_image_is_expected();
}

TEST_F(DeviceTransfer, ReadOnlyDeviceRefusesWritesButNotEmptyOnes) {
    open_patterned(4096, QFS_DEVICE_FLAG_READ_ONLY | QFS_DEVICE_FLAG_NO_LOCKING);
    const std::string before = qfs_test::image_fingerprint(path_);
    const uint8_t bytes[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    size_t n = 99;
    EXPECT_EQ(qfs_device_pwrite(dev_, 0, sizeof(bytes), bytes, &n), QFS_ERR_DEVICE_READ_ONLY);
    EXPECT_EQ(n, 99u);
    EXPECT_EQ(qfs_device_pwrite(dev_, 0, 0, bytes, &n), QFS_OK);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(dev_->flags & QFS_DEVICE_FLAG_WRITTEN, 0u);
    EXPECT_EQ(qfs_device_sync(dev_), QFS_ERR_DEVICE_READ_ONLY);
    ASSERT_EQ(qfs_device_close(dev_), QFS_OK);
    EXPECT_EQ(qfs_test::image_fingerprint(path_), before);
}

struct aligned_case {
    const char *name;
    uint64_t range_start;
    uint64_t position;
    size_t count;
};

// Alignment 512 throughout; pages are [0,512), [512,1024), [1024,1536). The
// bytes around every write, in the partial pages too, must stay as they were.
constexpr aligned_case aligned_cases[] = {
    {"both ends inside page 0", 0, 10, 100},
    {"lead-in and lead-out, no whole page between", 0, 10, 1000},
    {"lead-in, one whole page, lead-out", 0, 10, 1100},
    {"aligned start, lead-out only", 0, 0, 700},
    {"range from 100: bytes 0..99 outside it", 100, 10, 50},
};

TEST_F(DeviceTransfer, AlignedWritesReadModifyWritePartialPages) {
    for (const auto &c : aligned_cases) {
        SCOPED_TRACE(c.name);
        ASSERT_EQ(dev_.close_and_destroy(), QFS_OK);
        open_patterned(4096);
        dev_->alignment = 512;
        ASSERT_EQ(qfs_device_set_range(dev_, c.range_start, 4096 - c.range_start), QFS_OK);
        std::vector<uint8_t> payload(c.count);
        for (size_t i = 0; i < c.count; ++i) payload[i] = static_cast<uint8_t>(0xFF - i % 13);

        size_t n = 0;
        ASSERT_EQ(qfs_device_pwrite(dev_, c.position, payload.size(), payload.data(), &n), QFS_OK);
        EXPECT_EQ(n, c.count);

        // Read back through the aligned path as well.
        std::vector<uint8_t> back(c.count);
        ASSERT_EQ(qfs_device_pread(dev_, c.position, back.size(), back.data(), &n), QFS_OK);
        EXPECT_EQ(n, c.count);
        EXPECT_EQ(back, payload);
        ASSERT_EQ(qfs_device_close(dev_), QFS_OK);

        std::copy(payload.begin(), payload.end(), expected_.begin() + c.range_start + c.position);
        expect_image_is_expected();
    }
}

} // namespace
