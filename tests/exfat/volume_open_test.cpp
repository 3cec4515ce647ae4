// Opening an exFAT volume the way the tool verifies its own format: a fresh
// volume opens writable, carries the dirty flag while open and gets back every
// byte at close; each corruption of it is refused with its result code and
// leaves the image as it was.
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <regex>

#include "device/qfs_device_owner.h"
#include "exfat/volume.h"
#include "exfat/volume_owner.h"
#include "harness/exfat_image.h"
#include "harness/process.h"
#include "support/qfs_logging.h"

namespace {

using namespace qfs_exfat_test;
using bytes = std::vector<uint8_t>;
using qfs_test::read_bytes;
using qfs_test::write_bytes;

bytes le(uint64_t value, size_t size) {
    bytes out(size);
    for (size_t i = 0; i < size; ++i) out[i] = uint8_t(value >> (8 * i));
    return out;
}

// Where the format put things, read from the image's own boot sector.
struct image_layout {
    uint32_t sector_size, cluster_size, cluster_count, fat_offset, heap_offset, root_cluster;
    uint64_t cluster_position(uint32_t cluster) const {
        return uint64_t(heap_offset) * sector_size + uint64_t(cluster - 2) * cluster_size;
    }
};

image_layout read_layout(const std::string &image) {
    const bytes b = read_bytes(image, 0, 512);
    const uint32_t sector_size = 1u << b[108];
    return {sector_size, sector_size << b[109], le32(b, 92), le32(b, 80), le32(b, 88), le32(b, 96)};
}

// Byte position of the first root directory record of `type`.
uint64_t root_record(const std::string &image, uint8_t type) {
    const image_layout l = read_layout(image);
    const bytes root = read_bytes(image, l.cluster_position(l.root_cluster), l.cluster_size);
    for (size_t at = 0; at < root.size() && root[at] != 0; at += 32) {
        if (root[at] == type) return l.cluster_position(l.root_cluster) + at;
    }
    ADD_FAILURE() << "no root record of type " << int(type);
    return 0;
}

// Free clusters by hand: the bitmap needs ceil(count / 8) bytes in whole
// clusters, the 5836-byte up-case table whole clusters, the root directory one.
uint64_t free_by_hand(const image_layout &l) {
    const uint64_t bitmap = ((l.cluster_count + 7) / 8 + l.cluster_size - 1) / l.cluster_size;
    return l.cluster_count - bitmap - (5836 + l.cluster_size - 1) / l.cluster_size - 1;
}

class VolumeOpen : public testing::Test {
protected:

    // A volume at byte 0 of a sparse image, formatted by the engine without the card tables.
    void format(uint64_t bytes_total, const std::u16string *label = nullptr, uint16_t sector_size = 512,
                uint32_t cluster_size = 4096) {
        qfs_test::make_sparse_image(image_, bytes_total);
        format_request request;
        request.tca_whole = false;
        request.label = label;
        request.sector_size = &sector_size;
        request.cluster_size = &cluster_size;
        ASSERT_EQ(format_image(image_, request), QFS_OK);
    }
    // Opens writable as the tool does; the volume stays open in `volume_`.
    qfs_result open() {
        EXPECT_EQ(qfs_device_create_default(image_.c_str(), 0, device_.receive()), QFS_OK);
        testing::internal::CaptureStderr();
        const qfs_result r = exfat_volume_create(device_, 0, volume_.receive());
        testing::internal::GetCapturedStderr();
        return r;
    }
    qfs_result close() {
        testing::internal::CaptureStderr();
        const qfs_result r = volume_.close_and_destroy();
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(device_.close_and_destroy(), QFS_OK);
        return r;
    }
    uint16_t volume_flags() { return le16(read_bytes(image_, 106, 2), 0); }
    void expect_fsck_accepts() {
        if (!qfs_test::have_program("fsck.exfat")) return;
        qfs_test::expect_clean({"fsck.exfat", "-n", image_});
    }

