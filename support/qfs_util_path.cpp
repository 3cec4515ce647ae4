// Walking the elements of a POSIX path, optionally converting each to UTF-16LE.
#include <cstring>

#include "support/qfs_logging.h"
#include "support/qfs_memory.h"
#include "support/qfs_unistr.h"
#include "support/qfs_util.h"

namespace {

// Converts the element into the caller's UTF-16 buffer of *inout_units units.
qfs_result encode_element(const char *element, size_t element_length, uint16_t *buffer, size_t *inout_units) {
    uint16_t *units = buffer;
    size_t length = *inout_units;
    const qfs_result r = qfs_unistr_from_utf8(element, element_length, &units, &length);
    if (r == QFS_ERR_OVERFLOW) {
        // The conversion has said that the buffer is too small.
        return r;
    }
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while encoding pathname element string: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    if (units != buffer) {
        QFS_LOG_CRITICAL("Preallocated buffer was unexpectedly reallocated when converting pathname element "
                         "\"%.*s\" to UTF-16LE.",
                         static_cast<int>(element_length), element);
        qfs_free(units);
        return QFS_ERR_INTERNAL_ERROR;
    }
    *inout_units = length;
    return QFS_OK;
}

} // namespace

qfs_result qfs_util_next_posix_path_element(const char **inout_path, size_t *inout_path_size, int encode,
                                            void *out_element, size_t *inout_element_length) {
    if (inout_path == nullptr || inout_path_size == nullptr || (*inout_path == nullptr && *inout_path_size != 0)) {
        QFS_LOG_ERROR("No path to get the next POSIX path element from.");
        return QFS_ERR_INVALID_PARAMETER;
    }
    const char *path = *inout_path;
    const size_t path_size = *inout_path_size;
    QFS_TRACE("Entering: path=%p path_size=%zu out_element=%p out_element_length=%zu",
              static_cast<const void *>(path), path_size, out_element,
              inout_element_length != nullptr ? *inout_element_length : 0);
    if (path_size == 0) {
        QFS_LOG_ERROR("Got empty subpath when getting next POSIX path element.");
        return QFS_ERR_INVALID_PARAMETER;
    }

    const char *slash = static_cast<const char *>(memchr(path, '/', path_size));
    const size_t element_length = slash != nullptr ? static_cast<size_t>(slash - path) : path_size;
    QFS_TRACE("  element_length=%zu", element_length);

    if (inout_element_length != nullptr) {
        const size_t capacity = *inout_element_length;
        QFS_TRACE("  *out_element_length=%zu", capacity);
        QFS_TRACE("  Processing path element: \"%.*s\"", static_cast<int>(element_length), path);
        size_t written = 0;
        if (element_length != 0) {
            if (capacity == 0) {
                return QFS_ERR_OVERFLOW;
            }
            if (out_element == nullptr) {
                QFS_LOG_CRITICAL("Non-empty element but no output buffer.");
                return QFS_ERR_INTERNAL_ERROR;
            }
            if (encode) {
                written = capacity;
                const qfs_result r =
                    encode_element(path, element_length, static_cast<uint16_t *>(out_element), &written);
                if (r != QFS_OK) {
                    return r;
                }
            } else {
                if (capacity < element_length) {
                    return QFS_ERR_OVERFLOW;
                }
                memcpy(out_element, path, element_length);
                written = element_length;
            }
        }
        *inout_element_length = written;
    }

    const size_t consumed = element_length + (slash != nullptr ? 1 : 0);
    QFS_TRACE("Advancing path from \"%.*s\" (length: %zu) to \"%.*s\" (length: %zu)...",
              static_cast<int>(path_size), path, path_size, static_cast<int>(path_size - consumed),
              path + consumed, path_size - consumed);
    *inout_path = path + consumed;
    *inout_path_size = path_size - consumed;
    return QFS_OK;
}
