// GUIDs and UUIDs (parsing, random generation, text form) and the walk over
// the elements of a POSIX path.
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/qfs_error.h"

// An identifier is 16 bytes; its text form is 36 characters
// (8-4-4-4-12 hexadecimal digits), 37 bytes with the terminator.
inline constexpr size_t QFS_XUID_SIZE = 16;
inline constexpr size_t QFS_XUID_TEXT_LENGTH = 36;
inline constexpr size_t QFS_XUID_TEXT_SIZE = QFS_XUID_TEXT_LENGTH + 1;

// Variants of a generated identifier (the top bits of byte 8).
inline constexpr int QFS_XUID_VARIANT_NCS = 0;       // 0xxxxxxx
inline constexpr int QFS_XUID_VARIANT_RFC4122 = 1;   // 10xxxxxx, UUIDs
inline constexpr int QFS_XUID_VARIANT_MICROSOFT = 2; // 110xxxxx, GPT GUIDs

// Parses the text form. With `guid_order` set the first three groups are
// stored little-endian as GPT and exFAT keep them; otherwise every byte is
// stored in text order. The separator positions are not examined.
[[nodiscard]] qfs_result qfs_util_parse_xuid(const char *text, int guid_order, uint8_t out[QFS_XUID_SIZE]);

// A random version-4 identifier of the given variant.
[[nodiscard]] qfs_result qfs_util_generate_xuid(int variant, uint8_t out[QFS_XUID_SIZE]);
// Random identifiers for GPT disks and partitions, and RFC 4122 UUIDs.
[[nodiscard]] qfs_result qfs_util_generate_guid(uint8_t out[QFS_XUID_SIZE]);
[[nodiscard]] qfs_result qfs_util_generate_uuid(uint8_t out[QFS_XUID_SIZE]);

// The text form with upper-case digits, as partitioning tools print GUIDs,
// read in GUID or UUID byte order.
[[nodiscard]] qfs_result qfs_util_format_guid(const uint8_t id[QFS_XUID_SIZE], char out[QFS_XUID_TEXT_SIZE]);
[[nodiscard]] qfs_result qfs_util_format_uuid(const uint8_t id[QFS_XUID_SIZE], char out[QFS_XUID_TEXT_SIZE]);

// Takes the next element of a POSIX path: the text from *inout_path up to the
// first '/' within *inout_path_size bytes (or all of them). On success the
// cursor and the remaining size move past the element and its '/', so
// consecutive slashes yield empty elements; a remaining size of 0 is an error.
// When `inout_element_length` is given it holds the capacity of
// `out_element` on entry and the element's length on return: in bytes, or
// with `encode` set in UTF-16LE units (`out_element` is then a uint16_t buffer).
[[nodiscard]] qfs_result qfs_util_next_posix_path_element(const char **inout_path, size_t *inout_path_size, int encode,
                                                          void *out_element, size_t *inout_element_length);
