#include <cerrno>
#include <regex>

#include "exfat/upcase.h"
#include "exfat/volume_test_support.h"
#include "harness/loop_device.h"
#include "harness/process.h"

using namespace exfat_volume_test;
using qfs_test::read_bytes;
using qfs_test::write_bytes;

namespace {

class VolumeOpen : public volume_test {};

TEST_F(VolumeOpen, FreshVolumeReportsRevisionLabelAndFreeClusters) {
    ASSERT_NO_FATAL_FAILURE(format_image(image_, {16384, 4096, u"CARD", true}));
    // Free clusters by hand from the boot sector: the bitmap needs ceil(count / 8)
    // bytes in whole clusters, the 5836-byte up-case table whole clusters, and
    // the root directory one cluster.
    const image_layout l = read_layout(image_);
    const uint64_t bitmap_clusters = ((l.cluster_count + 7) / 8 + l.cluster_size - 1) / l.cluster_size;
    const uint64_t upcase_clusters = (5836 + l.cluster_size - 1) / l.cluster_size;
    const uint64_t expected_free = l.cluster_count - bitmap_clusters - upcase_clusters - 1;

    opened_volume v(image_);
    ASSERT_EQ(v.open(EXFAT_VOLUME_READ_ONLY), QFS_OK);
    const exfat_volume_info info = v.info();
    EXPECT_EQ(info.revision_major, 1);
    EXPECT_EQ(info.revision_minor, 0);
    EXPECT_EQ(info.serial_number, 0x1234ABCDu);
    EXPECT_EQ(info.cluster_count, l.cluster_count);
    EXPECT_EQ(info.free_clusters, expected_free);
    EXPECT_FALSE(info.upcase_from_volume);
    EXPECT_STREQ(exfat_volume_get_label(v.volume()), "CARD");
}

TEST_F(VolumeOpen, FourKilobyteSectors) {
    // 8 MiB in 4096-byte sectors of one sector per cluster: three clusters in use of
    // about 2000, so PercentInUse stays 0 and close restores every byte.
    ASSERT_NO_FATAL_FAILURE(format_image(image_, {2048, 4096, u"BIG", true, 4096}));
    const image_layout l = read_layout(image_);
    ASSERT_EQ(l.sector_size, 4096u);
    const uint64_t bitmap_clusters = ((l.cluster_count + 7) / 8 + l.cluster_size - 1) / l.cluster_size;
    const uint64_t upcase_clusters = (5836 + l.cluster_size - 1) / l.cluster_size;
    const std::string before = qfs_test::image_fingerprint(image_);

    opened_volume v(image_);
    ASSERT_EQ(v.open(0), QFS_OK);
    EXPECT_EQ(v.info().bytes_per_sector, 4096u);
    EXPECT_EQ(v.info().free_clusters, l.cluster_count - bitmap_clusters - upcase_clusters - 1);
    EXPECT_STREQ(exfat_volume_get_label(v.volume()), "BIG");
    EXPECT_EQ(read_bytes(image_, 106, 1)[0], 0x02);
    ASSERT_EQ(v.close(), QFS_OK);
    EXPECT_EQ(qfs_test::image_fingerprint(image_), before);
    if (qfs_test::have_program("fsck.exfat")) {
        const qfs_test::run_result check = qfs_test::run_command({"fsck.exfat", "-n", image_});
        EXPECT_EQ(check.exit_status, 0) << check.out << check.err;
    }
}

TEST_F(VolumeOpen, FreeClustersComeFromTheBitmapBits) {
    ASSERT_NO_FATAL_FAILURE(format_image(image_, {16360, 4096, u"", false}));
    const image_layout l = read_layout(image_);
    opened_volume before(image_);
    ASSERT_EQ(before.open(EXFAT_VOLUME_READ_ONLY), QFS_OK);
    const uint64_t free_before = before.info().free_clusters;
    before.close();

    // Mark cluster 2 + 100 allocated, and a bit past the last cluster that must not count.
    const uint64_t bitmap = l.cluster_position(2);
    std::vector<uint8_t> byte = read_bytes(image_, bitmap + 100 / 8, 1);
    byte[0] |= 1u << (100 % 8);
    write_bytes(image_, bitmap + 100 / 8, byte);
    ASSERT_NE(l.cluster_count % 8, 0u) << "the test needs a partly used last bitmap byte";
    byte = read_bytes(image_, bitmap + l.cluster_count / 8, 1);
    byte[0] |= 0x80;
    write_bytes(image_, bitmap + l.cluster_count / 8, byte);

    opened_volume after(image_);
    ASSERT_EQ(after.open(EXFAT_VOLUME_READ_ONLY), QFS_OK);
    EXPECT_EQ(after.info().free_clusters, free_before - 1);
}

TEST_F(VolumeOpen, MetadataClustersMustBeMarkedInTheBitmap) {
    ASSERT_NO_FATAL_FAILURE(format_image(image_));
    const image_layout l = read_layout(image_);
    // Clear the root directory's bit: bit (cluster - 2) of the bitmap at cluster 2.
    const uint32_t bit = l.root_cluster - 2;
    const uint64_t at = l.cluster_position(2) + bit / 8;
    std::vector<uint8_t> byte = read_bytes(image_, at, 1);
    byte[0] &= uint8_t(~(1u << (bit % 8)));
    write_bytes(image_, at, byte);
    opened_volume v(image_);
    testing::internal::CaptureStderr();
    EXPECT_EQ(v.open(EXFAT_VOLUME_READ_ONLY), EIO);
    EXPECT_EQ(first_line(testing::internal::GetCapturedStderr()),
              "[ERROR] Inconsistency: Cluster " + std::to_string(l.root_cluster) +
                  " of the volume's metadata is not marked as allocated.");
}

TEST_F(VolumeOpen, LabelsOfElevenCharactersAndBeyondAscii) {
    struct label_case {
        std::u16string label;
        const char *utf8;
    };
    const label_case cases[] = {
        {u"ABCDEFGHIJK", "ABCDEFGHIJK"},             // the longest label a volume holds
        {u"Gr\u00FC\u00DFe", "Gr\xC3\xBC\xC3\x9F" "e"}, // two-byte UTF-8 sequences
        {u"", ""},                                    // a label record with no characters
    };
    for (const label_case &c : cases) {
        SCOPED_TRACE(c.utf8);
        ASSERT_NO_FATAL_FAILURE(format_image(image_, {16384, 4096, c.label, true}));
        opened_volume v(image_);
        ASSERT_EQ(v.open(0), QFS_OK);
        EXPECT_STREQ(exfat_volume_get_label(v.volume()), c.utf8);
    }
}

TEST_F(VolumeOpen, LabelRecordClaimingSixteenCharacters) {
    ASSERT_NO_FATAL_FAILURE(format_image(image_, {16384, 4096, u"CARD", true}));
    const uint64_t label = find_root_entry(image_, 0x83);
    ASSERT_NE(label, 0u);
    write_bytes(image_, label + 1, {16});

    opened_volume writable(image_);
    testing::internal::CaptureStderr();
    EXPECT_EQ(writable.open(0), EINVAL);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(first_line(err), "[ERROR] Invalid value in char_count: 16");
    EXPECT_NE(err.find("[ERROR] Error while reading volume name: 22 (Invalid argument)\n"), std::string::npos);

    // Read-only, the volume opens without its label.
    opened_volume read_only(image_);
    testing::internal::CaptureStderr();
    ASSERT_EQ(read_only.open(EXFAT_VOLUME_READ_ONLY), QFS_OK);
    err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("[WARNING] Read-only - Continuing despite error when reading root directory.\n"),
              std::string::npos);
    EXPECT_STREQ(exfat_volume_get_label(read_only.volume()), "");
}