    qfs_test::temp_dir dir_;
    std::string image_ = dir_.file("volume.img");
    qfs_device_owner device_; // declared first, so the volume on it goes first
    exfat_volume_owner volume_;
};

constexpr uint16_t dirty_bit = 0x0002;

TEST_F(VolumeOpen, FreshVolumesRoundTrip) {
    const struct {
        uint64_t bytes;
        uint16_t sector_size;
        std::u16string label;
        const char *utf8;
    } cases[] = {
        {8 << 20, 512, u"CARD", "CARD"},
        {8 << 20, 4096, u"BIG", "BIG"},                         // one 4096-byte sector per cluster
        {8 << 20, 512, u"ABCDEFGHIJK", "ABCDEFGHIJK"},          // the longest label a volume holds
        {8 << 20, 512, u"Gr\u00FC\u00DFe", "Gr\xC3\xBC\xC3\x9F" "e"}, // two-byte UTF-8 sequences
        {8 << 20, 512, u"", ""},                                // a label record with no characters
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.utf8);
        ASSERT_NO_FATAL_FAILURE(format(c.bytes, &c.label, c.sector_size));
        const image_layout l = read_layout(image_);
        EXPECT_EQ(l.sector_size, c.sector_size);
        const std::string before = qfs_test::image_fingerprint(image_);

        ASSERT_EQ(open(), QFS_OK);
        EXPECT_EQ(volume_flags(), dirty_bit) << "a writable volume carries the dirty flag while open";
        exfat_volume_info info{};
        ASSERT_EQ(exfat_volume_get_info(volume_, &info), QFS_OK);
        EXPECT_EQ(info.revision_major, 1);
        EXPECT_EQ(info.revision_minor, 0);
        EXPECT_EQ(info.serial_number, 0x12345678u);
        EXPECT_EQ(info.cluster_count, l.cluster_count);
        EXPECT_EQ(info.free_clusters, free_by_hand(l));
        EXPECT_STREQ(exfat_volume_get_label(volume_), c.utf8);
        ASSERT_EQ(close(), QFS_OK);
        // Three clusters of about 2000 in use: PercentInUse stays 0, so close leaves no trace.
        EXPECT_EQ(qfs_test::image_fingerprint(image_), before);
        expect_fsck_accepts();
    }
}

TEST_F(VolumeOpen, CloseWritesPercentInUse) {
    // 1 MiB in 4 KiB clusters: bitmap 1, up-case table ceil(5836 / 4096) = 2
    // and root directory 1 make 4 clusters in use of a count read from the image.
    ASSERT_NO_FATAL_FAILURE(format(1 << 20));
    const image_layout l = read_layout(image_);
    ASSERT_EQ(free_by_hand(l), l.cluster_count - 4);
    ASSERT_EQ(open(), QFS_OK);
    ASSERT_EQ(close(), QFS_OK);
    EXPECT_EQ(read_bytes(image_, 112, 1)[0], 4 * 100 / l.cluster_count);
    EXPECT_EQ(volume_flags(), 0);
    expect_fsck_accepts();
}

TEST_F(VolumeOpen, FreeClustersComeFromTheBitmapBits) {
    ASSERT_NO_FATAL_FAILURE(format(16360 * 512));
    const image_layout l = read_layout(image_);
    // Mark cluster 2 + 100 allocated, and a bit past the last cluster that must not count.
    ASSERT_NE(l.cluster_count % 8, 0u) << "the test needs a partly used last bitmap byte";
    const uint64_t bitmap = l.cluster_position(2);
    write_bytes(image_, bitmap + 100 / 8, {uint8_t(read_bytes(image_, bitmap + 100 / 8, 1)[0] | 1u << (100 % 8))});
    write_bytes(image_, bitmap + l.cluster_count / 8,
                {uint8_t(read_bytes(image_, bitmap + l.cluster_count / 8, 1)[0] | 0x80)});
    ASSERT_EQ(open(), QFS_OK);
    exfat_volume_info info{};
    ASSERT_EQ(exfat_volume_get_info(volume_, &info), QFS_OK);
    EXPECT_EQ(info.free_clusters, free_by_hand(l) - 1);
}

// One corruption of a fresh 8 MiB volume (512-byte sectors, 4 KiB clusters, label "CARD").
struct corruption {
    const char *what;
    std::function<void(const std::string &image, const image_layout &l)> edit;
    qfs_result result;
    bool dirty_after_close; // for the volumes that open
};

