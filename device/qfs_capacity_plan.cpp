// Where the capacity check writes: a few blocks near the start, one at every
// power of two from 32 MiB up to the claimed size, the last blocks and a few
// random ones; the cache-flushing writes go into the first wide gap between
// them. A second round looks between the last good and the first bad address.
#include <algorithm>

#include "device/qfs_capacity_internal.h"
#include "support/qfs_random.h"

namespace qfs_capacity {

namespace {

constexpr uint64_t mib = UINT64_C(1) << 20;
constexpr uint64_t start_addresses[] = {0, 1 * mib, 8 * mib};
constexpr uint64_t first_power = 32 * mib;
constexpr int random_addresses = 4;
// A second round pins the real size to 1/128 of it, well inside 1%.
constexpr uint64_t precision_divisor = 128;
// Bounds the second round's writes when the first good address is tiny.
constexpr uint64_t most_points = 4096;

uint64_t align_down(uint64_t value, uint64_t unit) { return value / unit * unit; }
uint64_t align_up(uint64_t value, uint64_t unit) { return (value + unit - 1) / unit * unit; }

// The first gap between sorted addresses that holds the whole flush, else the widest one.
void place_flush(const std::vector<uint64_t> &sorted, uint64_t end, plan *out) {
    uint64_t best_start = 0, best_length = 0;
    for (size_t i = 0; i < sorted.size(); ++i) {
        const uint64_t start = align_up(sorted[i] + block_size, block_size);
        const uint64_t stop = i + 1 < sorted.size() ? sorted[i + 1] : end;
        const uint64_t length = stop > start ? align_down(stop - start, block_size) : 0;
        if (length >= flush_bytes) {
            best_start = start;
            best_length = flush_bytes;
            break;
        }
        if (length > best_length) {
            best_start = start;
            best_length = length;
        }
    }
    out->flush_start = best_start;
    out->flush_length = best_length;
}

} // namespace

qfs_result make_plan(uint64_t claimed_bytes, plan *out) {
    const uint64_t usable = align_down(claimed_bytes, block_size);
    if (usable < 2 * block_size) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    plan result{};
    for (const uint64_t a : start_addresses) {
        if (a < usable) result.addresses.push_back(a);
    }
    for (uint64_t a = first_power; a < usable; a *= 2) {
        result.addresses.push_back(a);
    }
    result.addresses.push_back(usable - block_size);
    result.addresses.push_back(usable - 2 * block_size);
    std::sort(result.addresses.begin(), result.addresses.end());
    result.addresses.erase(std::unique(result.addresses.begin(), result.addresses.end()), result.addresses.end());
    place_flush(result.addresses, usable, &result);
    // Random addresses catch a card whose real size sits between two powers of two.
    const uint64_t low = usable > first_power ? first_power : 0;
    for (int i = 0; i < random_addresses; ++i) {
        uint64_t draw = 0;
        const qfs_result r = qfs_random_at_most((usable - low) / block_size - 1, &draw);
        if (r != QFS_OK) return r;
        const uint64_t a = low + draw * block_size;
        if (a < result.flush_start || a >= result.flush_start + result.flush_length) {
            result.addresses.push_back(a);
        }
    }
    std::sort(result.addresses.begin(), result.addresses.end());
    result.addresses.erase(std::unique(result.addresses.begin(), result.addresses.end()), result.addresses.end());
    *out = std::move(result);
    return QFS_OK;
}

std::vector<uint64_t> points_between(uint64_t good, uint64_t bad) {
    uint64_t step = std::max(block_size, align_down((good + block_size) / precision_divisor, block_size));
    step = std::max(step, align_up((bad - good) / most_points, block_size));
    std::vector<uint64_t> points;
    for (uint64_t a = good + step; a < bad; a += step) {
        points.push_back(a);
    }
    return points;
}

} // namespace qfs_capacity
