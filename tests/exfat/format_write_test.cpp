// The padded writer, write plans and the zero-fill walk that both engines share.
#include <gtest/gtest.h>

#include "exfat/format_write.h"
#include "harness/device_handle.h"
#include "harness/recorded_monitor.h"
#include "harness/temp_files.h"
#include "harness/trace_capture.h"

namespace {

constexpr uint64_t mib = 1048576;

class PaddedWriter : public testing::Test {
protected:
    void SetUp() override {
        qfs_log_set_kmsg_enabled(false);
        path_ = dir_.file("device.img");
        qfs_test::make_filled_image(path_, 8 * mib, 0x11);
        ASSERT_EQ(qfs_device_create_default(path_.c_str(), 0, &device_.device), QFS_OK);
        ASSERT_EQ(qfs_device_open(device_, 0), QFS_OK);
        progress_ = {monitor_.get(), 0, 0, "step"};
    }
    void TearDown() override { qfs_log_set_kmsg_enabled(true); }
    qfs_test::temp_dir dir_;
    std::string path_;
    qfs_device_test::device_handle device_;
    qfs_exfat_test::recorded_monitor monitor_;
    format_progress progress_{};
};

TEST_F(PaddedWriter, DataThenPaddingAcrossChunks) {
    // 1.5 MiB of data: 1 MiB goes out alone, the last half rides in the first padding chunk.
    std::vector<uint8_t> data(mib + mib / 2);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i % 253);
    progress_.expected = 3 * mib;
    ASSERT_EQ(exfat_format_write_with_padding(device_, 4096, data.size(), data.data(), 3 * mib, 0xAB, false, 0,
                                              &progress_),
              QFS_OK);
    EXPECT_EQ(qfs_test::read_bytes(path_, 4096, data.size()), data);
    EXPECT_EQ(qfs_test::read_bytes(path_, 4096 + data.size(), 3 * mib - data.size()),
              std::vector<uint8_t>(3 * mib - data.size(), 0xAB));
    EXPECT_EQ(qfs_test::read_bytes(path_, 0, 4096), std::vector<uint8_t>(4096, 0x11)) << "before";
    EXPECT_EQ(qfs_test::read_bytes(path_, 4096 + 3 * mib, 4096), std::vector<uint8_t>(4096, 0x11)) << "after";
    EXPECT_EQ(progress_.done, 3 * mib);
    EXPECT_EQ(monitor_.percents, (std::vector<uint32_t>{33, 66, 100}));
}

TEST_F(PaddedWriter, CompareBeforeWriteSkipsWhatIsAlreadyThere) {
    QFS_SKIP_WITHOUT_TRACE();
    qfs_test::trace_capture trace;
    // The first 2 MiB already hold 0x11; the third MiB is made different.
    qfs_test::write_bytes(path_, 2 * mib, std::vector<uint8_t>(mib, 0x22));
    progress_.expected = 3 * mib;
    ASSERT_EQ(exfat_format_write_with_padding(device_, 0, 0, nullptr, 3 * mib, 0x11, true, 0, &progress_), QFS_OK);
    EXPECT_EQ(trace.count("Skipping unnecessary write of 1048576 0x11-padding bytes"), 2u);
    EXPECT_EQ(qfs_test::read_bytes(path_, 2 * mib, mib), std::vector<uint8_t>(mib, 0x11));
    EXPECT_EQ(progress_.done, 3 * mib) << "skipped chunks count as done";
}

TEST_F(PaddedWriter, RefusesDataLargerThanItsRegion) {
    const std::string before = qfs_test::image_fingerprint(path_);
    const uint8_t data[10] = {};
    EXPECT_EQ(exfat_format_write_with_padding(device_, 0, 10, data, 5, 0, false, 0, &progress_), 22);
    EXPECT_EQ(exfat_format_write_with_padding(device_, 0, static_cast<size_t>(-1), data, 5, 0, false, 0, &progress_),
              22);
    EXPECT_EQ(monitor_.errors, (std::vector<std::string>{
                                   "Parameter value 'data_size' exceeds 'padded_size' (10 > 5).",
                                   "Parameter value 'data_size' out of range: 18446744073709551615",
                               }));
    EXPECT_EQ(qfs_test::image_fingerprint(path_), before);
}

