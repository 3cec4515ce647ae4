#include "cli/version.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "support/qfs_logging.h"
#include "support/qfs_memory.h"

namespace {
constexpr size_t overlong_version_text = 32;

bool unprintable(const char *text) {
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(text); *p; ++p) {
        if (*p > 127 || *p < 0x20 || *p == 0x7F) return true;
    }
    return false;
}
} // namespace

qfs_result format_parse_version(const char *text, int32_t *out_raw) {
    int major = 0, minor = 0, patch = 0;
    errno = 0;
    const int scanned = sscanf(text, " %d.%d.%d", &major, &minor, &patch);
    qfs_result r = QFS_OK;
    if (scanned == EOF) {
        r = qfs_errno_result();
    } else if (scanned < 3) {
        r = QFS_ERR_IO_ERROR;
    }
    if (r != QFS_OK) {
        const bool overlong = strlen(text) >= overlong_version_text;
        const bool odd = unprintable(text);
        if (overlong || odd) {
            QFS_LOG_ERROR("Version number is %s%smalformed", overlong ? "overlong and " : "",
                          odd ? "unprintable and " : "");
        } else {
            QFS_LOG_ERROR("Version number '%s' is malformed", text);
        }
        return r;
    }
    *out_raw = major * 10000 + minor * 100 + patch;
    return QFS_OK;
}

qfs_result format_make_version_str(int32_t raw, char **inout_buffer, size_t *inout_length) {
    if (inout_buffer == nullptr) {
        return QFS_ERR_INVALID_PARAMETER; // nowhere to hand the text to
    }
    const int major = raw / 10000, minor = (raw % 10000) / 100, patch = raw % 100;
    const int measured = snprintf(nullptr, 0, "%d.%d.%d", major, minor, patch);
    if (measured < 0) {
        QFS_LOG_ERROR("Error when calculating length of version string");
        return QFS_ERR_IO_ERROR;
    }
    const size_t length = static_cast<size_t>(measured);
    const bool caller_buffer = inout_buffer != nullptr && *inout_buffer != nullptr;
    size_t size = length + 1;
    qfs_unique<char[]> allocated;
    char *buffer = nullptr;
    if (caller_buffer) {
        if (inout_length == nullptr) {
            QFS_LOG_CRITICAL("Internal error: buffer provided without length");
            return QFS_ERR_INTERNAL_ERROR;
        }
        if (*inout_length < length) {
            QFS_LOG_ERROR("Insufficient buffer size for version string");
            return QFS_ERR_OVERFLOW;
        }
        buffer = *inout_buffer;
        size = *inout_length;
    } else {
        void *block = nullptr;
        const qfs_result r = _qfs_calloc(0, size, &block);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Error when allocating memory: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
        allocated.reset(static_cast<char *>(block));
        buffer = allocated.get();
    }
    const int written = snprintf(buffer, size, "%d.%d.%d", major, minor, patch);
    if (written != measured) {
        QFS_LOG_CRITICAL("Internal error: version string length mismatch: Expected length %d, got length %d",
                         measured, written);
        return QFS_ERR_INTERNAL_ERROR;
    }
    if (!caller_buffer) {
        *inout_buffer = allocated.release();
    }
    if (inout_length != nullptr) {
        *inout_length = length;
    }
    return QFS_OK;
}