TEST_F(VolumeOpen, DefaultUpcaseChecksumUsesTheBuiltInTable) {
    ASSERT_NO_FATAL_FAILURE(format_image(image_));
    const uint64_t record = find_root_entry(image_, 0x82);
    ASSERT_NE(record, 0u);
    const std::vector<uint8_t> entry = read_bytes(image_, record, 32);
    ASSERT_EQ(le32(entry, 4), 0xE619D30Du);
    // Wreck the table on disk: a reader that looked at it would fail its checksum.
    const image_layout l = read_layout(image_);
    write_bytes(image_, l.cluster_position(le32(entry, 20)), std::vector<uint8_t>(5836, 0xEE));

    opened_volume v(image_);
    ASSERT_EQ(v.open(0), QFS_OK);
    EXPECT_FALSE(v.info().upcase_from_volume);
    exfat_upcase_table *table = nullptr;
    ASSERT_EQ(exfat_volume_read_upcase_table(v.volume(), &table), QFS_OK);
    EXPECT_EQ(exfat_upcase_char(table, u'a'), u'A');
    EXPECT_EQ(exfat_upcase_destroy_table(&table), QFS_OK);
}

TEST_F(VolumeOpen, OtherUpcaseChecksumReadsTheTableFromDisk) {
    ASSERT_NO_FATAL_FAILURE(format_image(image_));
    const uint64_t record = find_root_entry(image_, 0x82);
    ASSERT_NE(record, 0u);
    std::vector<uint8_t> entry = read_bytes(image_, record, 32);
    const image_layout l = read_layout(image_);
    // A table of its own: 0x61 characters map to themselves, then 'a' -> 'A' and 'b' -> 'X'.
    const std::vector<uint8_t> table_bytes = {0xFF, 0xFF, 0x61, 0x00, 0x41, 0x00, 0x58, 0x00};
    write_bytes(image_, l.cluster_position(le32(entry, 20)), table_bytes);
    set_le64(entry, 24, table_bytes.size());
    set_le32(entry, 4, table_checksum(table_bytes));
    write_bytes(image_, record, entry);

    opened_volume v(image_);
    ASSERT_EQ(v.open(EXFAT_VOLUME_READ_ONLY), QFS_OK);
    EXPECT_TRUE(v.info().upcase_from_volume);
    exfat_upcase_table *table = nullptr;
    ASSERT_EQ(exfat_volume_read_upcase_table(v.volume(), &table), QFS_OK);
    EXPECT_EQ(exfat_upcase_char(table, u'a'), u'A');
    EXPECT_EQ(exfat_upcase_char(table, u'b'), u'X');
    EXPECT_EQ(exfat_upcase_char(table, u'c'), u'c');
    EXPECT_EQ(exfat_upcase_destroy_table(&table), QFS_OK);
}

