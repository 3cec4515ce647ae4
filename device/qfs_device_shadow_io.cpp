// The dry-run layer's life cycle and the operations it hands to the layer
// below it: every query, and the partition operations, go to the card.
// Those cannot change it: the card is open read-only below this layer, so
// the kernel refuses a discard, and a re-read only reads the card's table.
#include "device/qfs_device_shadow_io.h"

#include <new>

#include "support/qfs_logging.h"

namespace {

qfs_device_shadow_io_layer *as_shadow(qfs_device_layer *layer) {
    return reinterpret_cast<qfs_device_shadow_io_layer *>(layer);
}

qfs_device_layer *lower_of(qfs_device_layer *layer) { return as_shadow(layer)->lower; }

const qfs_device_operations &lower_ops(qfs_device_layer *layer) { return *lower_of(layer)->operations; }

#define QFS_SHADOW_ENTER() QFS_TRACE("%s: Entering", __func__)

} // namespace

qfs_result qfs_device_shadow_io_init(qfs_device *device, void *, qfs_device_layer **out_layer) {
    if (device == nullptr || out_layer == nullptr) return QFS_ERR_INVALID_PARAMETER;
    if (device->layer == nullptr) {
        QFS_LOG_ERROR("Shadow I/O initialization cannot precede initialization of the lowest layer");
        return QFS_ERR_INVALID_PARAMETER;
    }
    std::unique_ptr<qfs_device_shadow_io_layer> shadow(new (std::nothrow) qfs_device_shadow_io_layer{});
    if (!shadow) return QFS_ERR_OUT_OF_MEMORY;
    shadow->buckets.reset(new (std::nothrow) qfs_shadow_entry[qfs_shadow_initial_buckets]);
    if (!shadow->buckets) return QFS_ERR_OUT_OF_MEMORY;
    shadow->base.operations = &qfs_device_shadow_io_operations;
    shadow->base.private_data = shadow.get();
    shadow->base.device = device;
    shadow->lower = device->layer;
    shadow->page_size = qfs_shadow_page_size;
    shadow->bucket_count = qfs_shadow_initial_buckets;
    // Buffer-less transfers would hand the card's descriptor to a writer.
    device->flags &= ~static_cast<uint64_t>(QFS_DEVICE_FLAG_PHANTOM_ALLOWED);
    *out_layer = &shadow.release()->base;
    return QFS_OK;
}

qfs_result qfs_device_shadow_io_destroy(qfs_device *device) {
    QFS_SHADOW_ENTER();
    if (device == nullptr || device->layer == nullptr) return QFS_ERR_INVALID_PARAMETER;
    qfs_device_shadow_io_layer *shadow = as_shadow(device->layer);
    device->layer = shadow->lower;
    const qfs_result r = shadow->lower->operations->destroy ? shadow->lower->operations->destroy(device) : QFS_OK;
    if (r != QFS_OK) {
        device->layer = &shadow->base;
        return r;
    }
    QFS_TRACE("Destroying shadow I/O layer with %zu/%zu active entries.", shadow->active_entries, shadow->bucket_count);
    delete shadow; // the pages go without a byte written anywhere
    return QFS_OK;
}

qfs_result qfs_device_shadow_io_open(qfs_device_layer *layer) {
    QFS_SHADOW_ENTER();
    if (layer == nullptr) return QFS_ERR_INVALID_PARAMETER;
    qfs_device *device = layer->device;
    const bool was_read_only = (device->flags & QFS_DEVICE_FLAG_READ_ONLY) != 0;
    device->flags |= QFS_DEVICE_FLAG_READ_ONLY; // the card below is opened read-only, and read-locked
    qfs_result r = lower_ops(layer).open(lower_of(layer));
    if (r == QFS_OK && !was_read_only) {
        device->flags &= ~static_cast<uint64_t>(QFS_DEVICE_FLAG_READ_ONLY);
    }
    if (r != QFS_OK) return r;
    // Knowing where the card ends tells a whole page of zeros from one past the end.
    uint64_t sectors = 0;
    r = lower_ops(layer).get_device_size(lower_of(layer), 512, &sectors);
    as_shadow(layer)->lower_bytes = r == QFS_OK ? sectors * 512 : 0;
    return QFS_OK;
}

qfs_result qfs_device_shadow_io_close(qfs_device_layer *layer) {
    QFS_SHADOW_ENTER();
    if (layer == nullptr) return QFS_ERR_INVALID_PARAMETER;
    // Nothing reached the card, so it has nothing to flush.
    layer->device->flags &= ~static_cast<uint64_t>(QFS_DEVICE_FLAG_WRITTEN);
    return lower_ops(layer).close(lower_of(layer));
}

