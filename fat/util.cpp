#include "fat/util.h"

#include <algorithm>
#include <cstring>

#include "support/qfs_codepage_tables.h"
#include "support/qfs_logging.h"
#include "support/qfs_random.h"
#include "support/qfs_support.h"

namespace {

constexpr uint32_t default_codepage = 437;
// Bytes that short names may not hold anywhere, besides control bytes and lower case.
constexpr char forbidden_in_short_names[] = "\"*+,./:;<=>?[\\]|";

// True when `byte` opens a two-byte character of the code page: it has no
// meaning of its own and forms a character with the byte after it.
bool opens_two_byte_character(const qfs_codepage_table *table, uint8_t byte) {
    if (table == nullptr || table->multibyte == nullptr || table->main[byte] != 0) return false;
    // Entries are sorted by their two-byte sequence in the low 16 bits.
    const uint32_t *end = table->multibyte + table->multibyte_count;
    const uint32_t *first = std::lower_bound(table->multibyte, end, static_cast<uint32_t>(byte) << 8,
                                             [](uint32_t entry, uint32_t key) { return (entry & 0xFFFF) < key; });
    return first != end && ((*first & 0xFFFF) >> 8) == byte;
}

const qfs_codepage_table *find_codepage(uint32_t codepage) {
    for (size_t i = 0; i < qfs_codepage_tables_count; ++i) {
        if (qfs_codepage_tables[i].codepage == codepage) return &qfs_codepage_tables[i];
    }
    return nullptr;
}

} // namespace

qfs_result fat_util_generate_serial_number(uint32_t *out_serial) {
    if (out_serial == nullptr) return QFS_ERR_INVALID_PARAMETER;
    qfs_time now{};
    const qfs_result r = qfs_get_current_time(&now);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("fat_utctime failed: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    const uint32_t serial = qfs_random_serial_from_time(now);
    *out_serial = serial;
    return QFS_OK;
}

int fat_util_label_is_valid(uint32_t codepage, const uint8_t *label, size_t length) {
    if (label == nullptr) return length == 0;
    const qfs_codepage_table *table = find_codepage(codepage == 0 ? default_codepage : codepage);
    if (length > 0 && label[0] == ' ') return 0;
    for (size_t i = 0; i < length; ++i) {
        const uint8_t byte = label[i];
        if (opens_two_byte_character(table, byte) && i + 1 < length) {
            ++i;
            continue;
        }
        if (byte < 0x20 || (byte >= 'a' && byte <= 'z')) return 0;
        if (memchr(forbidden_in_short_names, byte, sizeof(forbidden_in_short_names) - 1) != nullptr) {
            return 0;
        }
    }
    return 1;
}
