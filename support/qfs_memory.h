// Allocation wrappers that log their failures and return result codes, and
// the owners that free what they hand out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "support/qfs_error.h"

[[nodiscard]] qfs_result _qfs_malloc(uint32_t flags, size_t size, void **out);
[[nodiscard]] qfs_result _qfs_calloc(uint32_t flags, size_t size, void **out);
// On failure the current block stays valid and *out is untouched.
[[nodiscard]] qfs_result _qfs_realloc(uint32_t flags, void *block, size_t old_size, size_t new_size, void **out);
// Frees the block and clears the caller's pointer.
void _qfs_free(void *block, void **caller_pointer);

template <typename T> void qfs_free(T *&pointer) {
    void *raw = pointer;
    _qfs_free(raw, &raw);
    pointer = nullptr;
}

struct qfs_free_deleter {
    void operator()(void *block) const { std::free(block); }
};

template <typename T> using qfs_unique = std::unique_ptr<T, qfs_free_deleter>;
using qfs_buffer = qfs_unique<uint8_t[]>;

// Owns an object whose `_destroy` only frees memory. Such a destroy fails
// only for a null pointer, which a deleter is never given, so its result
// carries nothing.
template <auto destroy> struct qfs_destroy_deleter {
    template <typename T> void operator()(T *object) const { (void)destroy(&object); }
};
template <typename T, auto destroy> using qfs_owned = std::unique_ptr<T, qfs_destroy_deleter<destroy>>;

// A zero-filled buffer of `size` bytes, owned by `out` on success.
[[nodiscard]] qfs_result qfs_buffer_alloc(size_t size, qfs_buffer &out);

// A zero-filled object of type T (a plain structure), owned by `out` on success.
template <typename T> [[nodiscard]] qfs_result qfs_object_alloc(qfs_unique<T> &out) {
    void *block = nullptr;
    const qfs_result r = _qfs_calloc(0, sizeof(T), &block);
    if (r == QFS_OK) {
        out.reset(static_cast<T *>(block));
    }
    return r;
}
