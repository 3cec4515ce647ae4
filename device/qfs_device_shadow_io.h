// The dry-run layer. Stacked on the backend, it lets every part of the tool
// run unchanged while the card stays untouched: the backend is opened
// read-only, every write lands in an in-memory copy of the 128 KiB page it
// touches, and reads see the written pages over the card's own bytes.
// Nothing is ever written back.
//
// A page whose bytes are all zero keeps no buffer, and whole pages of zeros
// are kept as runs rather than page by page, so that zero-filling a card in
// a dry run costs no memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>

#include "device/qfs_device.h"

inline constexpr uint64_t qfs_shadow_page_size = 0x20000;
inline constexpr size_t qfs_shadow_initial_buckets = 77;

struct qfs_shadow_entry {
    bool in_use = false;
    uint64_t page_position = 0; // byte offset of the page on the lower layer
    uint64_t page_size = 0;
    std::unique_ptr<uint8_t[]> data; // null while every valid byte is zero
    uint64_t valid_length = 0;       // what the lower layer had of this page
    std::unique_ptr<qfs_shadow_entry> next;
};

struct qfs_device_shadow_io_layer {
    qfs_device_layer base;
    qfs_device_layer *lower;
    uint64_t page_size;
    size_t active_entries;
    size_t bucket_count;
    std::unique_ptr<qfs_shadow_entry[]> buckets;
    // Whole pages that hold nothing but zeros: first page index -> one past the last.
    std::map<uint64_t, uint64_t> zero_runs;
    uint64_t lower_bytes; // size of the lower device, learnt at open
};

extern const qfs_device_operations qfs_device_shadow_io_operations;

// Stacks the layer over the device's lowest layer; the second argument is unused (0).
[[nodiscard]] qfs_result qfs_device_shadow_io_init(qfs_device *device, void *unused, qfs_device_layer **out_layer);
qfs_result qfs_device_shadow_io_destroy(qfs_device *device);
qfs_result qfs_device_shadow_io_open(qfs_device_layer *layer);
qfs_result qfs_device_shadow_io_close(qfs_device_layer *layer);
qfs_result qfs_device_shadow_io_pread(qfs_device_layer *layer, qfs_io_context *context, void *buffer, size_t count,
                                      uint64_t position, size_t contiguous_bytes, uint32_t flags,
                                      size_t *out_bytes_read);
qfs_result qfs_device_shadow_io_pwrite(qfs_device_layer *layer, qfs_io_context *context, const void *buffer,
                                       size_t count, uint64_t position, uint32_t flags, size_t *out_bytes_written);
qfs_result qfs_device_shadow_io_sync(qfs_device_layer *layer);

// The page entry for `position`, created from the lower layer's bytes when missing.
[[nodiscard]] qfs_result qfs_device_shadow_io_get_or_create_entry(qfs_device_shadow_io_layer *shadow,
                                                                  uint64_t position, qfs_shadow_entry **out_entry);
// Grows the bucket array (77, 141, 269, ...) when the next entry would load it too much.
void qfs_device_shadow_io_autoexpand_hash_table(qfs_device_shadow_io_layer *shadow);
