#include "exfat/util.h"

#include <cstdlib>

#include "exfat/exfat_ondisk.h"
#include "support/qfs_logging.h"
#include "support/qfs_support.h"

uint32_t exfat_util_calculate_boot_region_checksum(const uint8_t *bytes, size_t length) {
    QFS_TRACE("exfat_util_calculate_boot_region_checksum checksumming %zu bytes...", length);
    uint32_t checksum = 0;
    for (size_t i = 0; i < length; ++i) {
        if (i == exfat_ondisk::boot::volume_flags || i == exfat_ondisk::boot::volume_flags + 1 ||
            i == exfat_ondisk::boot::percent_in_use) {
            continue;
        }
        checksum = ((checksum & 1) ? 0x80000000u : 0) + (checksum >> 1) + bytes[i];
    }
    return checksum;
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

qfs_result exfat_util_generate_serial_number(uint32_t *out_serial) {
    qfs_time now{};
    const qfs_result r = qfs_get_current_time(&now);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while getting the current time: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    const uint32_t microseconds = static_cast<uint32_t>(now.nanoseconds / 1000);
    srand(microseconds ^ static_cast<uint32_t>(now.seconds));
    const uint32_t r1 = static_cast<uint32_t>(rand());
    const uint32_t r2 = static_cast<uint32_t>(rand());
    const uint32_t r3 = static_cast<uint32_t>(rand());
    const uint32_t r4 = static_cast<uint32_t>(rand());
    const uint32_t serial = r1 ^ (r2 << 8) ^ (r3 << 16) ^ (r4 << 24);
    QFS_TRACE("Generated serial number: 0x%lX", static_cast<unsigned long>(serial));
    *out_serial = serial;
    return QFS_OK;
}

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
