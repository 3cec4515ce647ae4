// Jenkins one-at-a-time hash over key bytes, shared by both hash tables:
// the compact table computes it in 32 bits, the chained table in 64.
#pragma once

#include <cstddef>
#include <cstdint>

template <typename Word> Word qfs_one_at_a_time(const uint8_t *bytes, size_t length) {
    Word h = 0;
    for (size_t i = 0; i < length; ++i) {
        h += bytes[i];
        h += h << 10;
        h ^= h >> 6;
    }
    h += h << 3;
    h ^= h >> 11;
    h += h << 15;
    return h;
}
