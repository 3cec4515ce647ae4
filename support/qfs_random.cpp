#include "support/qfs_random.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>

#include "support/qfs_fd.h"
#include "support/qfs_logging.h"
#include "support/qfs_support.h"

namespace {

// The fixed sequence of a test run, when one is set.
std::optional<uint64_t> fixed_state;

// SplitMix64: one multiply-xorshift step per value, enough for repeatable test cards.
uint64_t next_fixed_value() {
    uint64_t z = (*fixed_state += 0x9E3779B97F4A7C15u);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9u;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBu;
    return z ^ (z >> 31);
}

uint64_t system_draw() {
    uint64_t value = 0;
    const qfs_unique_fd urandom(open("/dev/urandom", O_RDONLY | O_CLOEXEC));
    if (urandom.valid() && read(urandom.get(), &value, sizeof(value)) == static_cast<ssize_t>(sizeof(value))) {
        return value;
    }
    return static_cast<uint64_t>(random());
}

} // namespace

uint32_t qfs_random_serial_from_time(const qfs_time &now) {
    if (fixed_state) {
        return static_cast<uint32_t>(next_fixed_value());
    }
    const uint32_t microseconds = static_cast<uint32_t>(now.nanoseconds / 1000);
    srand(microseconds ^ static_cast<uint32_t>(now.seconds));
    const uint32_t r1 = static_cast<uint32_t>(rand());
    const uint32_t r2 = static_cast<uint32_t>(rand());
    const uint32_t r3 = static_cast<uint32_t>(rand());
    const uint32_t r4 = static_cast<uint32_t>(rand());
    const uint32_t serial = r1 ^ (r2 << 8) ^ (r3 << 16) ^ (r4 << 24);
    QFS_TRACE("Generated serial number: 0x%lX", static_cast<unsigned long>(serial));
    return serial;
}

qfs_result qfs_random_serial_number(uint32_t *out_serial) {
    qfs_time now{};
    const qfs_result r = qfs_get_current_time(&now);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while getting the current time: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    *out_serial = qfs_random_serial_from_time(now);
    return QFS_OK;
}

qfs_result qfs_random_at_most(uint64_t maximum, uint64_t *out_value) {
    const unsigned bits = qfs_bit_length(maximum);
    for (;;) {
        uint64_t value = fixed_state ? next_fixed_value() : system_draw();
        if (maximum < (UINT64_C(1) << 60)) {
            value &= bits == 0 ? 0 : (~UINT64_C(0) >> (64 - bits));
        }
        if (value <= maximum) {
            *out_value = value;
            return QFS_OK;
        }
    }
}

void qfs_random_set_fixed_seed_for_testing(const uint64_t *seed) {
    fixed_state = seed ? std::optional<uint64_t>(*seed) : std::nullopt;
}
