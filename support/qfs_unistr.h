// Unicode strings and OEM code pages.
//
// Names are kept as UTF-16 (16-bit units in native order). They arrive as
// UTF-8 from the command line and exFAT labels, and FAT stores short names
// and labels in a one- or two-byte OEM code page. Bytes that a code page
// cannot map travel through Unicode as U+F300 + byte and are written back
// as the raw byte, so that a name in an unknown encoding survives.
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/qfs_error.h"

// Unmappable byte b is carried as the UTF-16 unit QFS_UNISTR_RAW_BYTE_BASE + b.
inline constexpr uint16_t QFS_UNISTR_RAW_BYTE_BASE = 0xF300;

// UTF-8 to UTF-16. Decoding stops at a zero byte or after utf8_length bytes.
// With *inout_utf16 null, allocates the result (free with qfs_free) and stores
// it there; otherwise *inout_length must give the buffer's capacity in units.
// The result is zero-terminated when room allows; its unit count, without the
// terminator, is returned through inout_length (which may be null only when
// allocating). Invalid UTF-8 (overlong forms, encoded surrogates, values above
// U+10FFFF, truncated sequences, stray continuation bytes, bytes 0xF5-0xFF) is
// refused with QFS_ERR_INVALID_DATA.
[[nodiscard]] qfs_result qfs_unistr_from_utf8(const char *utf8, size_t utf8_length, uint16_t **inout_utf16,
                                              size_t *inout_length);

// UTF-16 to UTF-8, allocating a NUL-terminated result (free with qfs_free).
// Conversion stops at a zero unit or after `length` units. An unpaired
// surrogate is refused with QFS_ERR_INVALID_DATA. out_length (optional)
// receives the byte count without the NUL.
[[nodiscard]] qfs_result qfs_unistr_to_utf8(const uint16_t *utf16, size_t length, char **out_utf8, size_t *out_length);

// Whether `codepage` is one of the 20 supported OEM code pages. 0 is not a
// code page; callers map it to 437 first.
bool qfs_unistr_codepage_supported(uint32_t codepage);

// Code page bytes to UTF-16. `out` must have room for byte_count + 1 units;
// the result is zero-terminated and *out_count receives its unit count.
// With use_graphics set, bytes 0x01-0x1F and 0x7F become the IBM PC graphics
// characters. A byte that does not map becomes *replacement when given,
// otherwise U+F300 + byte. Returns out, or null when the code page is unknown
// (nothing converted, *out_count 0) or any byte could not be mapped (out is
// filled all the same).
uint16_t *qfs_unistr_from_codepage_internal(uint32_t codepage, int use_graphics, const uint8_t *bytes,
                                            size_t byte_count, const uint16_t *replacement, uint16_t *out,
                                            size_t *out_count);

// UTF-16 to code page bytes. out_size counts the terminating zero byte, so at
// most out_size - 1 bytes of text fit (a two-byte sequence is never split).
// *out_count receives the byte count without the terminator. With
// use_graphics set, IBM PC graphics characters go back to their control
// positions first. U+F300-U+F3FF are written as their low byte. Any other
// unit without a byte gets *replacement when given, otherwise nothing.
// Returns out, or null when the code page is unknown, a unit could not be
// mapped or the output ran out of room (out is filled and zero-terminated
// all the same when out_size is at least 1).
uint8_t *qfs_unistr_to_codepage(uint32_t codepage, const uint16_t *text, size_t count,
                                const uint8_t *replacement, uint8_t *out, size_t out_size, size_t *out_count,
                                int use_graphics);

// Allocating form of qfs_unistr_from_codepage_internal: on success *out_text
// (free with qfs_free, zero-terminated) and *out_count. An unknown code page
// fails with QFS_ERR_INVALID_PARAMETER, an unmappable byte with
// QFS_ERR_INVALID_DATA; on failure nothing is handed out.
[[nodiscard]] qfs_result qfs_unistr_from_codepage(uint32_t codepage, int use_graphics, const uint8_t *bytes,
                                                  size_t byte_count, const uint16_t *replacement, uint16_t **out_text,
                                                  size_t *out_count);

// Allocating form of qfs_unistr_to_codepage: on success *out_bytes (free with
// qfs_free, zero-terminated) and *out_count. An unknown code page fails with
// QFS_ERR_INVALID_PARAMETER, an unmappable unit with QFS_ERR_INVALID_DATA; on
// failure nothing is handed out.
[[nodiscard]] qfs_result qfs_unistr_to_codepage_alloc(uint32_t codepage, const uint16_t *text, size_t count,
                                                      const uint8_t *replacement, int use_graphics, uint8_t **out_bytes,
                                                      size_t *out_count);
