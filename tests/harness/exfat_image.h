// Formatting test images in-process with the exFAT engine, and reading
// their bytes back by hand.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "exfat/format.h"
#include "harness/device_handle.h"
#include "harness/temp_files.h"

namespace qfs_exfat_test {

struct format_request {
    bool zero_data = false;
    uint32_t discard = EXFAT_DISCARD_NONE;
    const std::u16string *label = nullptr;
    uint32_t serial = 0x12345678;
    bool tca_whole = true;
    bool tca_relax = false;
    const uint32_t *cluster_size = nullptr; // without TCA only
    const uint8_t *flash_params = nullptr;
    bool compare_before_write = false;
    // Images cannot tell their sector size; without the card tables the engine needs it given.
    const uint16_t *sector_size = nullptr;
    bool give_sector_size_without_tca = true;
};

inline constexpr uint16_t image_sector_size = 512;

// Formats an open device with a fixed serial number; answers the engine's result.
inline qfs_result format_device(qfs_device *device, const format_request &request = {},
                                const format_monitor *monitor = nullptr) {
    const uint16_t *label = request.label ? reinterpret_cast<const uint16_t *>(request.label->data()) : nullptr;
    const uint8_t label_length = request.label ? static_cast<uint8_t>(request.label->size()) : 0;
    const uint16_t *sector_size = request.sector_size;
    if (sector_size == nullptr && !request.tca_whole && request.give_sector_size_without_tca) {
        sector_size = &image_sector_size;
    }
    return exfat_format_volume(device, false, false, request.zero_data, false, request.compare_before_write,
                               request.discard, sector_size, nullptr, request.cluster_size, nullptr, nullptr, label,
                               label_length, &request.serial, nullptr, request.flash_params, false,
                               request.tca_whole, request.tca_relax, false, monitor);
}

// The same over an image file.
inline qfs_result format_image(const std::string &image, const format_request &request = {},
                               const format_monitor *monitor = nullptr) {
    qfs_device_test::device_handle device;
    qfs_result r = qfs_device_create_default(image.c_str(), 0, device.receive());
    if (r != QFS_OK) return r;
    r = qfs_device_open(device, 0);
    if (r != QFS_OK) return r;
    return format_device(device, request, monitor);
}

inline uint32_t le32(const std::vector<uint8_t> &b, size_t offset) {
    return static_cast<uint32_t>(b[offset]) | static_cast<uint32_t>(b[offset + 1]) << 8 |
           static_cast<uint32_t>(b[offset + 2]) << 16 | static_cast<uint32_t>(b[offset + 3]) << 24;
}
inline uint64_t le64(const std::vector<uint8_t> &b, size_t offset) {
    return le32(b, offset) | static_cast<uint64_t>(le32(b, offset + 4)) << 32;
}
inline uint16_t le16(const std::vector<uint8_t> &b, size_t offset) {
    return static_cast<uint16_t>(b[offset] | b[offset + 1] << 8);
}

// The boot region checksum written out from its definition: rotate the 32-bit
// sum right by one and add the byte, skipping VolumeFlags (106-107) and PercentInUse (112).
inline uint32_t boot_region_checksum(const std::vector<uint8_t> &region) {
    uint32_t sum = 0;
    for (size_t i = 0; i < 11 * 512; ++i)
        if (i != 106 && i != 107 && i != 112) sum = ((sum >> 1) | (sum << 31)) + region[i];
    return sum;
}

} // namespace qfs_exfat_test
