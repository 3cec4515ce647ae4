#include "fuzz/memory_device.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>


namespace {

struct memory_layer {
    qfs_device_layer base;
    fuzz_memory_card *card;
};

memory_layer *as_memory(qfs_device_layer *layer) { return reinterpret_cast<memory_layer *>(layer); }

fuzz_memory_card &card_of(qfs_device_layer *layer) { return *as_memory(layer)->card; }

// How much of a transfer of `count` bytes at `position` lies on the card.
size_t clip(const fuzz_memory_card &card, uint64_t position, size_t count) {
    if (position >= card.device_bytes) return 0;
    return static_cast<size_t>(std::min<uint64_t>(count, card.device_bytes - position));
}

qfs_result memory_init(qfs_device *device, const char *) {
    memory_layer *layer = new (std::nothrow) memory_layer{};
    if (layer == nullptr) return QFS_ERR_OUT_OF_MEMORY;
    layer->base.operations = &fuzz_memory_device_operations;
    layer->base.private_data = layer;
    layer->base.device = device;
    device->layer = &layer->base;
    return QFS_OK;
}

qfs_result memory_destroy(qfs_device *device) {
    delete as_memory(device->layer);
    device->layer = nullptr;
    return QFS_OK;
}

qfs_result memory_open(qfs_device_layer *layer) {
    if (layer->device->flags & QFS_DEVICE_FLAG_OPEN) return QFS_ERR_INVALID_PARAMETER;
    layer->device->flags |= QFS_DEVICE_FLAG_OPEN;
    return QFS_OK;
}

qfs_result memory_close(qfs_device_layer *layer) {
    if ((layer->device->flags & QFS_DEVICE_FLAG_OPEN) == 0) return QFS_ERR_INVALID_PARAMETER;
    layer->device->flags &= ~static_cast<uint64_t>(QFS_DEVICE_FLAG_OPEN);
    return QFS_OK;
}

// The first extent that ends after `position`.
auto first_extent_after(const fuzz_memory_card &card, uint64_t position) {
    auto it = card.extents.upper_bound(position);
    if (it != card.extents.begin()) {
        const auto before = std::prev(it);
        if (before->first + before->second.size() > position) return before;
    }
    return it;
}

qfs_result memory_pread(qfs_device_layer *layer, qfs_io_context *, void *buffer, size_t count, uint64_t position,
                        size_t, uint32_t, size_t *out_bytes_read) {
    if (buffer == nullptr) return QFS_ERR_UNSUPPORTED_FEATURE; // no buffer-less transfers here
    const fuzz_memory_card &card = card_of(layer);
    const size_t n = clip(card, position, count);
    auto *out = static_cast<uint8_t *>(buffer);
    std::memset(out, 0, n);
    const uint64_t end = position + n;
    for (auto it = first_extent_after(card, position); it != card.extents.end() && it->first < end; ++it) {
        const uint64_t from = std::max(position, it->first);
        const uint64_t to = std::min<uint64_t>(end, it->first + it->second.size());
        std::memcpy(out + (from - position), it->second.data() + (from - it->first), size_t(to - from));
    }
    *out_bytes_read = n;
    return QFS_OK;
}

// The written bytes and every extent they touch become one extent.
qfs_result memory_pwrite(qfs_device_layer *layer, qfs_io_context *, const void *buffer, size_t count,
                         uint64_t position, uint32_t, size_t *out_bytes_written) {
    if (buffer == nullptr) return QFS_ERR_UNSUPPORTED_FEATURE;
    fuzz_memory_card &card = card_of(layer);
    const size_t n = clip(card, position, count);
    *out_bytes_written = n;
    if (n == 0) return QFS_OK;
    uint64_t start = position, end = position + n;
    auto first = first_extent_after(card, position);
    auto last = first;
    while (last != card.extents.end() && last->first <= end) {
        start = std::min(start, last->first);
        end = std::max<uint64_t>(end, last->first + last->second.size());
        ++last;
    }
    std::vector<uint8_t> merged(size_t(end - start), 0);
    for (auto it = first; it != last; ++it) {
        std::copy(it->second.begin(), it->second.end(), merged.begin() + long(it->first - start));
    }
    std::memcpy(merged.data() + (position - start), buffer, n);
    card.extents.erase(first, last);
    card.extents.emplace(start, std::move(merged));
    layer->device->flags |= QFS_DEVICE_FLAG_WRITTEN;
    return QFS_OK;
}

qfs_result memory_sync(qfs_device_layer *) { return QFS_OK; }

qfs_result memory_get_device_size(qfs_device_layer *layer, uint32_t sector_size, uint64_t *out_sectors) {
    if (sector_size == 0) return QFS_ERR_INVALID_PARAMETER;
    *out_sectors = card_of(layer).device_bytes / sector_size;
    return QFS_OK;
}

qfs_result memory_set_device_size(qfs_device_layer *, int64_t) { return QFS_ERR_UNSUPPORTED_FEATURE; }

qfs_result memory_get_sector_size(qfs_device_layer *layer, uint32_t *out_sector_size) {
    *out_sector_size = card_of(layer).sector_size;
    return QFS_OK;
}

// The geometry that card readers report for every card.
qfs_result memory_get_heads(qfs_device_layer *, uint32_t *out_heads) {
    *out_heads = 255;
    return QFS_OK;
}

qfs_result memory_get_sectors_per_track(qfs_device_layer *, uint32_t *out_sectors_per_track) {
    *out_sectors_per_track = 63;
    return QFS_OK;
}

} // namespace

const qfs_device_operations fuzz_memory_device_operations = [] {
    qfs_device_operations ops{};
    ops.init = memory_init;
    ops.destroy = memory_destroy;
    ops.open = memory_open;
    ops.close = memory_close;
    ops.pread = memory_pread;
    ops.pwrite = memory_pwrite;
    ops.sync = memory_sync;
    ops.get_device_size = memory_get_device_size;
    ops.set_device_size = memory_set_device_size;
    ops.get_sector_size = memory_get_sector_size;
    ops.get_heads = memory_get_heads;
    ops.get_sectors_per_track = memory_get_sectors_per_track;
    return ops;
}();

std::vector<uint8_t> fuzz_memory_card_bytes(const fuzz_memory_card &card) {
    std::vector<uint8_t> bytes;
    for (const auto &[start, extent] : card.extents) {
        if (bytes.size() < start + extent.size()) bytes.resize(size_t(start + extent.size()), 0);
        std::copy(extent.begin(), extent.end(), bytes.begin() + long(start));
    }
    return bytes;
}

qfs_result fuzz_memory_device_create(fuzz_memory_card *card, uint64_t flags, qfs_device **out_device) {
    qfs_device *device = nullptr;
    qfs_result r = qfs_device_create("memory", flags, &fuzz_memory_device_operations, &device);
    if (r != QFS_OK) return r;
    as_memory(device->layer)->card = card;
    r = qfs_device_open(device, 0);
    if (r != QFS_OK) {
        (void)qfs_device_destroy(&device);
        return r;
    }
    *out_device = device;
    return QFS_OK;
}
