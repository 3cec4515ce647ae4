#include "fuzz/zero_runs.h"

#include <algorithm>
#include <cstring>

namespace {

// A run length takes at most five LEB128 bytes (35 bits), more than any card here.
constexpr int max_length_bytes = 5;

// Zero runs up to this many bytes are kept as zeros in the extent around them.
constexpr uint64_t short_run = 512;

} // namespace

void fuzz_zero_runs_decode(const uint8_t *input, size_t size, fuzz_memory_card *card) {
    card->extents.clear();
    const uint64_t limit = card->device_bytes;
    std::vector<uint8_t> extent;
    uint64_t position = 0; // where the next byte of the image goes
    size_t at = 0;
    while (at < size && position < limit) {
        if (input[at] != 0) {
            // A whole stretch of literal bytes at once: a byte at a time is the slowest part of a run.
            const void *zero = std::memchr(input + at, 0, size - at);
            const size_t literal_end = zero ? size_t(static_cast<const uint8_t *>(zero) - input) : size;
            const size_t take = size_t(std::min<uint64_t>(literal_end - at, limit - position));
            extent.insert(extent.end(), input + at, input + at + take);
            position += take;
            at = literal_end;
            continue;
        }
        ++at;
        uint64_t run_less_one = 0;
        for (int shift = 0; at < size && shift < 7 * max_length_bytes; shift += 7) {
            const uint8_t part = input[at++];
            run_less_one |= uint64_t(part & 0x7F) << shift;
            if ((part & 0x80) == 0) break;
        }
        const uint64_t run = std::min(run_less_one, limit - position - 1) + 1;
        position += run;
        // Short runs stay inside the extent: one extent per few bytes makes every read a map walk.
        if (!extent.empty() && run <= short_run) {
            extent.resize(extent.size() + run, 0);
            continue;
        }
        if (!extent.empty()) card->extents.emplace(position - run - extent.size(), std::move(extent));
        extent.clear();
    }
    if (!extent.empty()) card->extents.emplace(position - extent.size(), std::move(extent));
}

std::vector<uint8_t> fuzz_zero_runs_encode(const std::vector<uint8_t> &image) {
    size_t end = image.size();
    while (end != 0 && image[end - 1] == 0) --end;
    std::vector<uint8_t> out;
    for (size_t at = 0; at < end;) {
        if (image[at] != 0) {
            out.push_back(image[at++]);
            continue;
        }
        size_t run = 0;
        while (at + run < end && image[at + run] == 0) ++run;
        at += run;
        out.push_back(0);
        uint64_t rest = run - 1;
        do {
            const uint8_t low = rest & 0x7F;
            rest >>= 7;
            out.push_back(rest != 0 ? uint8_t(low | 0x80) : low);
        } while (rest != 0);
    }
    return out;
}
