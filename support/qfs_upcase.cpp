#include "support/qfs_upcase.h"

#include <cstring>

#include "support/qfs_upcase_default_table.h"
#include "support/qfs_endian.h"
#include "support/qfs_logging.h"
#include "support/qfs_memory.h"

namespace {

// In a compressed table, 0xFFFF followed by a count n marks n characters that are their own capitals.
constexpr uint16_t run_marker = 0xFFFF;

// The map starts at 32 slots (the table raises 4 bits to its minimum of 5) and grows as needed.
constexpr uint8_t map_bits = 4;

// Rotate right by one bit within 16 bits, then add: one step of the exFAT name hash.
uint16_t name_hash_step(uint16_t hash, uint8_t byte) {
    return static_cast<uint16_t>(((hash & 1) ? 0x8000 : 0) + (hash >> 1) + byte);
}

} // namespace

qfs_result qfs_upcase_get_default_compressed_table(const uint8_t **out_table, size_t *out_size) {
    *out_table = qfs_upcase_default_compressed_table;
    *out_size = qfs_upcase_default_compressed_size;
    return QFS_OK;
}

qfs_result qfs_upcase_get_default_table(qfs_upcase_table **out) {
    const qfs_result r = qfs_upcase_decompress_table(qfs_upcase_default_compressed_table,
                                                       qfs_upcase_default_compressed_size / 2, out);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while decompressing table: %lu (%s)", QFS_ERR_ARGS(r));
    }
    return r;
}

qfs_result qfs_upcase_decompress_table(const uint8_t *entries_le, uint16_t entry_count, qfs_upcase_table **out) {
    QFS_TRACE("qfs_upcase_decompress_table entering with %hu bytes of input", entry_count);
    const auto entry = [&](uint32_t i) { return get_le16(entries_le, size_t{i} * 2); };
    // A 0xFFFF in last place has no count after it: it is the capital of its character.
    const auto is_run = [&](uint32_t i) { return entry(i) == run_marker && i + 1 < entry_count; };

    unsigned long table_length = 0;
    for (uint32_t i = 0; i < entry_count;) {
        if (is_run(i)) {
            table_length += entry(i + 1);
            i += 2;
        } else {
            table_length += 1;
            i += 1;
        }
    }
    QFS_TRACE("Calculated table_length: %lu", table_length);

    qfs_unique<qfs_upcase_table> table;
    qfs_result r = qfs_object_alloc(table);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Failed to allocate %zu bytes of memory for the upcase table container: %lu (%s)",
                      sizeof(qfs_upcase_table), QFS_ERR_ARGS(r));
        return r;
    }
    qfs_ht *raw_map = nullptr;
    r = qfs_ht_create(map_bits, sizeof(uint16_t), 0, sizeof(uint16_t), &raw_map);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while creating uppercase hashtable: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    qfs_owned<qfs_ht, qfs_ht_destroy> map(raw_map);

    // Counts past 0xFFFF on malformed input; the key is its low 16 bits.
    uint32_t character = 0;
    for (uint32_t i = 0; i < entry_count;) {
        if (is_run(i)) {
            const uint16_t count = entry(i + 1);
            QFS_TRACE("Encountered identity compression of range 0x%lX - 0x%lX. Filling...",
                      static_cast<unsigned long>(character), static_cast<unsigned long>(character + count));
            character += count;
            i += 2;
            continue;
        }
        const uint16_t capital = entry(i);
        if (capital != character) {
            const uint16_t key = static_cast<uint16_t>(character);
            r = qfs_ht_insert(map.get(), &key, &capital);
            if (r != QFS_OK) {
                QFS_LOG_ERROR("Error while inserting uppercase mapping into table: %lu (%s)", QFS_ERR_ARGS(r));
                return r;
            }
        }
        ++character;
        ++i;
    }
    QFS_TRACE("table_ptr=%lu", static_cast<unsigned long>(character));
    QFS_TRACE("Generated table length=%lu", table_length);
    table->map = map.release();
    *out = table.release();
    return QFS_OK;
}

qfs_result qfs_upcase_destroy_table(qfs_upcase_table **table) {
    if (table == nullptr || *table == nullptr) {
        return QFS_OK;
    }
    const qfs_result r = qfs_ht_destroy(&(*table)->map);
    qfs_free(*table);
    return r;
}

uint16_t qfs_upcase_char(const qfs_upcase_table *table, uint16_t character) {
    if (table == nullptr) {
        return character;
    }
    const void *stored = qfs_ht_get(table->map, &character);
    if (stored == nullptr) {
        return character;
    }
    uint16_t capital;
    std::memcpy(&capital, stored, sizeof capital);
    QFS_TRACE("Upcase conversion -> %hX", capital);
    return capital;
}

