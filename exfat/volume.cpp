// Opening, closing and releasing an exFAT volume.
#include "exfat/volume.h"

#include <cstring>
#include <new>

#include "exfat/volume_internal.h"
#include "support/qfs_endian.h"
#include "support/qfs_logging.h"
#include "support/qfs_scope.h"

namespace ed = exfat_ondisk;

namespace {

// Room for a mount point path and its terminator.
constexpr size_t mount_point_buffer_size = 4097;
// Both reference caches start with 32 slots.
constexpr uint64_t iref_cache_capacity = 32;

// Every reader relies on these offsets; a compiler or edit that broke them must not go unnoticed.
constexpr bool ondisk_layout_valid = ed::boot_fields_are_ordered() && ed::dentry_fields_fit();
static_assert(ondisk_layout_valid, "exFAT on-disk field offsets are inconsistent");

void free_inode_value(void *value) {
    exfat_inode *inode = nullptr;
    memcpy(&inode, value, sizeof(inode));
    std::free(inode);
}

qfs_result create_caches(exfat_volume *volume) {
    qfs_util_hashtable *table = nullptr;
    qfs_result r = qfs_util_hashtable_create(iref_cache_capacity, exfat_iref_key_size, exfat_iref_value_size,
                                             free_inode_value, &table);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while creating iref cache: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    volume->iref_cache.reset(table);
    table = nullptr;
    r = qfs_util_hashtable_create(iref_cache_capacity, exfat_iref_key_size, exfat_iref_value_size, free_inode_value,
                                  &table);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while creating removed iref cache: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    volume->removed_iref_cache.reset(table);
    return QFS_OK;
}

// Opening a device that nobody has opened yet: a mounted one is refused.
qfs_result refuse_if_mounted(qfs_device *device) {
    void *block = nullptr;
    qfs_result r = _qfs_malloc(0, mount_point_buffer_size, &block);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while allocating memory for volume mount point: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    qfs_unique<char[]> mount_point(static_cast<char *>(block));
    mount_point[0] = '\0';
    uint32_t mounted = 0;
    uint32_t in_use = 0;
    r = qfs_device_check_if_in_use(device, &mounted, &in_use, mount_point.get(), mount_point_buffer_size);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while checking if the device is already mounted: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    if (mounted) {
        mount_point[mount_point_buffer_size - 1] = '\0';
        QFS_LOG_ERROR("Refusing to open a volume that is mounted (at \"%s\"): %lu (%s)", mount_point.get(),
                      QFS_ERR_ARGS(QFS_ERR_SYS_BUSY));
        return QFS_ERR_SYS_BUSY;
    }
    return QFS_OK;
}

// Everything an open sets up, released; the object itself stays.
void reset_volume(exfat_volume *volume) {
    volume->~exfat_volume();
    new (volume) exfat_volume{};
}

// The caller's object made ready for a fresh open, or a new one.
qfs_result take_volume_object(exfat_volume **inout_volume, exfat_volume **out_volume) {
    exfat_volume *volume = *inout_volume;
    if (volume == nullptr) {
        return exfat_volume_allocate(out_volume);
    }
    if (volume->in_use) {
        QFS_LOG_ERROR("The volume object is already in use: %lu (%s)", QFS_ERR_ARGS(QFS_ERR_INVALID_PARAMETER));
        return QFS_ERR_INVALID_PARAMETER;
    }
    reset_volume(volume); // nothing of an earlier open carries over
    *out_volume = volume;
    return QFS_OK;
}

// Everything an open reads and sets up once the object is ready.
qfs_result open_volume(exfat_volume *volume, bool device_was_open) {
    qfs_result r = create_caches(volume);
    if (r != QFS_OK) return r;
    if (!device_was_open) {
        r = qfs_device_open(volume->device, 0);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Error while opening device: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
        volume->opened_device = true;
    }
    uint8_t first_bytes[512];
    r = qfs_device_read_exact(volume->device, 0, sizeof(first_bytes), first_bytes);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Failed to read boot sector from exFAT volume: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    r = exfat_volume_initialize_cached_values(volume, first_bytes);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Initializing cached values failed: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    if (!volume->read_only && volume->dirty == 0 && !(volume->flags & EXFAT_VOLUME_DO_NOT_MARK_DIRTY)) {
        r = exfat_volume_set_dirty(volume);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("exfat_volume_set_dirty returned with error: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
    }
    return QFS_OK;
}

} // namespace

qfs_result exfat_volume_allocate(exfat_volume **out_volume) {
    if (out_volume == nullptr) return QFS_ERR_INVALID_PARAMETER;
    void *block = nullptr;
    const qfs_result r = _qfs_malloc(0, sizeof(exfat_volume), &block);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Failed to malloc %zu bytes: %lu (%s)", sizeof(exfat_volume), QFS_ERR_ARGS(r));
        return r;
    }
    *out_volume = new (block) exfat_volume{};
    return QFS_OK;
}