struct record_case {
    const char *what;
    uint8_t type;               // the root directory record to change
    size_t offset;              // where in the record
    std::vector<uint8_t> bytes; // what to put there (little-endian)
    bool cut_chain;             // end the record's cluster chain after its first cluster
    const char *message;        // the first line the open logs
    qfs_result result;
};

const record_case record_cases[] = {
    {"up-case checksum mismatch", 0x82, 4, {0x78, 0x56, 0x34, 0x12}, false,
     // The bytes on disk are the recommended table, whose checksum is 0xE619D30D.
     "[ERROR] Incorrect checksum for upcase table! Expected: 0x12345678, Calculated: 0xE619D30D", EIO},
    {"up-case odd length", 0x82, 24, {0xCB, 0x16}, false,
     "[ERROR] Volume inconsistency - Uneven upcase table size: 5835", EIO},
    {"up-case too long", 0x82, 24, {0x00, 0x00, 0x02}, false,
     "[ERROR] Volume inconsistency - Size of upcase table out of bounds for 16-bit range: 131072", EIO},
    {"up-case chain ends early", 0x82, 24, {0xCC, 0x16}, true,
     "[ERROR] Could not read requested amount of raw upcase table data. Requested: 5836 bytes, Read: 4096 bytes", EIO},
    {"bitmap of the second FAT only", 0x81, 1, {1}, false,
     "[ERROR] No record for the active bitmap (0) found in root directory.", EIO},
    {"bitmap too long", 0x81, 24, {0x01, 0, 0, 0x20}, false, "[ERROR] Volume bitmap size out of bounds: 536870913",
     EINVAL},
};

