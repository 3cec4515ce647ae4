// The device object's life cycle, its range, and the queries and partition
// operations that it forwards to the topmost layer.
#include "device/qfs_device.h"

#include <cstdint>

#include "device/qfs_device_shadow_io.h"
#include "device/qfs_device_unix_io.h"
#include "support/qfs_logging.h"
#include "support/qfs_memory.h"

namespace {

const qfs_device_operations *operations_of(const qfs_device *device) { return device->layer->operations; }

bool has_range(const qfs_device *device) { return device->size != 0; }

// Puts the dry-run layer on top of the backend.
qfs_result stack_shadow_layer(qfs_device *device) {
    qfs_device_layer *shadow = nullptr;
    const qfs_result r = qfs_device_shadow_io_init(device, nullptr, &shadow);
    if (r != QFS_OK) return r;
    device->layer = shadow;
    return QFS_OK;
}

// Frees a device whose creation failed after its layer was made.
void destroy_layer_quietly(qfs_device *device) {
    if (device->layer != nullptr && operations_of(device)->destroy != nullptr) {
        operations_of(device)->destroy(device);
    }
}

} // namespace

qfs_result qfs_device_create(const char *path, uint64_t flags, const qfs_device_operations *operations,
                             qfs_device **out_device) {
    if (out_device == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    *out_device = nullptr;
    if (operations == nullptr || operations->init == nullptr) {
        QFS_LOG_ERROR("No 'init' operation defined in supplied device operations.");
        return QFS_ERR_INVALID_PARAMETER;
    }
    qfs_unique<qfs_device> device;
    qfs_result r = qfs_object_alloc(device);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while allocating %zu bytes for device struct: %lu (%s)", sizeof(qfs_device),
                      QFS_ERR_ARGS(r));
        return r;
    }
    device->flags = flags & QFS_DEVICE_CREATION_FLAGS_KEPT;
    r = operations->init(device.get(), path);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while initializing device implementation: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    if (flags & QFS_DEVICE_FLAG_SHADOW) {
        r = stack_shadow_layer(device.get());
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Error while initializing shadow I/O layer: %lu (%s)", QFS_ERR_ARGS(r));
            destroy_layer_quietly(device.get());
            return r;
        }
    }
    *out_device = device.release();
    return QFS_OK;
}

qfs_result qfs_device_create_default(const char *path, uint64_t flags, qfs_device **out_device) {
    return qfs_device_create(path, flags, &qfs_device_unix_io_operations, out_device);
}

