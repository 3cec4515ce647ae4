// UTF-8 to UTF-16 conversion.
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/qfs_error.h"

// Converts `utf8_length` bytes of UTF-8 to UTF-16 in native order. A null
// *inout_utf16 gets a new buffer; otherwise *inout_utf16 is the caller's
// buffer of *inout_length units. On success *inout_length is the number of
// units written.
qfs_result qfs_unistr_from_utf8(const char *utf8, size_t utf8_length, uint16_t **inout_utf16,
                                size_t *inout_length);