qfs_result exfat_volume_create(qfs_device *device, uint32_t flags, exfat_volume **inout_volume) {
    QFS_TRACE("Entering: device=%p flags=0x%lX inout_volume=%p", static_cast<void *>(device),
              static_cast<unsigned long>(flags), static_cast<void *>(inout_volume));
    if (device == nullptr || inout_volume == nullptr) return QFS_ERR_INVALID_PARAMETER;
    if (!ondisk_layout_valid) {
        QFS_LOG_CRITICAL("Invalid on-disk struct layout! Check your compiler settings...");
        return QFS_ERR_SYS_INTERNAL;
    }
    const bool device_was_open = (device->flags & QFS_DEVICE_FLAG_OPEN) != 0;
    qfs_result r = QFS_OK;
    if (!device_was_open) {
        r = refuse_if_mounted(device);
        if (r != QFS_OK) return r;
    }
    const bool read_only = (flags & EXFAT_VOLUME_READ_ONLY) != 0;
    if (read_only && (flags & EXFAT_VOLUME_TIME_MODE_MASK) != 0) {
        QFS_LOG_ERROR("Invalid time mode for read only volume.");
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }

    const bool allocated_here = *inout_volume == nullptr;
    exfat_volume *volume = nullptr;
    r = take_volume_object(inout_volume, &volume);
    if (r != QFS_OK) return r;
    volume->device = device;
    volume->flags = flags;
    volume->read_only = read_only;
    qfs_cleanup undo([&] {
        if (volume->opened_device) {
            const qfs_result c = qfs_device_close(device);
            if (c != QFS_OK) QFS_LOG_ERROR("Error while closing device: %lu (%s)", QFS_ERR_ARGS(c));
        }
        if (allocated_here) {
            // The volume never became in use, so its destroy has nothing to close and cannot fail.
            (void)exfat_volume_destroy(&volume);
        } else {
            reset_volume(volume);
        }
    });

    r = open_volume(volume, device_was_open);
    if (r != QFS_OK) return r;
    undo.dismiss();
    volume->in_use = true;
    *inout_volume = volume;
    return QFS_OK;
}

qfs_result exfat_volume_close(exfat_volume *volume) {
    if (volume == nullptr) return QFS_ERR_INVALID_PARAMETER;
    if (!volume->in_use) return QFS_OK;
    qfs_first_error result;
    if (!volume->read_only) {
        uint8_t *b = volume->boot_sector.get();
        uint16_t flags = get_le16(b, ed::boot::volume_flags);
        if (volume->dirty > 1) {
            QFS_LOG_CRITICAL("Dirty state not 0 or 1 at exfat_volume_close.");
            result.keep(QFS_ERR_SYS_INTERNAL);
        } else if (volume->inconsistencies > 0) {
            if (volume->dirty == 1) {
                QFS_LOG_WARNING("Leaving the volume marked as dirty because of %llu possible metadata inconsistencies "
                                "encountered during operation.",
                                static_cast<unsigned long long>(volume->inconsistencies));
            } else {
                QFS_LOG_WARNING("Marking the volume as dirty because of %llu possible metadata inconsistencies "
                                "encountered during operation.",
                                static_cast<unsigned long long>(volume->inconsistencies));
            }
            flags |= ed::flag_volume_dirty;
            volume->dirty = 1;
        } else if (volume->clean_at_open && volume->dirty == 1) {
            QFS_TRACE("%s dirty flag.", "Clearing");
            flags &= static_cast<uint16_t>(~ed::flag_volume_dirty);
            volume->dirty = 0;
        }
        put_le16(b, ed::boot::volume_flags, flags);
        uint8_t percent = 0;
        qfs_result r = exfat_volume_compute_percent_in_use(volume, &percent);
        if (r == QFS_OK) {
            b[ed::boot::percent_in_use] = percent;
            r = exfat_volume_write_boot_sector_fields(volume);
            if (r != QFS_OK) {
                QFS_LOG_ERROR("exfat_volume_write_boot_sector_fields returned with error: %lu (%s)", QFS_ERR_ARGS(r));
            }
        }
        result.keep(r);
    }
    if (volume->opened_device) {
        const qfs_result r = qfs_device_close(volume->device);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Error while closing device: %lu (%s)", QFS_ERR_ARGS(r));
            result.keep(r);
        }
        volume->opened_device = false;
    }
    volume->in_use = false;
    return result.result;
}

qfs_result exfat_volume_destroy(exfat_volume **volume) {
    if (volume == nullptr || *volume == nullptr) return QFS_ERR_INVALID_PARAMETER;
    // A volume still open is closed first, so that its dirty state is settled.
    const qfs_result r = exfat_volume_close(*volume);
    (*volume)->~exfat_volume();
    std::free(*volume);
    *volume = nullptr;
    return r;
}

qfs_result exfat_volume_get_info(const exfat_volume *volume, exfat_volume_info *out_info) {
    if (volume == nullptr || out_info == nullptr || !volume->in_use) return QFS_ERR_INVALID_PARAMETER;
    const exfat_geometry &g = volume->geometry;
    exfat_volume_info info{};
    info.revision_major = volume->revision_major;
    info.revision_minor = volume->revision_minor;
    info.serial_number = (static_cast<uint32_t>(volume->serial_high) << 16) | volume->serial_low;
    info.number_of_fats = g.number_of_fats;
    info.active_fat = g.active_fat;
    info.dirty = volume->dirty != 0;
    info.bytes_per_sector = g.bytes_per_sector;
    info.cluster_size = g.cluster_size;
    info.fat_offset = g.fat_offset;
    info.fat_length = g.fat_length;
    info.cluster_heap_offset = g.cluster_heap_offset;
    info.cluster_count = g.cluster_count;
    info.root_first_cluster = volume->root_first_cluster;
    info.volume_length = g.volume_length;
    info.free_clusters = volume->free_clusters;
    info.upcase_from_volume = volume->upcase_from_volume;
    *out_info = info;
    return QFS_OK;
}

const char *exfat_volume_get_label(const exfat_volume *volume) {
    if (volume == nullptr || !volume->label) return "";
    return volume->label.get();
}
