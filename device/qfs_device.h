// The device object: every byte read from or written to a card or image
// passes through it. It owns a stack of layers, each with a table of
// operations, and adds a byte range (one partition of a card), clipping to
// that range, read-only enforcement, looping until a transfer completes and
// page-aligned transfers with read-modify-write of partial pages.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "support/qfs_error.h"

struct qfs_device;
struct qfs_device_layer;

// Device flags, shared by the device object and its layers.
enum : uint64_t {
    QFS_DEVICE_FLAG_OPEN = 1,
    QFS_DEVICE_FLAG_READ_ONLY = 2,
    QFS_DEVICE_FLAG_WRITTEN = 4,
    QFS_DEVICE_FLAG_BLOCK_OR_CHAR = 8,
    QFS_DEVICE_FLAG_NO_LOCKING = 16,
    QFS_DEVICE_FLAG_SHADOW = 32, // creation flag only, never stored
    QFS_DEVICE_FLAG_SYNC_WRITES = 64,
    QFS_DEVICE_FLAG_PHANTOM_ALLOWED = 128,
    QFS_DEVICE_FLAG_DIRECT_IO = 256, // transfers bypass the page cache; buffers, positions and counts aligned
};

// Creation flags that are copied into the device's flags.
inline constexpr uint64_t QFS_DEVICE_CREATION_FLAGS_KEPT =
    QFS_DEVICE_FLAG_READ_ONLY | QFS_DEVICE_FLAG_NO_LOCKING | QFS_DEVICE_FLAG_SYNC_WRITES | QFS_DEVICE_FLAG_DIRECT_IO;

// Transfer flags.
enum : uint32_t {
    QFS_TRANSFER_READ = 1,
    QFS_TRANSFER_CLASS_2 = 2,
    QFS_TRANSFER_CLASS_4 = 4,
    QFS_TRANSFER_PHANTOM_ONLY = 8,
};

// One source of bytes for a phantom (buffer-less) transfer.
enum : uint32_t {
    QFS_IO_BUFFER_PHANTOM = 1,
    QFS_IO_BUFFER_FD = 2,
    QFS_IO_BUFFER_USE_OFFSET = 4,
};

struct qfs_io_buffer {
    uint64_t size;
    uint64_t offset;
    uint32_t flags;
    int fd;
    const void *memory;
};

// The descriptors collected by phantom reads and consumed by a phantom write.
struct qfs_io_context {
    std::vector<qfs_io_buffer> buffers;
    uint64_t total_size = 0;
};

// Appends a descriptor; fails with the allocator's code.
[[nodiscard]] qfs_result qfs_io_context_append(qfs_io_context *context, const qfs_io_buffer &buffer);

struct qfs_device_operations {
    qfs_result (*init)(qfs_device *device, const char *path);
    qfs_result (*destroy)(qfs_device *device);
    qfs_result (*open)(qfs_device_layer *layer);
    qfs_result (*close)(qfs_device_layer *layer);
    qfs_result (*pread)(qfs_device_layer *layer, qfs_io_context *context, void *buffer, size_t count,
                        uint64_t position, size_t contiguous_bytes, uint32_t flags, size_t *out_bytes_read);
    qfs_result (*pwrite)(qfs_device_layer *layer, qfs_io_context *context, const void *buffer, size_t count,
                         uint64_t position, uint32_t flags, size_t *out_bytes_written);
    qfs_result (*sync)(qfs_device_layer *layer);
    qfs_result (*get_device_size)(qfs_device_layer *layer, uint32_t sector_size, uint64_t *out_sectors);
    qfs_result (*set_device_size)(qfs_device_layer *layer, int64_t size_bytes);
    qfs_result (*get_sector_size)(qfs_device_layer *layer, uint32_t *out_sector_size);
    qfs_result (*get_heads)(qfs_device_layer *layer, uint32_t *out_heads);
    qfs_result (*get_sectors_per_track)(qfs_device_layer *layer, uint32_t *out_sectors_per_track);
    qfs_result (*get_partition_start_sector)(qfs_device_layer *layer, uint64_t *out_start_sector);
    qfs_result (*discard_byte_range)(qfs_device_layer *layer, uint64_t position, uint64_t count, uint32_t secure);
    qfs_result (*refresh_partition_table)(qfs_device_layer *layer);
    qfs_result (*clear_partition_table)(qfs_device_layer *layer, void *argument);
    qfs_result (*check_if_in_use)(qfs_device_layer *layer, uint32_t *out_mounted, uint32_t *out_in_use,
                                  char *mount_point, size_t mount_point_size, char *fs_type,
                                  size_t fs_type_size);
    qfs_result (*map_page)(qfs_device_layer *layer, int32_t size, void **out_address, int64_t offset);
    qfs_result (*unmap_page)(qfs_device_layer *layer, int32_t size, void *address);
};
static_assert(sizeof(qfs_device_operations) == 19 * sizeof(void *), "the operations table has 19 slots");

// Common head of every layer object.
struct qfs_device_layer {
    const qfs_device_operations *operations;
    void *private_data;
    qfs_device *device;
    void *unused;
};

