// Asks the association's web site, through curl or wget found on PATH,
// whether a newer formatter exists.
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/qfs_error.h"

inline constexpr const char *FORMAT_TARN_VERSION_URL =
    "https://www.tarncard.org/downloads/formatter/eula_linux/version.txt";
inline constexpr const char *FORMAT_TARN_DOWNLOAD_URL = "https://www.tarncard.org/downloads/formatter/";

// On success the text belongs to the caller (free with qfs_free).
[[nodiscard]] qfs_result update_check(int *out_update_available, int32_t *out_latest_raw, char **out_latest_text);

// Full path of the first usable curl or wget on PATH (free with qfs_free), or null.
char *get_curl_or_wget_pathname(int *out_is_curl, int *out_is_wget);

// 1 for a regular file with an execute bit that this process may execute.
int executable_is_usable(const char *path);

// Reads everything from `fd`; the buffer is not NUL-terminated.
[[nodiscard]] qfs_result read_buf_from_fd(int fd, uint8_t **out_buffer, size_t *out_capacity, size_t *out_length);