TEST_F(VolumeOpen, RootRecordProblems) {
    ASSERT_NO_FATAL_FAILURE(format_image(image_));
    const std::string pristine = dir_.file("pristine.img");
    qfs_test::must_run({"cp", "--sparse=always", image_, pristine});
    const image_layout l = read_layout(image_);
    ASSERT_EQ(l.cluster_size, 4096u);
    for (const record_case &c : record_cases) {
        SCOPED_TRACE(c.what);
        qfs_test::must_run({"cp", "--sparse=always", pristine, image_});
        const uint64_t record = find_root_entry(image_, c.type);
        ASSERT_NE(record, 0u);
        write_bytes(image_, record + c.offset, c.bytes);
        if (c.type == 0x82 && c.offset != 4) {
            write_bytes(image_, record + 4, {1, 0, 0, 0}); // not the recommended table's checksum: read it from disk
        }
        if (c.cut_chain) {
            // FAT entry of the record's first cluster; the FAT starts at the boot sector's FatOffset.
            const uint32_t first = le32(read_bytes(image_, record, 32), 20);
            const uint64_t fat = uint64_t(le32(read_bytes(image_, 80, 4), 0)) * l.sector_size;
            write_bytes(image_, fat + 4 * first, {0xFF, 0xFF, 0xFF, 0xFF});
        }
        opened_volume v(image_);
        testing::internal::CaptureStderr();
        EXPECT_EQ(v.open(0), c.result);
        EXPECT_EQ(first_line(testing::internal::GetCapturedStderr()), c.message);
    }
}

TEST_F(VolumeOpen, ReadOnlyOpenToleratesABadUpcaseTable) {
    ASSERT_NO_FATAL_FAILURE(format_image(image_));
    const uint64_t record = find_root_entry(image_, 0x82);
    ASSERT_NE(record, 0u);
    write_bytes(image_, record + 4, {0x78, 0x56, 0x34, 0x12});
    opened_volume v(image_);
    testing::internal::CaptureStderr();
    ASSERT_EQ(v.open(EXFAT_VOLUME_READ_ONLY), QFS_OK);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[ERROR] Incorrect checksum for upcase table! Expected: 0x12345678, Calculated: 0xE619D30D\n"
              "[ERROR] Could not read upcase table for volume: 5 (Input/output error)\n"
              "[WARNING] Read-only - Continuing despite error when reading root directory.\n");
    EXPECT_FALSE(v.info().upcase_from_volume);
}

TEST_F(VolumeOpen, MediaFailureIsRefusedUnlessIgnored) {
    ASSERT_NO_FATAL_FAILURE(format_image(image_));
    std::vector<uint8_t> flags = read_bytes(image_, 106, 1);
    flags[0] |= 0x04; // VolumeFlags bit 2, outside the checksum
    write_bytes(image_, 106, flags);

    opened_volume refused(image_);
    testing::internal::CaptureStderr();
    EXPECT_EQ(refused.open(EXFAT_VOLUME_READ_ONLY), EINVAL);
    EXPECT_EQ(first_line(testing::internal::GetCapturedStderr()),
              "[ERROR] Refusing to mount: An unhandled media failure has been previously reported for this volume. "
              "Run 'chkdsk /r' before attempting to mount this volume.");

    opened_volume ignored(image_);
    EXPECT_EQ(ignored.open(EXFAT_VOLUME_READ_ONLY | EXFAT_VOLUME_IGNORE_MEDIA_FAILURE), QFS_OK);
}

TEST_F(VolumeOpen, VolumeLongerThanItsDevice) {
    ASSERT_NO_FATAL_FAILURE(format_image(image_)); // 16384 sectors in an image of as many
    std::vector<uint8_t> boot = read_bytes(image_, 0, 512);
    set_le64(boot, 72, 16385);
    write_bytes(image_, 0, boot);
    reseal_main_region(image_);
    opened_volume v(image_);
    testing::internal::CaptureStderr();
    EXPECT_EQ(v.open(EXFAT_VOLUME_READ_ONLY), EINVAL);
    EXPECT_EQ(first_line(testing::internal::GetCapturedStderr()),
              "[ERROR] Inconsistency: The volume (16385 sectors) extends beyond the end of the device (16384 sectors).");
}