TEST_F(PaddedWriter, WritePlansRefuseOverlapsAndExtraExtents) {
    format_write_plan plan{};
    const uint8_t data[512] = {};
    ASSERT_EQ(format_write_plan_add(&plan, "a", "a failed", false, {0, data, 512, 0, 4096}), QFS_OK);
    ASSERT_EQ(format_write_plan_add(&plan, "b", "b failed", false, {4096, data, 512, 0, 4096}), QFS_OK);
    EXPECT_EQ(format_write_plan_check_overlaps(&plan), QFS_OK) << "touching is not overlapping";
    ASSERT_EQ(format_write_plan_add(&plan, "c", "c failed", false, {8191, data, 1, 0, 2}), QFS_OK);
    testing::internal::CaptureStderr();
    EXPECT_EQ(format_write_plan_check_overlaps(&plan), 6);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("Internal error: Overlapping write extents 1 (4096-8192) and 2 (8191-8193)."),
              std::string::npos)
        << err;
    for (size_t i = plan.extent_count; i < format_max_extents; ++i) {
        ASSERT_EQ(format_write_plan_add(&plan, "x", "x failed", false, {mib * i, data, 1, 0, 1}), QFS_OK);
    }
    testing::internal::CaptureStderr();
    EXPECT_EQ(format_write_plan_add(&plan, "y", "y failed", false, {0, data, 1, 0, 1}), 6);
    EXPECT_NE(testing::internal::GetCapturedStderr().find(
                  "Internal error: Claimed more extents than available (17 > 16)."),
              std::string::npos);
}

TEST_F(PaddedWriter, ZeroFillCoversExactlyWhatNoExtentWrote) {
    format_write_plan plan{};
    const std::vector<uint8_t> data(512, 0x77);
    // Two written extents, out of order, with gaps before, between and after them.
    ASSERT_EQ(format_write_plan_add(&plan, "second", "x", false, {3 * mib, data.data(), 512, 0x77, mib}), QFS_OK);
    ASSERT_EQ(format_write_plan_add(&plan, "first", "x", false, {mib, data.data(), 512, 0x77, mib / 2}), QFS_OK);
    ASSERT_EQ(format_write_plan_add(&plan, "empty", "x", false, {2 * mib, nullptr, 0, 0, 0}), QFS_OK);
    progress_.expected = 6 * mib; // what the extents write plus what the walk zero-fills
    ASSERT_EQ(format_write_plan_execute(device_, &plan, false, &progress_), QFS_OK);
    ASSERT_EQ(format_zero_fill_unwritten(device_, &plan, 6 * mib, false, &progress_), QFS_OK);
    EXPECT_TRUE(qfs_test::all_zero(path_, 0, mib));
    EXPECT_EQ(qfs_test::read_bytes(path_, mib, mib / 2), std::vector<uint8_t>(mib / 2, 0x77));
    EXPECT_TRUE(qfs_test::all_zero(path_, mib + mib / 2, 3 * mib / 2));
    EXPECT_EQ(qfs_test::read_bytes(path_, 3 * mib, mib), std::vector<uint8_t>(mib, 0x77));
    EXPECT_TRUE(qfs_test::all_zero(path_, 4 * mib, 2 * mib));
    EXPECT_EQ(qfs_test::read_bytes(path_, 6 * mib, 2 * mib), std::vector<uint8_t>(2 * mib, 0x11)) << "beyond the end";
    EXPECT_EQ(progress_.done, progress_.expected);
    EXPECT_EQ(monitor_.infos, (std::vector<std::string>{"second", "first", "empty"}));
}

} // namespace
