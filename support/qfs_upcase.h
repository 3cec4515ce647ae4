// The Unicode up-case table that exFAT volumes carry and both engines
// upper-case with: the built-in compressed table, its decompression into a
// map of capitals, case-blind comparison of 16-bit names, the table checksum
// and the name hash.
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/qfs_error.h"
#include "support/qfs_ht.h"

// Checksum of the built-in compressed table, as a volume's up-case table entry records it.
inline constexpr uint32_t qfs_upcase_default_checksum = 0xE619D30D;

// Holds only the characters whose capital differs from themselves
// (16-bit key = character, 16-bit value = capital); any other character is
// its own capital.
struct qfs_upcase_table {
    qfs_ht *map;
};

// The built-in compressed table as stored on a volume (little-endian entries) and its size in bytes.
[[nodiscard]] qfs_result qfs_upcase_get_default_compressed_table(const uint8_t **out_table, size_t *out_size);
// The built-in table, decompressed.
[[nodiscard]] qfs_result qfs_upcase_get_default_table(qfs_upcase_table **out);
// Decompresses `entry_count` little-endian 16-bit entries: each is the capital
// of the next character, except that 0xFFFF followed by a count n says that
// the next n characters are their own capitals.
[[nodiscard]] qfs_result qfs_upcase_decompress_table(const uint8_t *entries_le, uint16_t entry_count,
                                                       qfs_upcase_table **out);
[[nodiscard]] qfs_result qfs_upcase_destroy_table(qfs_upcase_table **table);

uint16_t qfs_upcase_char(const qfs_upcase_table *table, uint16_t character);
// Replaces each character by its capital. When *inout_result is null a buffer
// of `length` characters is allocated for it (free with qfs_free); otherwise
// the given buffer is written, and it may be `name` itself. `mode` does not
// change the result.
[[nodiscard]] qfs_result qfs_upcase_convert_case(const qfs_upcase_table *table, const uint16_t *name, size_t length,
                                                   int mode, uint16_t **inout_result);
// -1, 0 or 1 at the first difference between the capitals of two names of
// `length` characters. A character equal to *optional_char (when given) is
// compared as it is. A null table compares the raw bytes.
int qfs_upcase_compare_names(const qfs_upcase_table *table, const uint16_t *a, const uint16_t *b, size_t length,
                               const uint16_t *optional_char);

// Rotate-right-and-add checksum of an up-case table's bytes.
uint32_t qfs_upcase_table_checksum(const uint8_t *bytes, size_t length);

// The exFAT name hash over the up-cased name, starting from `incoming`.
uint16_t qfs_upcase_name_hash_seeded(const qfs_upcase_table *table, uint16_t incoming, const uint16_t *name,
                                       uint8_t length);
uint16_t qfs_upcase_name_hash(const qfs_upcase_table *table, const uint16_t *name, uint8_t length);
uint16_t qfs_upcase_path_hash(const qfs_upcase_table *table, const uint16_t *path, size_t length);
