// Probe blocks: each names the address it was written for, the run and the
// round, so that a block read back from the wrong place says where it came
// from; a checksum tells such a block from garbage.
#include <cstring>

#include "device/qfs_capacity_internal.h"
#include "support/qfs_crc32.h"
#include "support/qfs_endian.h"

namespace qfs_capacity {

namespace {

constexpr uint8_t magic[8] = {'T', 'A', 'R', 'N', 'P', 'R', 'O', 'B'};
constexpr size_t address_offset = 8;
constexpr size_t run_offset = 16;
constexpr size_t round_offset = 24;
constexpr size_t filler_offset = 28;
constexpr size_t checksum_offset = block_size - 4;

// Filler that differs from block to block, so that no card can compress or
// deduplicate the probe away.
void fill(uint8_t *block, uint64_t seed) {
    uint64_t x = seed | 1;
    for (size_t i = filler_offset; i < checksum_offset; i += 4) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        put_le32(block, i, static_cast<uint32_t>(x));
    }
}

uint64_t filler_seed(uint64_t address, const run_tag &tag) {
    return (address * 0x9E3779B97F4A7C15u) ^ tag.run ^ (static_cast<uint64_t>(tag.round) << 56);
}

} // namespace

qfs_result aligned_alloc_buffer(uint64_t bytes, aligned_buffer *out) {
    void *memory = std::aligned_alloc(block_size, bytes);
    if (memory == nullptr) {
        return QFS_ERR_OUT_OF_MEMORY;
    }
    out->reset(static_cast<uint8_t *>(memory));
    return QFS_OK;
}

void stamp_block(uint8_t *block, uint64_t address, const run_tag &tag) {
    std::memcpy(block, magic, sizeof(magic));
    put_le64(block, address_offset, address);
    put_le64(block, run_offset, tag.run);
    put_le32(block, round_offset, tag.round);
    fill(block, filler_seed(address, tag));
    put_le32(block, checksum_offset, qfs_crc32(block, filler_offset));
}

reading classify_block(const uint8_t *block, uint64_t address, const run_tag &tag) {
    const bool intact = std::memcmp(block, magic, sizeof(magic)) == 0 &&
                        get_le32(block, checksum_offset) == qfs_crc32(block, filler_offset);
    if (!intact || get_le64(block, run_offset) != tag.run || get_le32(block, round_offset) != tag.round) {
        return {reading::foreign, 0};
    }
    const uint64_t written_for = get_le64(block, address_offset);
    if (written_for != address) {
        return {reading::other, written_for};
    }
    // The checksum covers the head; the filler must be exactly what was written.
    uint8_t expected[block_size];
    stamp_block(expected, address, tag);
    return {std::memcmp(block, expected, block_size) == 0 ? reading::own : reading::foreign, address};
}

} // namespace qfs_capacity
