// The FAT volume object and the steps of opening it, shared by the files
// that implement them.
#pragma once

#include <cstdint>

#include "device/qfs_device.h"
#include "fat/volume.h"
#include "support/qfs_memory.h"

struct fat_volume {
    qfs_device *device = nullptr;
    uint32_t flags = 0;
    uint32_t codepage = 0;
    bool read_only = false;
    bool opened_device = false; // close the device at close
    bool in_use = false;        // between a successful open and close
    fat_boot_values boot{};
    uint8_t media = 0;
    uint32_t free_clusters = 0;
    qfs_unique<char[]> label; // UTF-8
};

// The checks a boot sector must pass before any of its values is used.
[[nodiscard]] qfs_result fat_volume_check_boot_sector(const uint8_t *boot_sector);

// Everything an open reads once the boot sector's first 512 bytes are in:
// checks, values, FAT, free clusters, root directory and label.
[[nodiscard]] qfs_result fat_volume_init_cached_values(fat_volume *volume, const uint8_t *boot_sector);

// Reads exactly `count` bytes; a short read is an I/O error.
[[nodiscard]] qfs_result fat_volume_read_exact(qfs_device *device, uint64_t position, size_t count, void *buffer);
