// The parts of the capacity check: probe blocks, the address plan and the
// journal of saved blocks. Shared by the probe's source files only.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "support/qfs_error.h"
#include "support/qfs_fd.h"

struct qfs_device;

namespace qfs_capacity {

// One probe block: a whole page, so that direct I/O takes it on any card.
inline constexpr uint64_t block_size = 4096;
// Card write caches hold a few MiB; this much writing after the probe blocks
// makes the card store them before they are read back.
inline constexpr uint64_t flush_bytes = UINT64_C(64) << 20;
inline constexpr uint64_t chunk_bytes = UINT64_C(1) << 20;

// Memory for direct transfers: aligned to a page.
struct aligned_free {
    void operator()(uint8_t *p) const { std::free(p); }
};
using aligned_buffer = std::unique_ptr<uint8_t[], aligned_free>;
[[nodiscard]] qfs_result aligned_alloc_buffer(uint64_t bytes, aligned_buffer *out);

// What makes this run's blocks its own: a random value, and the round that wrote them.
struct run_tag {
    uint64_t run;
    uint32_t round;
};

// Fills one block for `address`: magic, address, run value, round, filler and a checksum.
void stamp_block(uint8_t *block, uint64_t address, const run_tag &tag);

// What came back from an address.
struct reading {
    enum kind_t { own, other, foreign } kind; // foreign: zeros, garbage, stale or another run's block
    uint64_t address;                         // for `other`: the address the block was written for
};
reading classify_block(const uint8_t *block, uint64_t address, const run_tag &tag);

// The addresses of the first round, ascending, and where the cache-flushing writes go.
struct plan {
    std::vector<uint64_t> addresses;
    uint64_t flush_start;
    uint64_t flush_length; // written over and over until flush_bytes are written
};
[[nodiscard]] qfs_result make_plan(uint64_t claimed_bytes, plan *out);
// Addresses strictly between a good and a bad one, close enough to pin the
// real size to within 1% (good is UINT64_MAX when no address was good).
std::vector<uint64_t> points_between(uint64_t good, uint64_t bad);

// The blocks the probe overwrote, in the order it overwrote them, in an unlinked temporary file.
class journal {
public:
    [[nodiscard]] qfs_result open(const char *folder);
    // Reads `length` bytes at `position` from the card into `buffer` and keeps them.
    [[nodiscard]] qfs_result save(qfs_device *device, uint64_t position, uint64_t length, uint8_t *buffer);
    // Writes every saved range back, the last saved first, so that a range
    // written through an alias of an earlier one ends with the older bytes.
    [[nodiscard]] qfs_result restore(qfs_device *device, uint64_t *bytes_written);

private:
    struct entry {
        uint64_t file_offset;
        uint64_t position;
        uint64_t length;
    };
    qfs_unique_fd file_;
    std::vector<entry> entries_;
    uint64_t file_size_ = 0;
};

} // namespace qfs_capacity
