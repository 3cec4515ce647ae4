// The padded writer both engines put every structure on the card with:
// data, then a padding byte up to the structure's region, with progress
// counted chunk by chunk.
#pragma once

#include <cstddef>
#include <cstdint>

#include "device/qfs_device.h"
#include "layout/format_progress.h"
#include "support/qfs_error.h"

// Writes data_size bytes at position, then padding bytes up to padded_size.
// With compare_before_write a padding chunk the device already holds is not
// written again. With a sync interval the device is synced whenever that
// many seconds passed while padding was written.
[[nodiscard]] qfs_result exfat_format_write_with_padding(qfs_device *dev, uint64_t position, size_t data_size,
                                                         const void *data, uint64_t padded_size, uint8_t padding_byte,
                                                         bool compare_before_write, uint32_t sync_interval_seconds,
                                                         format_progress *progress);

// The FAT engine's name for the same routine.
[[nodiscard]] inline qfs_result fat_format_write_with_padding(qfs_device *dev, uint64_t position, size_t data_size,
                                                              const void *data, uint64_t padded_size,
                                                              uint8_t padding_byte, bool compare_before_write,
                                                              uint32_t sync_interval_seconds,
                                                              format_progress *progress) {
    return exfat_format_write_with_padding(dev, position, data_size, data, padded_size, padding_byte,
                                           compare_before_write, sync_interval_seconds, progress);
}