qfs_result qfs_device_destroy(qfs_device **device) {
    if (device == nullptr || *device == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    qfs_device *d = *device;
    if (d->flags & QFS_DEVICE_FLAG_OPEN) {
        return QFS_ERR_DEVICE_BUSY; // close it first
    }
    if (d->layer != nullptr && operations_of(d)->destroy != nullptr) {
        const qfs_result r = operations_of(d)->destroy(d);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Failed to destroy device implementation: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
    }
    qfs_free(d);
    *device = nullptr;
    return QFS_OK;
}

qfs_result qfs_device_open(qfs_device *device, int force) {
    if (device == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    const qfs_device_operations *ops = operations_of(device);
    if (ops->check_if_in_use != nullptr) {
        uint32_t mounted = 0;
        uint32_t in_use = 0;
        const qfs_result r = ops->check_if_in_use(device->layer, &mounted, &in_use, nullptr, 0, nullptr, 0);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Operation check_if_in_use exited with error: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
        if ((mounted || in_use) && !force) {
            QFS_LOG_ERROR("Refusing to open device which appears to be %s.", mounted ? "mounted" : "in use");
            return QFS_ERR_DEVICE_BUSY;
        }
    }
    if (ops->open == nullptr) {
        return QFS_ERR_UNSUPPORTED_FEATURE;
    }
    return ops->open(device->layer);
}

qfs_result qfs_device_close(qfs_device *device) {
    if (device == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (operations_of(device)->close == nullptr) {
        return QFS_ERR_UNSUPPORTED_FEATURE;
    }
    return operations_of(device)->close(device->layer);
}

qfs_result qfs_device_set_range(qfs_device *device, uint64_t start, uint64_t size) {
    if (device == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    device->start = start;
    device->size = size;
    return QFS_OK;
}

qfs_result qfs_device_clear_range(qfs_device *device) { return qfs_device_set_range(device, 0, 0); }

qfs_result qfs_device_sync(qfs_device *device) {
    if (device == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (operations_of(device)->sync == nullptr) {
        return QFS_ERR_UNSUPPORTED_FEATURE;
    }
    return operations_of(device)->sync(device->layer);
}

qfs_result qfs_device_get_size_in_sectors(qfs_device *device, uint32_t sector_size, uint64_t *out_count) {
    if (device == nullptr || out_count == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (has_range(device)) {
        if (sector_size == 0 || device->size % sector_size != 0) {
            return QFS_ERR_INVALID_PARAMETER;
        }
        *out_count = device->size / sector_size;
        return QFS_OK;
    }
    if (operations_of(device)->get_device_size == nullptr) {
        return QFS_ERR_UNSUPPORTED_FEATURE;
    }
    uint64_t count = 0;
    const qfs_result r = operations_of(device)->get_device_size(device->layer, sector_size, &count);
    if (r != QFS_OK) {
        return r;
    }
    if (device->start != 0) {
        // Only what lies behind the range start belongs to this device.
        const uint64_t bytes = static_cast<uint64_t>(sector_size) * count;
        if (sector_size == 0 || device->start > bytes || (bytes - device->start) % sector_size != 0) {
            return QFS_ERR_INVALID_PARAMETER;
        }
        count = (bytes - device->start) / sector_size;
    }
    *out_count = count;
    return QFS_OK;
}

qfs_result qfs_device_set_size(qfs_device *device, uint64_t size_bytes) {
    if (device == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (operations_of(device)->set_device_size == nullptr) {
        return QFS_ERR_UNSUPPORTED_FEATURE;
    }
    if (has_range(device) && size_bytes > device->size) {
        return QFS_ERR_OVERFLOW;
    }
    if (size_bytes > static_cast<uint64_t>(INT64_MAX) - device->start) {
        return QFS_ERR_OVERFLOW;
    }
    const qfs_result r =
        operations_of(device)->set_device_size(device->layer, static_cast<int64_t>(device->start + size_bytes));
    if (r != QFS_OK) {
        return r;
    }
    if (has_range(device)) {
        device->size = size_bytes;
    }
    return QFS_OK;
}

qfs_result qfs_device_get_partition_start_sector(qfs_device *device, uint64_t *out_sector) {
    if (device == nullptr || out_sector == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    const qfs_device_operations *ops = operations_of(device);
    if (ops->get_partition_start_sector == nullptr) {
        return QFS_ERR_UNSUPPORTED_FEATURE;
    }
    uint64_t sector = 0;
    qfs_result r = ops->get_partition_start_sector(device->layer, &sector);
    if (r != QFS_OK) {
        return r;
    }
    if (device->start != 0) {
        // The range start moves the beginning further into the disk.
        if (ops->get_sector_size == nullptr) {
            return QFS_ERR_UNSUPPORTED_FEATURE;
        }
        uint32_t sector_size = 0;
        r = ops->get_sector_size(device->layer, &sector_size);
        if (r != QFS_OK) {
            return r;
        }
        const uint64_t bytes = static_cast<uint64_t>(sector_size) * sector + device->start;
        if (sector_size == 0 || bytes % sector_size != 0) {
            return QFS_ERR_INVALID_PARAMETER;
        }
        sector = bytes / sector_size;
    }
    *out_sector = sector;
    return QFS_OK;
}

qfs_result qfs_device_get_heads(qfs_device *device, uint32_t *out_heads) {
    if (device == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (operations_of(device)->get_heads == nullptr) {
        return QFS_ERR_UNSUPPORTED_FEATURE;
    }
    return operations_of(device)->get_heads(device->layer, out_heads);
}

qfs_result qfs_device_get_sectors_per_track(qfs_device *device, uint32_t *out_sectors_per_track) {
    if (device == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (operations_of(device)->get_sectors_per_track == nullptr) {
        return QFS_ERR_UNSUPPORTED_FEATURE;
    }
    return operations_of(device)->get_sectors_per_track(device->layer, out_sectors_per_track);
}

qfs_result qfs_device_get_sector_size(qfs_device *device, uint32_t *out_sector_size) {
    if (device == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (operations_of(device)->get_sector_size == nullptr) {
        return QFS_ERR_UNSUPPORTED_FEATURE;
    }
    return operations_of(device)->get_sector_size(device->layer, out_sector_size);
}

qfs_result qfs_device_refresh_partition_table(qfs_device *device) {
    if (device == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (operations_of(device)->refresh_partition_table == nullptr) {
        return QFS_ERR_UNSUPPORTED_FEATURE;
    }
    return operations_of(device)->refresh_partition_table(device->layer);
}

qfs_result qfs_device_clear_partition_table(qfs_device *device, void *argument) {
    if (device == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (operations_of(device)->clear_partition_table == nullptr) {
        return QFS_ERR_UNSUPPORTED_FEATURE;
    }
    return operations_of(device)->clear_partition_table(device->layer, argument);
}

qfs_result qfs_device_discard_byte_range(qfs_device *device, uint64_t position, uint64_t count, uint32_t secure) {
    if (device == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (has_range(device) && (position >= device->size || device->size - position < count)) {
        return QFS_ERR_OVERFLOW;
    }
    if (operations_of(device)->discard_byte_range == nullptr) {
        return QFS_ERR_UNSUPPORTED_FEATURE;
    }
    return operations_of(device)->discard_byte_range(device->layer, device->start + position, count, secure);
}

qfs_result qfs_device_check_if_in_use(qfs_device *device, uint32_t *out_mounted, uint32_t *out_in_use,
                                      char *mount_point, size_t mount_point_size, char *fs_type,
                                      size_t fs_type_size) {
    if (device == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (operations_of(device)->check_if_in_use == nullptr) {
        return QFS_OK; // a layer that cannot tell leaves the flags as they are
    }
    return operations_of(device)->check_if_in_use(device->layer, out_mounted, out_in_use, mount_point,
                                                  mount_point_size, fs_type, fs_type_size);
}
