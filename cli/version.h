// Version numbers: raw form major * 10000 + minor * 100 + patch, text form "major.minor.patch".
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/qfs_error.h"

inline constexpr int32_t FORMAT_TARN_RAW_VERSION = 10003;
inline constexpr const char *FORMAT_TARN_BUILD_LABEL = "3023.2.3.15";

// Parses " %d.%d.%d" at the start of `text`.
[[nodiscard]] qfs_result format_parse_version(const char *text, int32_t *out_raw);

// Renders `raw`. With a caller buffer (*inout_buffer non-null) *inout_length
// gives its size; otherwise a buffer is allocated (free with qfs_free). On
// success *inout_length is the text's length without the terminator.
[[nodiscard]] qfs_result format_make_version_str(int32_t raw, char **inout_buffer, size_t *inout_length);
