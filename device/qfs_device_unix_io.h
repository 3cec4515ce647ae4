// The Linux block-device and image-file backend: the lowest device layer.
// It opens and locks the file, answers size, sector size, geometry and
// partition-start questions with ioctls and sysfs, transfers with positioned
// I/O, discards ranges and tells whether the device is mounted or busy.
#pragma once

#include <cstddef>
#include <cstdint>

#include "device/qfs_device.h"

// The backend's layer object; the layer is its own private context.
struct qfs_device_unix_io_layer {
    qfs_device_layer base;
    char *path;                   // owned copy of the path given at init
    int fd;                       // -1 while closed
    uint32_t sector_size_at_open; // when non-zero, open sets the device's alignment to the sector size
};

// The operations table, all 19 slots filled; qfs_device_create_default uses it.
extern const qfs_device_operations qfs_device_unix_io_operations;

[[nodiscard]] qfs_result qfs_device_unix_io_init(qfs_device *device, const char *path);
[[nodiscard]] qfs_result qfs_device_unix_io_destroy(qfs_device *device);
[[nodiscard]] qfs_result qfs_device_unix_io_open(qfs_device_layer *layer);
[[nodiscard]] qfs_result qfs_device_unix_io_close(qfs_device_layer *layer);
[[nodiscard]] qfs_result qfs_device_unix_io_pread(qfs_device_layer *layer, qfs_io_context *context, void *buffer,
                                                  size_t count, uint64_t position, size_t contiguous_bytes,
                                                  uint32_t flags, size_t *out_bytes_read);
[[nodiscard]] qfs_result qfs_device_unix_io_pwrite(qfs_device_layer *layer, qfs_io_context *context, const void *buffer,
                                                   size_t count, uint64_t position, uint32_t flags,
                                                   size_t *out_bytes_written);
// The phantom write: the context's descriptors, in list order, to consecutive
// device positions starting at `position`.
[[nodiscard]] qfs_result qfs_device_unix_io_pwrite_bufs(qfs_device_layer *layer, qfs_io_context *context, size_t count,
                                                        uint64_t position, uint32_t flags, size_t *out_bytes_written);
[[nodiscard]] qfs_result qfs_device_unix_io_sync(qfs_device_layer *layer);
[[nodiscard]] qfs_result qfs_device_unix_io_get_device_size(qfs_device_layer *layer, uint32_t sector_size,
                                                            uint64_t *out_sectors);
[[nodiscard]] qfs_result qfs_device_unix_io_set_device_size(qfs_device_layer *layer, int64_t size_bytes);
[[nodiscard]] qfs_result qfs_device_unix_io_get_sector_size(qfs_device_layer *layer, uint32_t *out_sector_size);
[[nodiscard]] qfs_result qfs_device_unix_io_get_heads(qfs_device_layer *layer, uint32_t *out_heads);
[[nodiscard]] qfs_result qfs_device_unix_io_get_sectors_per_track(qfs_device_layer *layer,
                                                                  uint32_t *out_sectors_per_track);
[[nodiscard]] qfs_result qfs_device_unix_io_get_partition_start_sector(qfs_device_layer *layer,
                                                                       uint64_t *out_start_sector);
[[nodiscard]] qfs_result qfs_device_unix_io_discard_byte_range(qfs_device_layer *layer, uint64_t position,
                                                               uint64_t count, uint32_t secure);
[[nodiscard]] qfs_result qfs_device_unix_io_refresh_partition_table(qfs_device_layer *layer);
[[nodiscard]] qfs_result qfs_device_unix_io_clear_partition_table(qfs_device_layer *layer, void *argument);
[[nodiscard]] qfs_result qfs_device_unix_io_check_if_in_use(qfs_device_layer *layer, uint32_t *out_mounted,
                                                            uint32_t *out_in_use, char *mount_point,
                                                            size_t mount_point_size, char *fs_type,
                                                            size_t fs_type_size);
[[nodiscard]] qfs_result qfs_map_page(qfs_device_layer *layer, int32_t size, void **out_address, int64_t offset);
[[nodiscard]] qfs_result qfs_unmap_page(qfs_device_layer *layer, int32_t size, void *address);

// Internal helpers shared by the backend's files.
qfs_device_unix_io_layer *qfs_device_unix_io_from_layer(qfs_device_layer *layer);
// Positions the file offset; used to rewind after probing an image's size.
[[nodiscard]] qfs_result qfs_device_unix_io_seek(qfs_device_unix_io_layer *io, int64_t offset);
