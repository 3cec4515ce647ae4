// Small FAT helpers shared by the format engine, the volume code and the
// command-line run: the volume serial number and the label-character rules.
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/qfs_error.h"

// A volume serial number from the clock-seeded standard generator.
[[nodiscard]] qfs_result fat_util_generate_serial_number(uint32_t *out_serial);

// Non-zero when `length` label bytes in `codepage` (0 meaning 437) obey the
// short-name rules: no control bytes, none of " * + , . / : ; < = > ? [ \ ] |,
// no lower-case ASCII letters and no leading space. The second byte of a
// two-byte character in a multi-byte code page is not examined.
int fat_util_label_is_valid(uint32_t codepage, const uint8_t *label, size_t length);