// Boot sector fields are edited with the main checksum recomputed, so that
// the field checks, not the checksum, must catch them.
std::function<void(const std::string &, const image_layout &)> boot_field(size_t offset, bytes value) {
    return [=](const std::string &image, const image_layout &) {
        bytes region = read_bytes(image, 0, 12 * 512);
        std::copy(value.begin(), value.end(), region.begin() + offset);
        const bytes sum = le(boot_region_checksum(region), 4);
        for (size_t i = 11 * 512; i < 12 * 512; ++i) region[i] = sum[i % 4];
        write_bytes(image, 0, region);
    };
}
std::function<void(const std::string &, const image_layout &)> boot_fields(
    std::vector<std::pair<size_t, bytes>> fields) {
    return [=](const std::string &image, const image_layout &l) {
        for (const auto &[offset, value] : fields) boot_field(offset, value)(image, l);
    };
}
// Bytes changed where they lie, outside any checksum's repair.
std::function<void(const std::string &, const image_layout &)> raw(uint64_t offset, bytes value) {
    return [=](const std::string &image, const image_layout &) { write_bytes(image, offset, value); };
}
std::function<void(const std::string &, const image_layout &)> flip(uint64_t offset) {
    return [=](const std::string &image, const image_layout &) {
        write_bytes(image, offset, {uint8_t(read_bytes(image, offset, 1)[0] ^ 0x5A)});
    };
}
// A root record field; an up-case record that no longer carries the built-in
// table's checksum makes the open read the table from the disk.
std::function<void(const std::string &, const image_layout &)> record(uint8_t type, size_t offset, bytes value) {
    return [=](const std::string &image, const image_layout &) {
        const uint64_t at = root_record(image, type);
        if (type == 0x82 && offset != 4) write_bytes(image, at + 4, {1, 0, 0, 0});
        write_bytes(image, at + offset, value);
    };
}

const corruption corruptions[] = {
    // Boot sector fields.
    {"end signature", boot_field(511, {0xAB}), EINVAL, false},
    {"legacy BIOS parameter block", boot_field(11, {1}), EINVAL, false},
    {"file system name", boot_field(3, {'N', 'T', 'F', 'S'}), EINVAL, false},
    {"revision 2.0", boot_field(104, le(0x0200, 2)), EINVAL, false},
    {"revision 1.5 (accepted)", boot_field(104, le(0x0105, 2)), QFS_OK, false},
    {"sector shift 8", boot_field(108, {8}), EINVAL, false},
    {"sector shift 13", boot_field(108, {13}), EINVAL, false},
    {"cluster shift 17 over 512-byte sectors", boot_field(109, {17}), EINVAL, false},
    {"no FAT", boot_field(110, {0}), EINVAL, false},
    {"three FATs", boot_field(110, {3}), EINVAL, false},
    {"second FAT active with one FAT", raw(106, {0x01}), EINVAL, false},
    {"volume length 0", boot_field(72, le(0, 8)), EINVAL, false},
    {"FAT length 0", boot_field(84, le(0, 4)), EINVAL, false},
    {"FAT beyond the volume", boot_fields({{72, le(100, 8)}, {80, le(90, 4)}, {84, le(20, 4)}}), EINVAL, false},
    {"FAT overlapping the heap", boot_fields({{80, le(24, 4)}, {84, le(100, 4)}, {88, le(120, 4)}}), EINVAL, false},
    {"cluster count 0", boot_field(92, le(0, 4)), EINVAL, false},
    {"cluster count 0xFFFFFFF6", boot_field(92, le(0xFFFFFFF6, 4)), EINVAL, false},
    // One 512-byte FAT sector maps 128 entries; 200 clusters need 202.
    {"FAT too small for the clusters",
     boot_fields({{80, le(24, 4)}, {84, le(1, 4)}, {88, le(32, 4)}, {92, le(200, 4)}}), EINVAL, false},
    // 1000 clusters of 8 sectors from sector 32 end at sector 8032.
    {"heap beyond the volume",
     boot_fields({{72, le(8000, 8)}, {80, le(24, 4)}, {84, le(8, 4)}, {88, le(32, 4)}, {92, le(1000, 4)}, {109, {3}}}),
     EINVAL, false},
    {"root cluster 1", boot_field(96, le(1, 4)), EINVAL, false},
    {"root cluster one past the heap", boot_fields({{92, le(1000, 4)}, {96, le(1002, 4)}}), EINVAL, false},
    {"volume one sector longer than the device", boot_field(72, le(16385, 8)), EINVAL, false},
    {"media failure flag", raw(106, {0x04}), EINVAL, false},
    {"ClearToZero flag (cleared)", raw(106, {0x08}), QFS_OK, false},
    {"already dirty (stays dirty)", raw(106, {0x02}), QFS_OK, true},
    {"PercentInUse 150 (an inconsistency)", raw(112, {150}), QFS_OK, true},
    {"PercentInUse 255 (not available)", raw(112, {255}), QFS_OK, false},
    // Boot region checksums: flags and PercentInUse lie outside them.
    {"main extended boot sector", flip(1 * 512 + 7), EINVAL, false},
    {"main checksum sector word 5", flip(11 * 512 + 20), EINVAL, false},
    {"backup boot sector serial", flip(12 * 512 + 100), EINVAL, false},
    {"backup checksum sector word 127", flip(23 * 512 + 508), EINVAL, false},
    // FAT chains, the bitmap, the up-case table and the root records.
    {"up-case chain ends after one of two clusters",
     [](const std::string &image, const image_layout &l) {
         record(0x82, 24, le(5836, 8))(image, l);
         const uint32_t first = le32(read_bytes(image, root_record(image, 0x82), 32), 20);
         write_bytes(image, uint64_t(l.fat_offset) * 512 + 4 * first, le(0xFFFFFFFF, 4));
     },
     EIO, false},
    {"root directory not marked in the bitmap",
     [](const std::string &image, const image_layout &l) {
         const uint32_t bit = l.root_cluster - 2;
         const uint64_t at = l.cluster_position(2) + bit / 8;
         write_bytes(image, at, {uint8_t(read_bytes(image, at, 1)[0] & ~(1u << (bit % 8)))});
     },
     EIO, false},
    {"bitmap record of the second FAT only", record(0x81, 1, {1}), EIO, false},
    {"bitmap longer than 2^29 bytes", record(0x81, 24, le(0x20000001, 8)), EINVAL, false},
    {"up-case checksum mismatch", record(0x82, 4, le(0x12345678, 4)), EIO, false},
    {"up-case odd length", record(0x82, 24, le(5835, 8)), EIO, false},
    {"up-case longer than 16-bit characters", record(0x82, 24, le(0x20000, 8)), EIO, false},
    {"label claiming 16 characters", record(0x83, 1, {16}), EINVAL, false},
};

