#include "exfat/volume_test_support.h"
#include "harness/loop_device.h"
#include "harness/process.h"

using namespace exfat_volume_test;
using qfs_test::image_fingerprint;
using qfs_test::read_bytes;
using qfs_test::write_bytes;

namespace {

class VolumeDirty : public volume_test {
protected:
    // VolumeFlags as the image holds them now.
    uint16_t disk_flags() { return le16(read_bytes(image_, 106, 2), 0); }
};

constexpr uint16_t dirty_bit = 0x0002;

TEST_F(VolumeDirty, WritableOpenMarksDirtyAndCloseRestoresEveryByte) {
    ASSERT_NO_FATAL_FAILURE(format_image(image_));
    const std::string before = image_fingerprint(image_);
    ASSERT_EQ(disk_flags() & dirty_bit, 0);

    opened_volume v(image_);
    ASSERT_EQ(v.open(0), QFS_OK);
    EXPECT_EQ(disk_flags() & dirty_bit, dirty_bit);
    EXPECT_TRUE(v.info().dirty);
    ASSERT_EQ(v.close(), QFS_OK);

    EXPECT_EQ(disk_flags() & dirty_bit, 0);
    // Three clusters of ~2000 in use: PercentInUse stays 0, so close leaves no trace.
    EXPECT_EQ(image_fingerprint(image_), before);
    if (qfs_test::have_program("fsck.exfat")) {
        const qfs_test::run_result check = qfs_test::run_command({"fsck.exfat", "-n", image_});
        EXPECT_EQ(check.exit_status, 0) << check.out << check.err;
    }
}

TEST_F(VolumeDirty, CloseWritesPercentInUse) {
    // 1 MiB volume of 4 KiB clusters: a bitmap of 1 cluster, an up-case
    // table of ceil(5836 / 4096) = 2 and the root directory of 1 make 4 used
    // clusters; the cluster count comes from the image.
    ASSERT_NO_FATAL_FAILURE(format_image(image_, {2048, 4096, u"", false}));
    const image_layout l = read_layout(image_);
    ASSERT_LE((l.cluster_count + 7) / 8, 4096u);
    const unsigned expected_percent = 4 * 100 / l.cluster_count;
    ASSERT_GT(expected_percent, 0u);

    opened_volume v(image_);
    ASSERT_EQ(v.open(0), QFS_OK);
    EXPECT_EQ(read_bytes(image_, 112, 1)[0], 0);
    ASSERT_EQ(v.close(), QFS_OK);
    EXPECT_EQ(read_bytes(image_, 112, 1)[0], expected_percent);

    write_bytes(image_, 112, {0});
    ASSERT_EQ(v.open(0), QFS_OK);
    ASSERT_EQ(exfat_volume_update_percent_in_use(v.volume()), QFS_OK);
    EXPECT_EQ(read_bytes(image_, 112, 1)[0], expected_percent);
    ASSERT_EQ(v.close(), QFS_OK);
    EXPECT_EQ(disk_flags() & dirty_bit, 0);
    if (qfs_test::have_program("fsck.exfat")) {
        const qfs_test::run_result check = qfs_test::run_command({"fsck.exfat", "-n", image_});
        EXPECT_EQ(check.exit_status, 0) << check.out << check.err;
    }
}

TEST_F(VolumeDirty, ReadOnlyOpenNeverWrites) {
    ASSERT_NO_FATAL_FAILURE(format_image(image_));
    std::vector<uint8_t> flags = read_bytes(image_, 106, 1);
    flags[0] |= 0x08; // ClearToZero, which only a writable open clears
    write_bytes(image_, 106, flags);
    const std::string before = image_fingerprint(image_);

    opened_volume v(image_);
    ASSERT_EQ(v.open(EXFAT_VOLUME_READ_ONLY), QFS_OK);
    EXPECT_EQ(disk_flags() & dirty_bit, 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(exfat_volume_set_dirty(v.volume()), QFS_ERR_DEVICE_READ_ONLY);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[ERROR] Unable to modify volume on-disk dirty state for a read-only volume.\n");
    ASSERT_EQ(v.close(), QFS_OK);
    EXPECT_EQ(image_fingerprint(image_), before);
}

TEST_F(VolumeDirty, WritableOpenClearsClearToZero) {
    ASSERT_NO_FATAL_FAILURE(format_image(image_));
    std::vector<uint8_t> flags = read_bytes(image_, 106, 1);
    flags[0] |= 0x08;
    write_bytes(image_, 106, flags);
    opened_volume v(image_);
    ASSERT_EQ(v.open(0), QFS_OK);
    EXPECT_EQ(disk_flags(), dirty_bit);
    ASSERT_EQ(v.close(), QFS_OK);
    EXPECT_EQ(disk_flags(), 0);
}

TEST_F(VolumeDirty, AlreadyDirtyVolumeStaysDirty) {
    ASSERT_NO_FATAL_FAILURE(format_image(image_));
    write_bytes(image_, 106, {0x02, 0x00});
    opened_volume v(image_);
    testing::internal::CaptureStderr();
    ASSERT_EQ(v.open(0), QFS_OK);
    ASSERT_EQ(v.close(), QFS_OK);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(disk_flags(), dirty_bit);
}

TEST_F(VolumeDirty, DoNotMarkDirtyFlag) {
    ASSERT_NO_FATAL_FAILURE(format_image(image_));
    const std::string before = image_fingerprint(image_);
    opened_volume v(image_);
    ASSERT_EQ(v.open(EXFAT_VOLUME_DO_NOT_MARK_DIRTY), QFS_OK);
    EXPECT_EQ(disk_flags(), 0);
    // Marked by hand while open, the flag goes again at close: the volume was clean.
    ASSERT_EQ(exfat_volume_set_dirty(v.volume()), QFS_OK);
    EXPECT_EQ(disk_flags(), dirty_bit);
    ASSERT_EQ(v.close(), QFS_OK);
    EXPECT_EQ(image_fingerprint(image_), before);

    // And a writable open's own mark can be taken back early.
    ASSERT_EQ(v.open(0), QFS_OK);
    ASSERT_EQ(exfat_volume_clear_dirty(v.volume()), QFS_OK);
    EXPECT_EQ(disk_flags(), 0);
    ASSERT_EQ(v.close(), QFS_OK);
    EXPECT_EQ(image_fingerprint(image_), before);
}

TEST_F(VolumeDirty, InconsistencyLeavesTheVolumeDirty) {
    ASSERT_NO_FATAL_FAILURE(format_image(image_));
    write_bytes(image_, 112, {150}); // PercentInUse out of range: accepted, but an inconsistency
    opened_volume v(image_);
    testing::internal::CaptureStderr();
    ASSERT_EQ(v.open(0), QFS_OK);
    ASSERT_EQ(v.close(), QFS_OK);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[WARNING] Inconsistency - Invalid value for percent_in_use: 150\n"
              "[WARNING] Leaving the volume marked as dirty because of 1 possible metadata inconsistencies "
              "encountered during operation.\n");
    EXPECT_EQ(disk_flags(), dirty_bit);
    EXPECT_EQ(read_bytes(image_, 112, 1)[0], 0);

    // Without the open's own mark, close marks it.
    write_bytes(image_, 106, {0x00, 0x00});
    write_bytes(image_, 112, {150});
    opened_volume unmarked(image_);
    testing::internal::CaptureStderr();
    ASSERT_EQ(unmarked.open(EXFAT_VOLUME_DO_NOT_MARK_DIRTY), QFS_OK);
    ASSERT_EQ(unmarked.close(), QFS_OK);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("[WARNING] Marking the volume as dirty because of 1 possible metadata inconsistencies "
                       "encountered during operation.\n"),
              std::string::npos);
    EXPECT_EQ(disk_flags(), dirty_bit);
}

