// Shared pieces of the exFAT volume tests: small formatted images, a
// volume handle that always closes, and the on-disk arithmetic worked out
// independently of the volume code.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "device/qfs_device.h"
#include "device/qfs_device_owner.h"
#include "exfat/format.h"
#include "exfat/volume.h"
#include "exfat/volume_owner.h"
#include "harness/temp_files.h"
#include "support/qfs_logging.h"

namespace exfat_volume_test {

inline uint16_t le16(const std::vector<uint8_t> &b, size_t at) { return uint16_t(b[at] | b[at + 1] << 8); }
inline uint32_t le32(const std::vector<uint8_t> &b, size_t at) {
    return uint32_t(b[at]) | uint32_t(b[at + 1]) << 8 | uint32_t(b[at + 2]) << 16 | uint32_t(b[at + 3]) << 24;
}
inline uint64_t le64(const std::vector<uint8_t> &b, size_t at) { return le32(b, at) | uint64_t(le32(b, at + 4)) << 32; }
inline void set_le16(std::vector<uint8_t> &b, size_t at, uint16_t v) {
    b[at] = uint8_t(v);
    b[at + 1] = uint8_t(v >> 8);
}
inline void set_le32(std::vector<uint8_t> &b, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) b[at + i] = uint8_t(v >> (8 * i));
}
inline void set_le64(std::vector<uint8_t> &b, size_t at, uint64_t v) {
    for (int i = 0; i < 8; ++i) b[at + i] = uint8_t(v >> (8 * i));
}

// The exFAT boot checksum written out from its definition: rotate the 32-bit
// sum right by one and add the byte, skipping VolumeFlags (106-107) and
// PercentInUse (112).
inline uint32_t boot_checksum(const std::vector<uint8_t> &region, size_t sector_size) {
    uint32_t sum = 0;
    for (size_t i = 0; i < 11 * sector_size; ++i) {
        if (i == 106 || i == 107 || i == 112) continue;
        sum = ((sum >> 1) | (sum << 31)) + region[i];
    }
    return sum;
}

// The up-case table checksum: the same rotation over every byte.
inline uint32_t table_checksum(const std::vector<uint8_t> &bytes) {
    uint32_t sum = 0;
    for (uint8_t b : bytes) sum = ((sum >> 1) | (sum << 31)) + b;
    return sum;
}

// Where the format put things, read from the image's own boot sector.
struct image_layout {
    uint32_t sector_size;
    uint32_t cluster_size;
    uint32_t cluster_count;
    uint32_t heap_offset; // sectors
    uint32_t root_cluster;
    uint64_t cluster_position(uint32_t cluster) const {
        return uint64_t(heap_offset) * sector_size + uint64_t(cluster - 2) * cluster_size;
    }
    uint64_t root_position() const { return cluster_position(root_cluster); }
};

inline image_layout read_layout(const std::string &image) {
    const std::vector<uint8_t> b = qfs_test::read_bytes(image, 0, 512);
    image_layout l{};
    l.sector_size = 1u << b[108];
    l.cluster_size = l.sector_size << b[109];
    l.cluster_count = le32(b, 92);
    l.heap_offset = le32(b, 88);
    l.root_cluster = le32(b, 96);
    return l;
}

// Byte position of the first root directory entry of `type`; 0 when absent.
inline uint64_t find_root_entry(const std::string &image, uint8_t type) {
    const image_layout l = read_layout(image);
    const std::vector<uint8_t> root = qfs_test::read_bytes(image, l.root_position(), l.cluster_size);
    for (size_t at = 0; at < root.size() && root[at] != 0; at += 32) {
        if (root[at] == type) return l.root_position() + at;
    }
    return 0;
}

// Recomputes the main boot region's checksum sector after an edit of checksummed bytes.
inline void reseal_main_region(const std::string &image) {
    const uint32_t ss = read_layout(image).sector_size;
    std::vector<uint8_t> region = qfs_test::read_bytes(image, 0, 12 * ss);
    const uint32_t sum = boot_checksum(region, ss);
    std::vector<uint8_t> sector(ss);
    for (size_t i = 0; i < ss; i += 4) set_le32(sector, i, sum);
    qfs_test::write_bytes(image, 11 * ss, sector);
}

struct format_request {
    uint64_t sectors = 16384; // 8 MiB of 512-byte sectors
    uint32_t cluster_size = 4096;
    std::u16string label;
    bool has_label = false;
    uint16_t sector_size = 512;
};

// A volume that starts at byte 0 of a sparse image, written by the format engine.
inline void format_image(const std::string &image, const format_request &request = {}) {
    qfs_test::make_sparse_image(image, request.sectors * request.sector_size);
    qfs_device_owner device;
    ASSERT_EQ(qfs_device_create_default(image.c_str(), 0, device.receive()), QFS_OK);
    ASSERT_EQ(qfs_device_open(device, 0), QFS_OK);
    const uint16_t sector_size = request.sector_size;
    const uint64_t sector_count = request.sectors;
    const uint32_t cluster_size = request.cluster_size;
    const uint64_t partition_start = 0;
    const uint32_t serial = 0x1234ABCD;
    format_monitor monitor{};
    monitor.progress = [](void *, uint32_t, const char *) {};
    const qfs_result r = exfat_format_volume(
        device, false, false, false, false, false, EXFAT_DISCARD_NONE, &sector_size, &sector_count, &cluster_size,
        &partition_start, nullptr,
        request.has_label ? reinterpret_cast<const uint16_t *>(request.label.data()) : nullptr,
        static_cast<uint8_t>(request.label.size()), &serial, nullptr, nullptr, false, false, false, false, &monitor);
    ASSERT_EQ(r, QFS_OK);
    ASSERT_EQ(device.close_and_destroy(), QFS_OK);
}

// A device over an image and a volume on it; whatever is open is closed when the test ends.
class opened_volume {
public:
    explicit opened_volume(const std::string &image, bool read_only_device = false) {
        const uint64_t flags = read_only_device ? uint64_t{QFS_DEVICE_FLAG_READ_ONLY} : uint64_t{0};
        EXPECT_EQ(qfs_device_create_default(image.c_str(), flags, device_.receive()), QFS_OK);
    }
    opened_volume(const opened_volume &) = delete;
    opened_volume &operator=(const opened_volume &) = delete;

    qfs_result open(uint32_t flags) { return exfat_volume_create(device_, flags, volume_.receive()); }
    qfs_result close() { return volume_.close_and_destroy(); }
    exfat_volume *volume() const { return volume_; }
    qfs_device *device() const { return device_; }
    exfat_volume_info info() const {
        exfat_volume_info i{};
        EXPECT_EQ(exfat_volume_get_info(volume_, &i), QFS_OK);
        return i;
    }

private:
    // The device is declared first, so the volume on it goes first.
    qfs_device_owner device_;
    exfat_volume_owner volume_;
};

// Every test here keeps its log lines out of the kernel log and works in its own directory.
class volume_test : public testing::Test {
protected:
    void SetUp() override { qfs_log_set_kmsg_enabled(false); }
    void TearDown() override { qfs_log_set_kmsg_enabled(true); }
    qfs_test::temp_dir dir_;
    std::string image_ = dir_.file("volume.img");
};

// The first line of captured standard error.
inline std::string first_line(const std::string &text) { return text.substr(0, text.find('\n')); }

} // namespace exfat_volume_test
