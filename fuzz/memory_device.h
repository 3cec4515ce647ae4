// A device layer that holds a whole card in memory. The fuzz targets open
// volumes over it, so that a mutated image never touches a file, and the
// seed maker formats onto it.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "device/qfs_device.h"
#include "support/qfs_error.h"

// The card: the extents hold its non-zero parts (by start byte, not
// overlapping); every other byte up to `device_bytes` reads as zero. Writes
// merge into the extents they touch.
struct fuzz_memory_card {
    std::map<uint64_t, std::vector<uint8_t>> extents;
    uint64_t device_bytes = 0;
    uint32_t sector_size = 512;
};

// The card's bytes from its start to the end of its last extent.
std::vector<uint8_t> fuzz_memory_card_bytes(const fuzz_memory_card &card);

extern const qfs_device_operations fuzz_memory_device_operations;

// Creates and opens a device over `card`, which must outlive the device.
[[nodiscard]] qfs_result fuzz_memory_device_create(fuzz_memory_card *card, uint64_t flags, qfs_device **out_device);
