// Conversions between UTF-16 and the OEM code pages of FAT names.
#include <algorithm>
#include <cstdint>

#include "support/qfs_codepage_tables.h"
#include "support/qfs_logging.h"
#include "support/qfs_memory.h"
#include "support/qfs_unistr.h"

namespace {

constexpr size_t graphics_table_size = 128; // bytes 0x00-0x7F
constexpr size_t main_table_size = 256;     // every byte value
constexpr uint16_t raw_byte_last = QFS_UNISTR_RAW_BYTE_BASE + 0xFF;

// The code page's tables, or null (logged) when it is unknown or its tables are damaged.
const qfs_codepage_table *codepage_tables(uint32_t codepage, bool log_unknown) {
    const qfs_codepage_table *end = qfs_codepage_tables + qfs_codepage_tables_count;
    const qfs_codepage_table *table =
        std::find_if(qfs_codepage_tables, end, [&](const qfs_codepage_table &t) { return t.codepage == codepage; });
    if (table == end) {
        if (log_unknown) {
            QFS_LOG_ERROR("Unsupported code page: %d", static_cast<int>(codepage));
        }
        return nullptr;
    }
    if (table->graphics_count != graphics_table_size) {
        QFS_LOG_CRITICAL("Unexpected CP%d IBM graphics table size: %zu", static_cast<int>(codepage),
                         table->graphics_count);
        return nullptr;
    }
    if (table->main_count != main_table_size) {
        QFS_LOG_CRITICAL("Unexpected CP%d low table size: %zu", static_cast<int>(codepage), table->main_count);
        return nullptr;
    }
    return table;
}

// UTF-16 value of a two-byte sequence, 0 when the page has none.
uint16_t multibyte_lookup(const qfs_codepage_table &table, uint16_t sequence) {
    const uint32_t *end = table.multibyte + table.multibyte_count;
    const uint32_t *hit = std::lower_bound(table.multibyte, end, sequence,
                                           [](uint32_t entry, uint16_t key) { return (entry & 0xFFFF) < key; });
    return hit != end && (*hit & 0xFFFF) == sequence ? static_cast<uint16_t>(*hit >> 16) : 0;
}

// Byte or two-byte sequence of a UTF-16 unit in a reverse table (sorted by the high half).
bool reverse_lookup(const uint32_t *entries, size_t count, uint16_t unit, uint16_t *code) {
    const uint32_t *end = entries + count;
    const uint32_t *hit = std::lower_bound(entries, end, static_cast<uint32_t>(unit) << 16);
    if (hit == end || (*hit >> 16) != unit) {
        return false;
    }
    *code = static_cast<uint16_t>(*hit & 0xFFFF);
    return true;
}

// Graphics characters may only go back to the control positions.
bool is_control_position(uint16_t code) { return code < 0x20 || code == 0x7F; }

} // namespace

bool qfs_unistr_codepage_supported(uint32_t codepage) { return codepage_tables(codepage, false) != nullptr; }

uint16_t *qfs_unistr_from_codepage_internal(uint32_t codepage, int use_graphics, const uint8_t *bytes,
                                            size_t byte_count, const uint16_t *replacement, uint16_t *out,
                                            size_t *out_count) {
    const qfs_codepage_table *table = codepage_tables(codepage, true);
    if (table == nullptr) {
        *out_count = 0;
        return nullptr;
    }
    bool all_mapped = true;
    size_t units = 0;
    size_t offset = 0;
    while (offset < byte_count) {
        const uint8_t byte = bytes[offset];
        uint16_t unit = 0;
        size_t used = 1;
        if (byte == 0) {
            unit = 0;
        } else if (use_graphics && byte < graphics_table_size && table->graphics[byte] != 0) {
            unit = table->graphics[byte];
        } else if (table->main[byte] != 0) {
            unit = table->main[byte];
        } else if (table->multibyte != nullptr && offset + 1 < byte_count &&
                   (unit = multibyte_lookup(*table, static_cast<uint16_t>(byte << 8 | bytes[offset + 1]))) != 0) {
            used = 2;
        } else {
            QFS_TRACE("No matching Unicode value for code page value: 0x%02hhX", byte);
            unit = replacement != nullptr ? *replacement : static_cast<uint16_t>(QFS_UNISTR_RAW_BYTE_BASE + byte);
            all_mapped = false;
        }
        out[units++] = unit;
        offset += used;
    }
    out[units] = 0;
    *out_count = units;
    return all_mapped ? out : nullptr;
}

