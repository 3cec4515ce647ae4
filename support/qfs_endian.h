// Explicit little-endian access to on-disk bytes; never host-order casts.
#pragma once

#include <cstddef>
#include <cstdint>

inline void put_le16(uint8_t *buf, size_t offset, uint16_t value) {
    buf[offset] = static_cast<uint8_t>(value);
    buf[offset + 1] = static_cast<uint8_t>(value >> 8);
}

inline void put_le32(uint8_t *buf, size_t offset, uint32_t value) {
    for (size_t i = 0; i < 4; ++i) {
        buf[offset + i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

inline void put_le64(uint8_t *buf, size_t offset, uint64_t value) {
    for (size_t i = 0; i < 8; ++i) {
        buf[offset + i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

inline uint16_t get_le16(const uint8_t *buf, size_t offset) {
    return static_cast<uint16_t>(buf[offset] | (buf[offset + 1] << 8));
}

inline uint32_t get_le32(const uint8_t *buf, size_t offset) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i) {
        value |= static_cast<uint32_t>(buf[offset + i]) << (8 * i);
    }
    return value;
}

inline uint64_t get_le64(const uint8_t *buf, size_t offset) {
    uint64_t value = 0;
    for (size_t i = 0; i < 8; ++i) {
        value |= static_cast<uint64_t>(buf[offset + i]) << (8 * i);
    }
    return value;
}