qfs_result qfs_upcase_convert_case(const qfs_upcase_table *table, const uint16_t *name, size_t length, int mode,
                                     uint16_t **inout_result) {
    (void)mode; // every mode gives the capitals
    if (inout_result == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    uint16_t *result = *inout_result;
    qfs_unique<uint16_t[]> allocated;
    if (result == nullptr) {
        void *block = nullptr;
        const qfs_result r = _qfs_malloc(0, length * sizeof(uint16_t), &block);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Failed to allocate space for uppercase string: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
        allocated.reset(static_cast<uint16_t *>(block));
        result = allocated.get();
    }
    // Index by index, so the result may be the name itself.
    for (size_t i = 0; i < length; ++i) {
        result[i] = qfs_upcase_char(table, name[i]);
    }
    if (allocated) {
        *inout_result = allocated.release();
    }
    return QFS_OK;
}

int qfs_upcase_compare_names(const qfs_upcase_table *table, const uint16_t *a, const uint16_t *b, size_t length,
                               const uint16_t *optional_char) {
    if (table == nullptr) {
        const int difference = std::memcmp(a, b, length * sizeof(uint16_t));
        return (difference > 0) - (difference < 0);
    }
    const auto capital = [&](uint16_t c) {
        return optional_char != nullptr && c == *optional_char ? c : qfs_upcase_char(table, c);
    };
    for (size_t i = 0; i < length; ++i) {
        const uint16_t ca = capital(a[i]);
        const uint16_t cb = capital(b[i]);
        if (ca != cb) {
            return ca < cb ? -1 : 1;
        }
    }
    return 0;
}

uint32_t qfs_upcase_table_checksum(const uint8_t *bytes, size_t length) {
    uint32_t sum = 0;
    for (size_t i = 0; i < length; ++i) {
        sum = ((sum & 1) ? 0x80000000u : 0) + (sum >> 1) + bytes[i];
    }
    return sum;
}

uint16_t qfs_upcase_name_hash_seeded(const qfs_upcase_table *table, uint16_t incoming, const uint16_t *name,
                                       uint8_t length) {
    QFS_TRACE("Entering: upcase_table=%p incoming=0x%hX file_name=%p name_length=%hhu",
              static_cast<const void *>(table), incoming, static_cast<const void *>(name), length);
    uint16_t hash = incoming;
    for (unsigned i = 0; i < length; ++i) {
        const uint16_t upcased = qfs_upcase_char(table, name[i]);
        QFS_TRACE("Index %hu: upcased_char=%hX", static_cast<unsigned short>(i), upcased);
        hash = name_hash_step(hash, static_cast<uint8_t>(upcased));
        QFS_TRACE("hash (%d): %hX", static_cast<int>(2 * i), hash);
        hash = name_hash_step(hash, static_cast<uint8_t>(upcased >> 8));
        QFS_TRACE("hash (%d): %hX", static_cast<int>(2 * i + 1), hash);
    }
    return hash;
}

uint16_t qfs_upcase_name_hash(const qfs_upcase_table *table, const uint16_t *name, uint8_t length) {
    QFS_TRACE("Entering: upcase_table=%p file_name=%p name_length=%hhu", static_cast<const void *>(table),
              static_cast<const void *>(name), length);
    const uint16_t hash = qfs_upcase_name_hash_seeded(table, 0, name, length);
    QFS_TRACE("Final hash value: %hX", hash);
    return hash;
}

uint16_t qfs_upcase_path_hash(const qfs_upcase_table *table, const uint16_t *path, size_t length) {
    QFS_TRACE("Entering: upcase_table=%p path=%p path_length=%zu", static_cast<const void *>(table),
              static_cast<const void *>(path), length);
    uint16_t hash = 0;
    for (size_t i = 0; i < length; ++i) {
        const uint16_t upcased = qfs_upcase_char(table, path[i]);
        QFS_TRACE("Index %zu: upcased_char=%hX", i, upcased);
        hash = name_hash_step(hash, static_cast<uint8_t>(upcased));
        QFS_TRACE("hash (%zu): %hX", 2 * i, hash);
        hash = name_hash_step(hash, static_cast<uint8_t>(upcased >> 8));
        QFS_TRACE("hash (%zu): %hX", 2 * i + 1, hash);
    }
    QFS_TRACE("Final hash value: %hX", hash);
    return hash;
}
