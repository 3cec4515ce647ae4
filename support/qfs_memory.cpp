#include "support/qfs_memory.h"

#include <cerrno>

#include "support/qfs_logging.h"

namespace {
// malloc(0) may answer null, which would read as a failure.
size_t at_least_one(size_t size) { return size == 0 ? 1 : size; }
} // namespace

qfs_result _qfs_malloc(uint32_t, size_t size, void **out) {
    errno = 0;
    void *block = std::malloc(at_least_one(size));
    if (block == nullptr) {
        const qfs_result r = qfs_errno_result();
        QFS_LOG_ERROR("malloc failed for %zu bytes: %lu (%s)", size, QFS_ERR_ARGS(r));
        return r;
    }
    *out = block;
    return QFS_OK;
}

qfs_result _qfs_calloc(uint32_t, size_t size, void **out) {
    errno = 0;
    void *block = std::calloc(1, at_least_one(size));
    if (block == nullptr) {
        const qfs_result r = qfs_errno_result();
        QFS_LOG_ERROR("calloc failed for %zu bytes: %lu (%s)", size, QFS_ERR_ARGS(r));
        return r;
    }
    *out = block;
    return QFS_OK;
}

qfs_result _qfs_realloc(uint32_t, void *block, size_t, size_t new_size, void **out) {
    errno = 0;
    void *grown = std::realloc(block, at_least_one(new_size));
    if (grown == nullptr) {
        const qfs_result r = qfs_errno_result();
        QFS_LOG_ERROR("realloc failed for %zu bytes: %lu (%s)", new_size, QFS_ERR_ARGS(r));
        return r;
    }
    *out = grown;
    return QFS_OK;
}

void _qfs_free(void *block, void **caller_pointer) {
    std::free(block);
    if (caller_pointer != nullptr) {
        *caller_pointer = nullptr;
    }
}

qfs_result qfs_buffer_alloc(size_t size, qfs_buffer &out) {
    void *block = nullptr;
    const qfs_result r = _qfs_calloc(0, size, &block);
    if (r == QFS_OK) {
        out.reset(static_cast<uint8_t *>(block));
    }
    return r;
}
