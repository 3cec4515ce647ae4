// The device object over image files: range clipping, read-only refusal,
// the aligned path and phantom transfers.
#include <gtest/gtest.h>

#include <cstring>

#include "device/qfs_device.h"
#include "harness/device_handle.h"
#include "harness/temp_files.h"
#include "harness/trace_capture.h"

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
        ASSERT_EQ(qfs_device_create_default(path_.c_str(), flags, dev_.receive()), QFS_OK);
        ASSERT_EQ(qfs_device_open(dev_, 0), QFS_OK);
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
    const char *decision; // the end of the misalignment trace line
    size_t lead_ins, middles, lead_outs;
};

// Alignment 512 throughout; pages are [0,512), [512,1024), [1024,1536).
constexpr aligned_case aligned_cases[] = {
    // 10..110: both ends inside page 0, one read-modify-write.
    {"100 at 10", 0, 10, 100, "start / end offset was detected for write with offset 10 and length 100. "
                              "Aligning write...", 1, 0, 0},
    // 10..1010: lead-in 10..512 and lead-out 512..1010, page 1 being the last page, so no whole page between.
    {"1000 at 10", 0, 10, 1000, "start / end offset was detected for write with offset 10 and length 1000. "
                                "Splitting write in three...", 1, 0, 1},
    // 10..1110: lead-in 10..512, middle 512..1024, lead-out 1024..1110.
    {"1100 at 10", 0, 10, 1100, "start / end offset was detected for write with offset 10 and length 1100. "
                                "Splitting write in three...", 1, 1, 1},
    // 0..700: aligned start, lead-out 512..700 only.
    {"700 at 0", 0, 0, 700, "end offset was detected for write with offset 0 and length 700. "
                            "Splitting write in two...", 0, 1, 1},
    // Range from 100: absolute 110..160 in page 0, but bytes 0..99 lie outside the range and stay untouched.
    {"50 at 10 in a range from 100", 100, 10, 50, "start / end offset was detected for write with offset 10 and "
                                                  "length 50. Aligning write...", 1, 0, 0},
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
        qfs_test::trace_capture trace;
        ASSERT_EQ(qfs_device_pwrite(dev_, c.position, payload.size(), payload.data(), &n), QFS_OK);
        EXPECT_EQ(n, c.count);
        if (qfs_test::trace_compiled_in) {
            EXPECT_EQ(trace.count(c.decision), 1u);
            EXPECT_EQ(trace.count("\tLead-in write of"), c.lead_ins);
            EXPECT_EQ(trace.count("\tRegular write of"), c.middles);
            EXPECT_EQ(trace.count("\tLead-out write of"), c.lead_outs);
        }

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

TEST_F(DeviceTransfer, AlignedLeadInCreditIsJudgedAgainstTheTail) {
    open_patterned(4096);
    dev_->alignment = 512;
    ASSERT_EQ(qfs_device_set_range(dev_, 0, 50), QFS_OK);
    // 40 bytes at 10 end at the range end, 50: the lead-in reads and writes back
    // the range's 50 bytes, and credits them only when 50 exceeds the tail (50).
    const std::vector<uint8_t> payload(40, 0xC3);
    size_t n = 99;
    ASSERT_EQ(qfs_device_pwrite(dev_, 10, payload.size(), payload.data(), &n), QFS_OK);
    EXPECT_EQ(n, 0u);
    ASSERT_EQ(qfs_device_close(dev_), QFS_OK);
    std::fill(expected_.begin() + 10, expected_.begin() + 50, 0xC3);
    expect_image_is_expected();
}

TEST_F(DeviceTransfer, AlignedTraceNamesPagesAndOffsets) {
    QFS_SKIP_WITHOUT_TRACE();
    open_patterned(4096);
    dev_->alignment = 512;
    std::vector<uint8_t> payload(1100, 0x11);
    size_t n = 0;
    qfs_test::trace_capture trace;
    ASSERT_EQ(qfs_device_pwrite(dev_, 10, payload.size(), payload.data(), &n), QFS_OK);
    // 10..1110 touches pages 0 to 2.
    EXPECT_TRUE(trace.contains("Aligned write of 1100 bytes to offset 10 (raw device offset 10), pages 0-2 (3 pages)..."));
    EXPECT_TRUE(trace.contains("\tA misaligned write start / end offset was detected"));
    EXPECT_TRUE(trace.contains("\tLead-in read of 512 bytes starting at offset 0 (absolute offset 0) into alignment buffer..."));
    EXPECT_TRUE(trace.contains("\tRegular write of 512 bytes starting at offset 512 from buffer offset 502 ..."));
    EXPECT_TRUE(trace.contains("\tLead-out write of 512 bytes starting at offset 1024 (absolute offset 1024)  into alignment buffer..."));
}

TEST_F(DeviceTransfer, PhantomTransfersNeedTheFlagAndNoAlignment) {
    open_patterned(4096);
    const std::string before = qfs_test::image_fingerprint(path_);
    struct refusal {
        const char *why;
        bool clear_flag;
        uint32_t alignment;
    };
    constexpr refusal refusals[] = {{"phantom flag clear", true, 0}, {"alignment 512", false, 512}};
    for (const auto &c : refusals) {
        SCOPED_TRACE(c.why);
        const uint64_t saved = dev_->flags;
        if (c.clear_flag) dev_->flags &= ~static_cast<uint64_t>(QFS_DEVICE_FLAG_PHANTOM_ALLOWED);
        dev_->alignment = c.alignment;
        qfs_io_context context;
        size_t n = 0;
        EXPECT_EQ(qfs_device_pread_ioc(dev_, &context, nullptr, 512, 0, 0, 0, &n), QFS_ERR_UNSUPPORTED_FEATURE);
        EXPECT_EQ(qfs_device_pwrite_ioc(dev_, &context, nullptr, 512, 0, 0, &n), QFS_ERR_UNSUPPORTED_FEATURE);
        EXPECT_TRUE(context.buffers.empty());
        dev_->flags = saved;
        dev_->alignment = 0;
    }
    ASSERT_EQ(qfs_device_close(dev_), QFS_OK);
    EXPECT_EQ(qfs_test::image_fingerprint(path_), before);
}

TEST_F(DeviceTransfer, PhantomReadsAndWriteCopyRegions) {
    open_patterned(65536);
    qfs_io_context context;
    size_t n = 0;
    // Page-aligned source (mapped) and an unaligned one (copied through memory).
    ASSERT_EQ(qfs_device_pread_ioc(dev_, &context, nullptr, 4096, 0, 0, 0, &n), QFS_OK);
    EXPECT_EQ(n, 4096u);
    ASSERT_EQ(qfs_device_pread_ioc(dev_, &context, nullptr, 3000, 5000, 0, 0, &n), QFS_OK);
    ASSERT_EQ(context.buffers.size(), 2u);
    EXPECT_EQ(context.total_size, 7096u);
    EXPECT_EQ(context.buffers[1].offset, 5000u);
    EXPECT_EQ(context.buffers[1].flags, uint32_t{QFS_IO_BUFFER_FD | QFS_IO_BUFFER_USE_OFFSET});

    qfs_test::trace_capture trace;
    ASSERT_EQ(qfs_device_pwrite_ioc(dev_, &context, nullptr, 7096, 32768, 0, &n), QFS_OK);
    EXPECT_EQ(n, 7096u);
    if (qfs_test::trace_compiled_in) {
        EXPECT_TRUE(trace.contains("Successfully mapped 4096 bytes of fd"));
        EXPECT_TRUE(trace.contains("Falling back to memory backed buffer due to error while mapping 3000 bytes"));
    }
    ASSERT_EQ(qfs_device_close(dev_), QFS_OK);
    std::copy(expected_.begin(), expected_.begin() + 4096, expected_.begin() + 32768);
    std::copy(expected_.begin() + 5000, expected_.begin() + 8000, expected_.begin() + 32768 + 4096);
    expect_image_is_expected();
}

} // namespace
