// Small exFAT helpers shared by the format engine and the volume code.
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/qfs_error.h"

// Boot-region checksum over `length` bytes (11 sectors); skips the volume
// flags (bytes 106-107) and percent in use (byte 112) of the boot sector.
uint32_t exfat_util_calculate_boot_region_checksum(const uint8_t *bytes, size_t length);

// 16-bit entry-set checksum over `entry_count` directory entries; skips
// bytes 2-3 of the first entry, where the checksum itself is stored.
uint16_t exfat_util_calculate_entry_set_checksum(const uint8_t *entries, size_t entry_count);

// A volume serial number from the clock-seeded standard generator.
[[nodiscard]] qfs_result exfat_util_generate_serial_number(uint32_t *out_serial);

// Non-zero when every code unit is allowed in an exFAT volume label: no
// control characters and none of " * / : < > ? \ |.
int exfat_util_label_is_valid(const uint16_t *label, size_t length);