uint8_t *qfs_unistr_to_codepage(uint32_t codepage, const uint16_t *text, size_t count,
                                const uint8_t *replacement, uint8_t *out, size_t out_size, size_t *out_count,
                                int use_graphics) {
    const qfs_codepage_table *table = codepage_tables(codepage, true);
    if (table == nullptr) {
        if (out_size > 0) {
            out[0] = 0;
        }
        *out_count = 0;
        return nullptr;
    }
    bool all_mapped = true;
    size_t written = 0;
    for (size_t i = 0; i < count; ++i) {
        const uint16_t unit = text[i];
        uint16_t code = 0;
        if (unit == 0) {
            code = 0;
        } else if (use_graphics &&
                   reverse_lookup(table->graphics_reverse, table->graphics_reverse_count, unit, &code) &&
                   is_control_position(code)) {
            // code set by the lookup
        } else if (reverse_lookup(table->reverse, table->reverse_count, unit, &code)) {
            // code set by the lookup
        } else if (unit >= QFS_UNISTR_RAW_BYTE_BASE && unit <= raw_byte_last) {
            code = unit & 0xFF;
            QFS_TRACE("Found special broken codepage sequence 0x%04hX in Unicode string. Encoding as raw byte "
                      "0x%02hhX.",
                      unit, static_cast<uint8_t>(code));
        } else {
            QFS_TRACE("No matching codepage sequence for Unicode value: 0x%04hX", unit);
            all_mapped = false;
            if (replacement == nullptr) {
                continue;
            }
            code = *replacement;
        }
        // A sequence needs room for itself and the terminator.
        const size_t width = code > 0xFF ? 2 : 1;
        if (written + width >= out_size) {
            QFS_TRACE("Output of %zu bytes is too small for the converted text", out_size);
            all_mapped = false;
            break;
        }
        if (width == 2) {
            out[written++] = static_cast<uint8_t>(code >> 8);
        }
        out[written++] = static_cast<uint8_t>(code & 0xFF);
    }
    if (out_size > 0) {
        out[written] = 0;
    }
    *out_count = written;
    return all_mapped ? out : nullptr;
}

qfs_result qfs_unistr_from_codepage(uint32_t codepage, int use_graphics, const uint8_t *bytes,
                                    size_t byte_count, const uint16_t *replacement, uint16_t **out_text,
                                    size_t *out_count) {
    if (codepage_tables(codepage, true) == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (byte_count >= SIZE_MAX / sizeof(uint16_t)) {
        QFS_LOG_ERROR("Too many bytes to convert from CP%d: %zu: %lu (%s)", static_cast<int>(codepage), byte_count,
                      QFS_ERR_ARGS(QFS_ERR_OVERFLOW));
        return QFS_ERR_OVERFLOW;
    }
    void *block = nullptr;
    const qfs_result r = _qfs_malloc(0, (byte_count + 1) * sizeof(uint16_t), &block);
    if (r != QFS_OK) {
        return r;
    }
    qfs_unique<uint16_t[]> text(static_cast<uint16_t *>(block));
    size_t units = 0;
    if (qfs_unistr_from_codepage_internal(codepage, use_graphics, bytes, byte_count, replacement, text.get(),
                                          &units) == nullptr) {
        return QFS_ERR_INVALID_DATA;
    }
    *out_text = text.release();
    *out_count = units;
    return QFS_OK;
}

qfs_result qfs_unistr_to_codepage_alloc(uint32_t codepage, const uint16_t *text, size_t count,
                                        const uint8_t *replacement, int use_graphics, uint8_t **out_bytes,
                                        size_t *out_count) {
    if (codepage_tables(codepage, true) == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (count >= SIZE_MAX / 2) {
        QFS_LOG_ERROR("Too many units to convert to CP%d: %zu: %lu (%s)", static_cast<int>(codepage), count,
                      QFS_ERR_ARGS(QFS_ERR_OVERFLOW));
        return QFS_ERR_OVERFLOW;
    }
    // Every unit takes at most two bytes.
    const size_t size = count * 2 + 1;
    void *block = nullptr;
    const qfs_result r = _qfs_malloc(0, size, &block);
    if (r != QFS_OK) {
        return r;
    }
    qfs_buffer bytes(static_cast<uint8_t *>(block));
    size_t written = 0;
    if (qfs_unistr_to_codepage(codepage, text, count, replacement, bytes.get(), size, &written, use_graphics) ==
        nullptr) {
        return QFS_ERR_INVALID_DATA;
    }
    *out_bytes = bytes.release();
    *out_count = written;
    return QFS_OK;
}