struct qfs_device {
    qfs_device_layer *layer;
    uint64_t flags;
    uint64_t start; // byte offset of the range on the layer
    uint64_t size;  // range size in bytes; 0 = whole device
    uint32_t alignment;
};

[[nodiscard]] qfs_result qfs_device_create(const char *path, uint64_t flags, const qfs_device_operations *operations,
                                           qfs_device **out_device);
[[nodiscard]] qfs_result qfs_device_create_default(const char *path, uint64_t flags, qfs_device **out_device);
[[nodiscard]] qfs_result qfs_device_destroy(qfs_device **device);

[[nodiscard]] qfs_result qfs_device_open(qfs_device *device, int force);
[[nodiscard]] qfs_result qfs_device_close(qfs_device *device);

[[nodiscard]] qfs_result qfs_device_set_range(qfs_device *device, uint64_t start, uint64_t size);
[[nodiscard]] qfs_result qfs_device_clear_range(qfs_device *device);

[[nodiscard]] qfs_result qfs_device_pread(qfs_device *device, uint64_t position, size_t count, void *buffer,
                                          size_t *out_bytes_read);
[[nodiscard]] qfs_result qfs_device_pwrite(qfs_device *device, uint64_t position, size_t count, const void *buffer,
                                           size_t *out_bytes_written);
// The same with transfer class 2.
[[nodiscard]] qfs_result qfs_device_pread_2(qfs_device *device, uint64_t position, size_t count, void *buffer,
                                            size_t *out_bytes_read);
[[nodiscard]] qfs_result qfs_device_pwrite_2(qfs_device *device, uint64_t position, size_t count, const void *buffer,
                                             size_t *out_bytes_written);
// Transfers of exactly `count` bytes, for callers that cannot use fewer: a
// short transfer is QFS_ERR_IO_ERROR.
[[nodiscard]] qfs_result qfs_device_read_exact(qfs_device *device, uint64_t position, size_t count, void *buffer);
[[nodiscard]] qfs_result qfs_device_write_exact(qfs_device *device, uint64_t position, size_t count,
                                                const void *buffer);
[[nodiscard]] qfs_result qfs_device_pread_ioc(qfs_device *device, qfs_io_context *context, void *buffer, size_t count,
                                              uint64_t position, size_t contiguous_bytes, uint32_t flags,
                                              size_t *out_bytes_read);
[[nodiscard]] qfs_result qfs_device_pwrite_ioc(qfs_device *device, qfs_io_context *context, const void *buffer,
                                               size_t count, uint64_t position, uint32_t flags,
                                               size_t *out_bytes_written);

[[nodiscard]] qfs_result qfs_device_sync(qfs_device *device);
// Starts writing [position, position + count) of the range out to the card
// and, with `wait`, waits until the card has it. A layer without a page cache
// has nothing to do.
[[nodiscard]] qfs_result qfs_device_write_back(qfs_device *device, uint64_t position, uint64_t count, bool wait);
[[nodiscard]] qfs_result qfs_device_get_size_in_sectors(qfs_device *device, uint32_t sector_size, uint64_t *out_count);
[[nodiscard]] qfs_result qfs_device_set_size(qfs_device *device, uint64_t size_bytes);
[[nodiscard]] qfs_result qfs_device_get_partition_start_sector(qfs_device *device, uint64_t *out_sector);
[[nodiscard]] qfs_result qfs_device_get_heads(qfs_device *device, uint32_t *out_heads);
[[nodiscard]] qfs_result qfs_device_get_sectors_per_track(qfs_device *device, uint32_t *out_sectors_per_track);
[[nodiscard]] qfs_result qfs_device_get_sector_size(qfs_device *device, uint32_t *out_sector_size);
[[nodiscard]] qfs_result qfs_device_refresh_partition_table(qfs_device *device);
[[nodiscard]] qfs_result qfs_device_clear_partition_table(qfs_device *device, void *argument);
[[nodiscard]] qfs_result qfs_device_discard_byte_range(qfs_device *device, uint64_t position, uint64_t count,
                                                       uint32_t secure);
// Mount point and file system type buffers may be null.
[[nodiscard]] qfs_result qfs_device_check_if_in_use(qfs_device *device, uint32_t *out_mounted, uint32_t *out_in_use,
                                                    char *mount_point = nullptr, size_t mount_point_size = 0,
                                                    char *fs_type = nullptr, size_t fs_type_size = 0);

// Internal steps, exposed for tests.
[[nodiscard]] qfs_result qfs_device_pread_common(qfs_device *device, qfs_io_context *context, void *buffer,
                                                 size_t count, uint64_t position, size_t contiguous_bytes,
                                                 uint32_t flags, size_t *out_bytes_read);
[[nodiscard]] qfs_result qfs_device_pwrite_common(qfs_device *device, qfs_io_context *context, const void *buffer,
                                                  size_t count, uint64_t position, uint32_t flags,
                                                  size_t *out_bytes_written);
[[nodiscard]] qfs_result qfs_device_aligned_ptransfer(qfs_device *device, qfs_io_context *context, void *buffer,
                                                      size_t count, uint64_t position, uint32_t flags,
                                                      size_t *out_bytes_done);