TEST_F(VolumeOpen, PreallocatedVolumeObject) {
    ASSERT_NO_FATAL_FAILURE(format_image(image_, {16384, 4096, u"CARD", true}));
    qfs_device *device = nullptr;
    ASSERT_EQ(qfs_device_create_default(image_.c_str(), 0, &device), QFS_OK);
    exfat_volume *volume = nullptr;
    ASSERT_EQ(exfat_volume_allocate(&volume), QFS_OK);
    exfat_volume *const object = volume;
    ASSERT_EQ(exfat_volume_create(device, 0, &volume), QFS_OK);
    EXPECT_EQ(volume, object);
    EXPECT_STREQ(exfat_volume_get_label(volume), "CARD");
    EXPECT_EQ(exfat_volume_close(volume), QFS_OK);
    EXPECT_EQ(device->flags & QFS_DEVICE_FLAG_OPEN, 0u); // the volume opened the device, so it closed it

    // A failed open leaves the caller's object to the caller, emptied.
    write_bytes(image_, 510, {0x00, 0x00});
    testing::internal::CaptureStderr();
    EXPECT_EQ(exfat_volume_create(device, EXFAT_VOLUME_READ_ONLY, &volume), EINVAL);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(volume, object);
    EXPECT_STREQ(exfat_volume_get_label(volume), "");
    EXPECT_EQ(device->flags & QFS_DEVICE_FLAG_OPEN, 0u);
    EXPECT_EQ(exfat_volume_destroy(&volume), QFS_OK);
    EXPECT_EQ(volume, nullptr);
    EXPECT_EQ(qfs_device_destroy(&device), QFS_OK);
}

TEST_F(VolumeOpen, ReadOnlyVolumeRefusesTimeModes) {
    ASSERT_NO_FATAL_FAILURE(format_image(image_));
    opened_volume v(image_);
    testing::internal::CaptureStderr();
    EXPECT_EQ(v.open(EXFAT_VOLUME_READ_ONLY | (1u << 20)), EINVAL);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "[ERROR] Invalid time mode for read only volume.\n");
}

// An independent producer: mkfs.exfat from exfatprogs, read back by dump.exfat.
TEST_F(VolumeOpen, VolumeMadeByMkfsExfat) {
    if (!qfs_test::have_program("mkfs.exfat") || !qfs_test::have_program("dump.exfat")) {
        GTEST_SKIP() << "mkfs.exfat or dump.exfat (exfatprogs) is not installed";
    }
    qfs_test::make_sparse_image(image_, 64ull << 20);
    const qfs_test::run_result made = qfs_test::run_command({"mkfs.exfat", "-L", "MKFSLABEL", image_});
    ASSERT_EQ(made.exit_status, 0) << made.out << made.err;
    const qfs_test::run_result dump = qfs_test::run_command({"dump.exfat", image_});
    ASSERT_EQ(dump.exit_status, 0) << dump.err;
    std::smatch free_match;
    ASSERT_TRUE(std::regex_search(dump.out, free_match, std::regex("Free Clusters:\\s*([0-9]+)"))) << dump.out;
    std::smatch label_match;
    ASSERT_TRUE(std::regex_search(dump.out, label_match, std::regex("Volume label:\\s*(\\S+)"))) << dump.out;

    opened_volume v(image_);
    ASSERT_EQ(v.open(0), QFS_OK);
    EXPECT_EQ(v.info().free_clusters, std::stoull(free_match[1]));
    EXPECT_EQ(exfat_volume_get_label(v.volume()), label_match[1].str());
    EXPECT_EQ(label_match[1].str(), "MKFSLABEL");
    ASSERT_EQ(v.close(), QFS_OK);

    const qfs_test::run_result check = qfs_test::run_command({"fsck.exfat", "-n", image_});
    EXPECT_EQ(check.exit_status, 0) << check.out << check.err;
}

} // namespace