TEST_F(VolumeDirty, SerialLabelAndGuidChangesKeepTheVolumeValid) {
    ASSERT_NO_FATAL_FAILURE(format_image(image_));
    const uint8_t guid[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    {
        opened_volume v(image_);
        ASSERT_EQ(v.open(0), QFS_OK);
        uint8_t got[16];
        EXPECT_EQ(exfat_volume_get_guid(v.volume(), got), ENOENT);
        ASSERT_EQ(exfat_volume_set_serial_number(v.volume(), 0xCAFEF00D), QFS_OK);
        ASSERT_EQ(exfat_volume_set_name(v.volume(), "NEWNAME"), QFS_OK);
        ASSERT_EQ(exfat_volume_set_guid(v.volume(), guid), QFS_OK);
        EXPECT_STREQ(exfat_volume_get_label(v.volume()), "NEWNAME");
        testing::internal::CaptureStderr();
        EXPECT_EQ(exfat_volume_set_name(v.volume(), "TWELVE_CHARS"), EINVAL);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "[ERROR] Error while setting volume label: 22 (Invalid argument)\n");
    }
    // Main and backup boot sectors carry the serial, and both checksums still hold.
    const std::vector<uint8_t> regions = read_bytes(image_, 0, 24 * 512);
    EXPECT_EQ(le32(regions, 100), 0xCAFEF00Du);
    EXPECT_EQ(le32(regions, 12 * 512 + 100), 0xCAFEF00Du);
    const std::vector<uint8_t> backup(regions.begin() + 12 * 512, regions.end());
    EXPECT_EQ(le32(regions, 11 * 512), boot_checksum(regions, 512));
    EXPECT_EQ(le32(backup, 11 * 512), boot_checksum(backup, 512));
    // The GUID record: type 0xA0, no secondaries, flags 0, the GUID at 6-21.
    const uint64_t record = find_root_entry(image_, 0xA0);
    ASSERT_NE(record, 0u);
    const std::vector<uint8_t> entry = read_bytes(image_, record, 32);
    EXPECT_EQ(entry[1], 0);
    EXPECT_EQ(le16(entry, 4), 0);
    EXPECT_EQ(std::vector<uint8_t>(entry.begin() + 6, entry.begin() + 22), std::vector<uint8_t>(guid, guid + 16));
    uint16_t sum = 0; // the entry-set checksum over the one entry, skipping bytes 2-3
    for (size_t i = 0; i < 32; ++i) {
        if (i != 2 && i != 3) sum = uint16_t(((sum >> 1) | (sum << 15)) + entry[i]);
    }
    EXPECT_EQ(le16(entry, 2), sum);

    opened_volume again(image_);
    ASSERT_EQ(again.open(EXFAT_VOLUME_READ_ONLY), QFS_OK);
    EXPECT_EQ(again.info().serial_number, 0xCAFEF00Du);
    EXPECT_STREQ(exfat_volume_get_label(again.volume()), "NEWNAME");
    uint8_t got[16];
    ASSERT_EQ(exfat_volume_get_guid(again.volume(), got), QFS_OK);
    EXPECT_EQ(std::vector<uint8_t>(got, got + 16), std::vector<uint8_t>(guid, guid + 16));
    again.close();
    if (qfs_test::have_program("fsck.exfat")) {
        const qfs_test::run_result check = qfs_test::run_command({"fsck.exfat", "-n", image_});
        EXPECT_EQ(check.exit_status, 0) << check.out << check.err;
    }
}

// The tool's own round trip on a whole card: format, open and close for
// verification, and an independent check of the partition afterwards.
TEST_F(VolumeDirty, ToolVerificationLeavesACleanVolume) {
    if (!qfs_test::have_program("fsck.exfat")) GTEST_SKIP() << "fsck.exfat (exfatprogs) is not installed";
    qfs_test::make_sparse_image(image_, 67108864ull * 512); // the smallest exFAT card class
    const qfs_test::run_result run = qfs_test::run_tool({"-l", "ROUNDTRIP", image_});
    ASSERT_EQ(run.exit_status, 0) << run.out << run.err;
    QFS_ATTACH_LOOP_OR_SKIP(loop, image_);
    loop->scan_partitions();
    const qfs_test::run_result check = qfs_test::run_command({"fsck.exfat", "-n", loop->partition(1)});
    EXPECT_EQ(check.exit_status, 0) << check.out << check.err;
    // The partition starts at the card's boundary unit, 16 MiB in.
    EXPECT_EQ(le16(read_bytes(image_, 16777216 + 106, 2), 0) & dirty_bit, 0);
}

} // namespace
