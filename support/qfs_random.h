// The one source of the random values a format writes: volume serial
// numbers, the MBR disk signature and GPT GUIDs. A test can fix it, so that
// a whole card can be compared byte for byte with a known digest.
#pragma once

#include <cstdint>

#include "support/qfs_error.h"
#include "support/qfs_support.h"

// A serial number from the standard generator, seeded from the time of day.
[[nodiscard]] qfs_result qfs_random_serial_number(uint32_t *out_serial);
// The same from a time of day the caller has read: the standard generator
// seeded with the seconds XOR the microseconds, four draws mixed a byte apart.
uint32_t qfs_random_serial_from_time(const qfs_time &now);

// A random value in 0..maximum from /dev/urandom, else from the standard generator; never fails.
[[nodiscard]] qfs_result qfs_random_at_most(uint64_t maximum, uint64_t *out_value);

// For tests only: with a seed, every later value comes from a fixed sequence
// that starts at that seed; null returns to the system's sources.
void qfs_random_set_fixed_seed_for_testing(const uint64_t *seed);