qfs_result qfs_device_shadow_io_sync(qfs_device_layer *layer) {
    QFS_SHADOW_ENTER();
    return layer == nullptr ? QFS_ERR_INVALID_PARAMETER : QFS_OK;
}

namespace {

qfs_result qfs_device_shadow_io_get_device_size(qfs_device_layer *layer, uint32_t sector_size, uint64_t *out_sectors) {
    QFS_SHADOW_ENTER();
    return lower_ops(layer).get_device_size(lower_of(layer), sector_size, out_sectors);
}
qfs_result qfs_device_shadow_io_get_sector_size(qfs_device_layer *layer, uint32_t *out) {
    QFS_SHADOW_ENTER();
    return lower_ops(layer).get_sector_size(lower_of(layer), out);
}
qfs_result qfs_device_shadow_io_get_heads(qfs_device_layer *layer, uint32_t *out) {
    QFS_SHADOW_ENTER();
    return lower_ops(layer).get_heads(lower_of(layer), out);
}
qfs_result qfs_device_shadow_io_get_sectors_per_track(qfs_device_layer *layer, uint32_t *out) {
    QFS_SHADOW_ENTER();
    return lower_ops(layer).get_sectors_per_track(lower_of(layer), out);
}
qfs_result qfs_device_shadow_io_get_partition_start_sector(qfs_device_layer *layer, uint64_t *out) {
    QFS_SHADOW_ENTER();
    return lower_ops(layer).get_partition_start_sector(lower_of(layer), out);
}
qfs_result qfs_device_shadow_io_discard_byte_range(qfs_device_layer *layer, uint64_t position, uint64_t count, uint32_t secure) {
    QFS_SHADOW_ENTER();
    return lower_ops(layer).discard_byte_range(lower_of(layer), position, count, secure);
}
qfs_result qfs_device_shadow_io_refresh_partition_table(qfs_device_layer *layer) {
    QFS_SHADOW_ENTER();
    return lower_ops(layer).refresh_partition_table(lower_of(layer));
}
// The backend clears through the device object, so its zeros land in this layer's pages.
qfs_result qfs_device_shadow_io_clear_partition_table(qfs_device_layer *layer, void *argument) {
    QFS_SHADOW_ENTER();
    return lower_ops(layer).clear_partition_table(lower_of(layer), argument);
}
qfs_result qfs_device_shadow_io_check_if_in_use(qfs_device_layer *layer, uint32_t *mounted, uint32_t *in_use, char *mount_point,
                                  size_t mount_point_size, char *fs_type, size_t fs_type_size) {
    QFS_SHADOW_ENTER();
    return lower_ops(layer).check_if_in_use(lower_of(layer), mounted, in_use, mount_point, mount_point_size, fs_type,
                                            fs_type_size);
}
// A mapping would show the card's bytes without this layer's pages.
qfs_result qfs_device_shadow_io_map_page(qfs_device_layer *, int32_t, void **, int64_t) {
    QFS_SHADOW_ENTER();
    return QFS_ERR_UNSUPPORTED_FEATURE;
}
qfs_result qfs_device_shadow_io_unmap_page(qfs_device_layer *, int32_t, void *) {
    QFS_SHADOW_ENTER();
    return QFS_OK;
}

} // namespace

// Slot 0 stays empty: the device object stacks this layer itself, over a backend it made first.
const qfs_device_operations qfs_device_shadow_io_operations = {
    nullptr,
    qfs_device_shadow_io_destroy,
    qfs_device_shadow_io_open,
    qfs_device_shadow_io_close,
    qfs_device_shadow_io_pread,
    qfs_device_shadow_io_pwrite,
    qfs_device_shadow_io_sync,
    qfs_device_shadow_io_get_device_size,
    nullptr, // an image's size is not changed in a dry run
    qfs_device_shadow_io_get_sector_size,
    qfs_device_shadow_io_get_heads,
    qfs_device_shadow_io_get_sectors_per_track,
    qfs_device_shadow_io_get_partition_start_sector,
    qfs_device_shadow_io_discard_byte_range,
    qfs_device_shadow_io_refresh_partition_table,
    qfs_device_shadow_io_clear_partition_table,
    qfs_device_shadow_io_check_if_in_use,
    qfs_device_shadow_io_map_page,
    qfs_device_shadow_io_unmap_page,
};
