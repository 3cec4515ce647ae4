// CRC-32 as GPT uses it: reflected polynomial 0xEDB88320, initial value
// 0xFFFFFFFF, result inverted.
#pragma once

#include <cstddef>
#include <cstdint>

uint32_t qfs_crc32(const uint8_t *bytes, size_t length);