TEST_F(VolumeOpen, EachCorruptionOfAFreshVolume) {
    const std::u16string label = u"CARD";
    ASSERT_NO_FATAL_FAILURE(format(8 << 20, &label));
    const std::string pristine = dir_.file("pristine.img");
    qfs_test::must_run({"cp", "--sparse=always", image_, pristine});
    const image_layout l = read_layout(image_);
    for (const corruption &c : corruptions) {
        SCOPED_TRACE(c.what);
        qfs_test::must_run({"cp", "--sparse=always", pristine, image_});
        c.edit(image_, l);
        const std::string before = qfs_test::image_fingerprint(image_);
        EXPECT_EQ(open(), c.result);
        if (c.result != QFS_OK) {
            EXPECT_EQ(qfs_test::image_fingerprint(image_), before) << "a refused open writes nothing";
            EXPECT_EQ(device_.close_and_destroy(), QFS_OK);
            continue;
        }
        ASSERT_EQ(close(), QFS_OK);
        EXPECT_EQ(volume_flags(), c.dirty_after_close ? dirty_bit : 0);
    }
}

// A wrecked up-case table on disk does not matter while its record carries
// the built-in table's checksum: the built-in copy is used.
TEST_F(VolumeOpen, DefaultUpcaseChecksumUsesTheBuiltInTable) {
    ASSERT_NO_FATAL_FAILURE(format(8 << 20));
    const image_layout l = read_layout(image_);
    const bytes entry = read_bytes(image_, root_record(image_, 0x82), 32);
    ASSERT_EQ(le32(entry, 4), 0xE619D30Du);
    write_bytes(image_, l.cluster_position(le32(entry, 20)), bytes(5836, 0xEE));
    ASSERT_EQ(open(), QFS_OK);
    ASSERT_EQ(close(), QFS_OK);
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

    ASSERT_EQ(open(), QFS_OK);
    exfat_volume_info info{};
    ASSERT_EQ(exfat_volume_get_info(volume_, &info), QFS_OK);
    EXPECT_EQ(info.free_clusters, std::stoull(free_match[1]));
    EXPECT_STREQ(exfat_volume_get_label(volume_), "MKFSLABEL");
    ASSERT_EQ(close(), QFS_OK);
    expect_fsck_accepts();
}

} // namespace
