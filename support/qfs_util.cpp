#include "support/qfs_util.h"

#include <cstring>

#include "support/qfs_logging.h"
#include "support/qfs_random.h"
#include "support/qfs_support.h"

namespace {

// Character positions of the four separators in the text form.
bool is_separator_position(size_t i) { return i == 8 || i == 13 || i == 18 || i == 23; }

// Which byte the n-th pair of digits of the text stands for in GUID order:
// the 4-, 2- and 2-byte groups are little-endian, the rest as written.
// Swapping is its own inverse, so formatting reads the bytes the same way.
constexpr uint8_t guid_byte_of_pair[QFS_XUID_SIZE] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};

int hex_digit_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

qfs_result format_xuid(const uint8_t id[QFS_XUID_SIZE], bool guid_order, char out[QFS_XUID_TEXT_SIZE]) {
    constexpr char digits[] = "0123456789ABCDEF";
    char text[QFS_XUID_TEXT_SIZE];
    size_t pair = 0;
    for (size_t i = 0; i < QFS_XUID_TEXT_LENGTH;) {
        if (is_separator_position(i)) {
            text[i++] = '-';
            continue;
        }
        const uint8_t byte = id[guid_order ? guid_byte_of_pair[pair] : pair];
        text[i++] = digits[byte >> 4];
        text[i++] = digits[byte & 0x0F];
        ++pair;
    }
    text[QFS_XUID_TEXT_LENGTH] = '\0';
    memcpy(out, text, sizeof(text));
    return QFS_OK;
}

// A zeroed identifier of the variant, copied out only when it was made.
qfs_result generate_into(int variant, uint8_t out[QFS_XUID_SIZE]) {
    uint8_t id[QFS_XUID_SIZE] = {};
    const qfs_result r = qfs_util_generate_xuid(variant, id);
    if (r != QFS_OK) {
        return r;
    }
    memcpy(out, id, sizeof(id));
    return QFS_OK;
}

} // namespace

qfs_result qfs_util_parse_xuid(const char *text, int guid_order, uint8_t out[QFS_XUID_SIZE]) {
    const char *kind = guid_order ? "GUID" : "UUID";
    const size_t length = text != nullptr ? strlen(text) : 0;
    if (length != QFS_XUID_TEXT_LENGTH) {
        QFS_TRACE("Invalid %s string length: %zu", kind, length);
        return QFS_ERR_INVALID_PARAMETER;
    }
    uint8_t id[QFS_XUID_SIZE] = {};
    size_t pair = 0;
    size_t i = 0;
    while (i < QFS_XUID_TEXT_LENGTH) {
        if (is_separator_position(i)) {
            // Any separator character is accepted.
            ++i;
            continue;
        }
        const int high = hex_digit_value(text[i]);
        if (high < 0) {
            QFS_TRACE("Invalid character '%c'.", text[i]);
            return QFS_ERR_INVALID_PARAMETER;
        }
        const int low = hex_digit_value(text[i + 1]);
        if (low < 0) {
            QFS_TRACE("Invalid character '%c'.", text[i + 1]);
            return QFS_ERR_INVALID_PARAMETER;
        }
        if (high > 15) {
            QFS_LOG_CRITICAL("Internal error. Invalid value for high: %d", high);
            return QFS_ERR_INTERNAL_ERROR;
        }
        if (low > 15) {
            QFS_LOG_CRITICAL("Internal error. Invalid value for low: %d", low);
            return QFS_ERR_INTERNAL_ERROR;
        }
        id[guid_order ? guid_byte_of_pair[pair] : pair] = static_cast<uint8_t>(high * 16 + low);
        ++pair;
        i += 2;
    }
    if (i != QFS_XUID_TEXT_LENGTH || pair != QFS_XUID_SIZE) {
        QFS_LOG_CRITICAL("Internal error. Unexpected last value of i: %d", static_cast<int>(i));
        return QFS_ERR_INTERNAL_ERROR;
    }
    memcpy(out, id, sizeof(id));
    return QFS_OK;
}

qfs_result qfs_util_generate_xuid(int variant, uint8_t out[QFS_XUID_SIZE]) {
    uint64_t r0 = 0;
    uint64_t r1 = 0;
    qfs_result r = qfs_random_at_most(UINT64_MAX, &r0);
    if (r == QFS_OK) {
        r = qfs_random_at_most(UINT64_MAX, &r1);
    }
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while generating random numbers: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    uint8_t id[QFS_XUID_SIZE];
    // Bytes 0-7 are the three leading groups of r0, each most significant
    // byte first; bytes 8-15 are r1, least significant byte first.
    const uint32_t low = static_cast<uint32_t>(r0);
    const uint16_t mid = static_cast<uint16_t>(r0 >> 32);
    const uint16_t high = static_cast<uint16_t>(r0 >> 48);
    for (size_t i = 0; i < 4; ++i) id[i] = static_cast<uint8_t>(low >> (24 - 8 * i));
    id[4] = static_cast<uint8_t>(mid >> 8);
    id[5] = static_cast<uint8_t>(mid);
    id[6] = static_cast<uint8_t>(high >> 8);
    id[7] = static_cast<uint8_t>(high);
    for (size_t i = 0; i < 8; ++i) id[8 + i] = static_cast<uint8_t>(r1 >> (8 * i));

    // Version 4: randomly generated.
    id[6] = static_cast<uint8_t>((id[6] & 0x0F) | 0x40);
    switch (variant) {
    case QFS_XUID_VARIANT_NCS:
        id[8] = static_cast<uint8_t>(id[8] % 128);
        break;
    case QFS_XUID_VARIANT_RFC4122:
        id[8] = static_cast<uint8_t>((id[8] % 64) | 0x80);
        break;
    case QFS_XUID_VARIANT_MICROSOFT:
        id[8] = static_cast<uint8_t>((id[8] % 32) | 0xC0);
        break;
    default:
        QFS_LOG_CRITICAL("Unknown variant: 0x%X", static_cast<unsigned>(variant));
        return QFS_ERR_INTERNAL_ERROR;
    }
    memcpy(out, id, sizeof(id));
    return QFS_OK;
}

qfs_result qfs_util_generate_guid(uint8_t out[QFS_XUID_SIZE]) {
    return generate_into(QFS_XUID_VARIANT_MICROSOFT, out);
}

qfs_result qfs_util_generate_uuid(uint8_t out[QFS_XUID_SIZE]) {
    return generate_into(QFS_XUID_VARIANT_RFC4122, out);
}

qfs_result qfs_util_format_guid(const uint8_t id[QFS_XUID_SIZE], char out[QFS_XUID_TEXT_SIZE]) {
    return format_xuid(id, true, out);
}

qfs_result qfs_util_format_uuid(const uint8_t id[QFS_XUID_SIZE], char out[QFS_XUID_TEXT_SIZE]) {
    return format_xuid(id, false, out);
}
