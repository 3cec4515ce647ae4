// The main and backup boot regions: reading them whole and proving each by
// its checksum sector.
#pragma once

#include <cstdint>

#include "device/qfs_device.h"
#include "support/qfs_error.h"
#include "support/qfs_memory.h"

enum class exfat_boot_region : uint8_t { main, backup };

// Reads the region's 12 sectors into a new buffer.
[[nodiscard]] qfs_result exfat_boot_region_read(qfs_device *device, uint32_t bytes_per_sector, exfat_boot_region which,
                                                qfs_buffer &out_region);

// The checksum sector must repeat the checksum of the eleven sectors before
// it in every 4-byte word. Failures are QFS_ERR_SYS_INVALID_ARGUMENT.
[[nodiscard]] qfs_result exfat_boot_region_verify(const uint8_t *region, uint32_t bytes_per_sector,
                                                  exfat_boot_region which);

// Reads the region from the device and verifies it.
[[nodiscard]] qfs_result exfat_boot_region_validate(qfs_device *device, uint32_t bytes_per_sector,
                                                    exfat_boot_region which);

// Recomputes the checksum sector of a region held in memory.
void exfat_boot_region_seal(uint8_t *region, uint32_t bytes_per_sector);
