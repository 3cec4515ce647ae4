#include "exfat/util.h"

#include <algorithm>
#include <bit>

#include "exfat/exfat_ondisk.h"
#include "support/qfs_logging.h"
#include "support/qfs_random.h"

namespace {

// Folds bytes [from, to) of the region into the checksum, clipped to its length.
uint32_t fold(uint32_t checksum, const uint8_t *bytes, size_t from, size_t to, size_t length) {
    for (size_t i = from; i < std::min(to, length); ++i) checksum = std::rotr(checksum, 1) + bytes[i];
    return checksum;
}

} // namespace

// The checksum skips the two volume flags bytes and the percent-in-use byte, which change
// without the region being rewritten.
uint32_t exfat_util_calculate_boot_region_checksum(const uint8_t *bytes, size_t length) {
    QFS_TRACE("exfat_util_calculate_boot_region_checksum checksumming %zu bytes...", length);
    namespace boot = exfat_ondisk::boot;
    static_assert(boot::volume_flags + 2 <= boot::percent_in_use);
    uint32_t checksum = fold(0, bytes, 0, boot::volume_flags, length);
    checksum = fold(checksum, bytes, boot::volume_flags + 2, boot::percent_in_use, length);
    return fold(checksum, bytes, boot::percent_in_use + 1, length, length);
}

uint16_t exfat_util_calculate_entry_set_checksum(const uint8_t *entries, size_t entry_count) {
    uint16_t checksum = 0;
    const size_t length = entry_count * exfat_ondisk::dentry_size;
    for (size_t i = 0; i < length; ++i) {
        if (i == exfat_ondisk::dentry::set_checksum || i == exfat_ondisk::dentry::set_checksum + 1) {
            continue;
        }
        checksum = static_cast<uint16_t>(((checksum & 1) ? 0x8000u : 0) + (checksum >> 1) + entries[i]);
    }
    return checksum;
}

qfs_result exfat_util_generate_serial_number(uint32_t *out_serial) { return qfs_random_serial_number(out_serial); }

int exfat_util_label_is_valid(const uint16_t *label, size_t length) {
    for (size_t i = 0; i < length; ++i) {
        const uint16_t c = label[i];
        if (c < 0x20) return 0;
        switch (c) {
        case '"': case '*': case '/': case ':': case '<': case '>': case '?': case '\\': case '|':
            return 0;
        default:
            break;
        }
    }
    return 1;
}
