// The exFAT engine's names for the shared up-case table: the table a new
// volume carries, and the case rules its names are compared and hashed by.
#pragma once

#include "support/qfs_upcase.h"

using exfat_upcase_table = qfs_upcase_table;
inline constexpr uint32_t exfat_upcase_default_checksum = qfs_upcase_default_checksum;

[[nodiscard]] inline qfs_result exfat_upcase_get_default_compressed_table(const uint8_t **out_table, size_t *out_size) {
    return qfs_upcase_get_default_compressed_table(out_table, out_size);
}
[[nodiscard]] inline qfs_result exfat_upcase_get_default_table(exfat_upcase_table **out) {
    return qfs_upcase_get_default_table(out);
}
[[nodiscard]] inline qfs_result exfat_upcase_decompress_table(const uint8_t *entries_le, uint16_t entry_count,
                                                              exfat_upcase_table **out) {
    return qfs_upcase_decompress_table(entries_le, entry_count, out);
}
[[nodiscard]] inline qfs_result exfat_upcase_destroy_table(exfat_upcase_table **table) {
    return qfs_upcase_destroy_table(table);
}
inline uint16_t exfat_upcase_char(const exfat_upcase_table *table, uint16_t character) {
    return qfs_upcase_char(table, character);
}
[[nodiscard]] inline qfs_result exfat_upcase_convert_case(const exfat_upcase_table *table, const uint16_t *name,
                                                          size_t length, int mode, uint16_t **inout_result) {
    return qfs_upcase_convert_case(table, name, length, mode, inout_result);
}
inline int exfat_upcase_compare_names(const exfat_upcase_table *table, const uint16_t *a, const uint16_t *b,
                                      size_t length, const uint16_t *optional_char) {
    return qfs_upcase_compare_names(table, a, b, length, optional_char);
}
inline uint32_t exfat_upcase_table_checksum(const uint8_t *bytes, size_t length) {
    return qfs_upcase_table_checksum(bytes, length);
}
inline uint16_t exfat_upcase_name_hash_seeded(const exfat_upcase_table *table, uint16_t incoming,
                                              const uint16_t *name, uint8_t length) {
    return qfs_upcase_name_hash_seeded(table, incoming, name, length);
}
inline uint16_t exfat_upcase_name_hash(const exfat_upcase_table *table, const uint16_t *name, uint8_t length) {
    return qfs_upcase_name_hash(table, name, length);
}
inline uint16_t exfat_upcase_path_hash(const exfat_upcase_table *table, const uint16_t *path, size_t length) {
    return qfs_upcase_path_hash(table, path, length);
}
