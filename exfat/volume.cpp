// Opening, closing and releasing an exFAT volume.
#include "exfat/volume.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <vector>

#include "exfat/allocation_bitmap.h"
#include "exfat/volume_boot_checks.h"
#include "exfat/volume_boot_region.h"
#include "exfat/volume_internal.h"
#include "support/qfs_endian.h"
#include "support/qfs_logging.h"
#include "support/qfs_scope.h"
#include "support/qfs_support.h"

namespace ed = exfat_ondisk;

namespace {

// The platform's number for an internal error, as the volume code reports it.
constexpr qfs_result internal_error = 6;
// Room for a mount point path and its terminator.
constexpr size_t mount_point_buffer_size = 4097;
// Both reference caches start with 32 slots of 8-byte keys and 8-byte values.
constexpr uint64_t iref_cache_capacity = 32;
constexpr size_t iref_key_size = sizeof(uint64_t);
constexpr size_t iref_value_size = sizeof(exfat_inode *);
// The problem number of an out-of-range PercentInUse, a metadata inconsistency that is accepted.
constexpr int percent_in_use_problem = 7;

// Every reader relies on these offsets; a compiler or edit that broke them must not go unnoticed.
constexpr bool ondisk_layout_valid = ed::boot_fields_are_ordered() && ed::dentry_fields_fit();
static_assert(ondisk_layout_valid, "exFAT on-disk field offsets are inconsistent");

void free_inode_value(void *value) {
    exfat_inode *inode = nullptr;
    memcpy(&inode, value, sizeof(inode));
    std::free(inode);
}

// Counts an accepted inconsistency before the default handler reports it.
qfs_result volume_problem_handler(void *context, int problem, const char *message) {
    const qfs_result r = exfat_check_default_problem_handler(context, problem, message);
    if (r == QFS_OK && problem == percent_in_use_problem) {
        static_cast<exfat_volume *>(context)->inconsistencies += 1;
    }
    return r;
}

qfs_result create_caches(exfat_volume *volume) {
    qfs_util_hashtable *table = nullptr;
    qfs_result r = qfs_util_hashtable_create(iref_cache_capacity, iref_key_size, iref_value_size, free_inode_value,
                                             &table);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while creating iref cache: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    volume->iref_cache.reset(table);
    table = nullptr;
    r = qfs_util_hashtable_create(iref_cache_capacity, iref_key_size, iref_value_size, free_inode_value, &table);
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
                      QFS_ERR_ARGS(EBUSY));
        return EBUSY;
    }
    return QFS_OK;
}

// The boot sector values every later step works from.
qfs_result cache_boot_values(exfat_volume *volume) {
    const uint8_t *b = volume->boot_sector.get();
    exfat_geometry &g = volume->geometry;
    volume->revision_minor = b[ed::boot::file_system_revision];
    volume->revision_major = b[ed::boot::file_system_revision + 1];
    const uint32_t serial = get_le32(b, ed::boot::volume_serial_number);
    volume->serial_high = static_cast<uint16_t>(serial >> 16);
    volume->serial_low = static_cast<uint16_t>(serial);
    const uint16_t flags = get_le16(b, ed::boot::volume_flags);
    g.number_of_fats = b[ed::boot::number_of_fats];
    if (g.number_of_fats != 1 && g.number_of_fats != 2) {
        QFS_LOG_ERROR("Boot sector field 'number_of_fats' contains an invalid value: %hhu", g.number_of_fats);
        return EINVAL;
    }
    g.active_fat = (flags & ed::flag_active_fat) ? 1 : 0;
    if (g.active_fat == 1 && g.number_of_fats == 1) {
        QFS_LOG_ERROR("Boot sector specifies the use of a second FAT, but there is only one.");
        return EINVAL;
    }
    volume->dirty = (flags & ed::flag_volume_dirty) ? 1 : 0;
    volume->clean_at_open = volume->dirty == 0;
    g.bytes_per_sector_shift = b[ed::boot::bytes_per_sector_shift];
    g.sectors_per_cluster_shift = b[ed::boot::sectors_per_cluster_shift];
    g.bytes_per_sector = 1u << g.bytes_per_sector_shift;
    g.cluster_size = 1u << (g.bytes_per_sector_shift + g.sectors_per_cluster_shift);
    g.fat_offset = get_le32(b, ed::boot::fat_offset);
    g.fat_length = get_le32(b, ed::boot::fat_length);
    g.cluster_heap_offset = get_le32(b, ed::boot::cluster_heap_offset);
    g.cluster_count = get_le32(b, ed::boot::cluster_count);
    volume->root_first_cluster = get_le32(b, ed::boot::first_cluster_of_root);
    g.volume_length = get_le64(b, ed::boot::volume_length);
    return QFS_OK;
}

// The root directory as an open object in the reference cache.
qfs_result create_root_inode(exfat_volume *volume, uint32_t cluster_count) {
    void *block = nullptr;
    qfs_result r = _qfs_calloc(0, sizeof(exfat_inode), &block);
    if (r != QFS_OK) return r;
    auto *inode = static_cast<exfat_inode *>(block);
    inode->number = volume->root_first_cluster;
    inode->first_cluster = volume->root_first_cluster;
    inode->cluster_count = cluster_count;
    inode->size = static_cast<uint64_t>(cluster_count) * volume->geometry.cluster_size;
    inode->main_ref = inode;
    r = qfs_util_hashtable_insert(volume->iref_cache.get(), &inode->number, iref_key_size, &inode, iref_value_size);
    if (r != QFS_OK) {
        std::free(inode);
        return r;
    }
    // What the cache hands out for the root must be the root's main reference.
    exfat_inode *cached = nullptr;
    const uint64_t key = volume->root_first_cluster;
    if (!qfs_util_hashtable_get(volume->iref_cache.get(), &key, iref_key_size, &cached, iref_value_size) ||
        cached != inode || cached->main_ref != cached) {
        QFS_LOG_CRITICAL("Root iref is not the main ref.");
        return internal_error;
    }
    volume->root = inode;
    return QFS_OK;
}

// The clusters of the bitmap, the up-case table and the root directory, in
// ascending order: the bitmap must mark each of them, or a later allocation
// would overwrite the volume's own metadata.
qfs_result collect_metadata_clusters(exfat_volume *volume, std::vector<uint32_t> *clusters) {
    const uint32_t cluster_size = volume->geometry.cluster_size;
    const auto clusters_for = [&](uint64_t bytes) {
        return static_cast<uint32_t>(std::min<uint64_t>((bytes + cluster_size - 1) / cluster_size,
                                                        volume->geometry.cluster_count));
    };
    exfat_fat *fat = volume->fat.get();
    qfs_result r = exfat_fat_append_chain(fat, volume->bitmap_first_cluster, clusters_for(volume->bitmap_length),
                                          clusters);
    if (r != QFS_OK) return r;
    r = exfat_fat_append_chain(fat, volume->root->first_cluster, volume->root->cluster_count, clusters);
    if (r != QFS_OK) return r;
    const exfat_root_record &upcase = volume->root_metadata.upcase;
    if (upcase.present) {
        // A damaged up-case chain is reported when the table is read; here it only counts as far as it goes.
        std::vector<uint32_t> upcase_clusters;
        const uint32_t first = get_le32(upcase.entry, ed::dentry::first_cluster);
        if (exfat_geometry_cluster_is_valid(volume->geometry, first) &&
            exfat_fat_append_chain(fat, first, clusters_for(get_le64(upcase.entry, ed::dentry::data_length)),
                                   &upcase_clusters) == QFS_OK) {
            try {
                clusters->insert(clusters->end(), upcase_clusters.begin(), upcase_clusters.end());
            } catch (const std::bad_alloc &) {
                return ENOMEM;
            }
        }
    }
    std::sort(clusters->begin(), clusters->end());
    return QFS_OK;
}

// FAT, root directory, allocation count.
qfs_result read_metadata(exfat_volume *volume) {
    exfat_fat *fat = nullptr;
    qfs_result r = exfat_fat_create(volume->device, volume->geometry, &fat);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Failed to create FAT object: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    volume->fat.reset(fat);
    uint32_t root_clusters = 0;
    r = exfat_fat_count_chain(fat, volume->root_first_cluster, &root_clusters);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("%s: %lu (%s)", "Error while calculating cluster count for root directory", QFS_ERR_ARGS(r));
        return r;
    }
    r = create_root_inode(volume, root_clusters);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while creating root directory inode: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    r = exfat_root_directory_read_records(volume->device, volume->geometry, fat, volume->root->first_cluster,
                                          volume->root->cluster_count, &volume->root_metadata);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while reading root directory metadata: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }

    const int active = volume->geometry.active_fat;
    const exfat_root_record &bitmap_record = volume->root_metadata.bitmap[active];
    if (!bitmap_record.present) {
        QFS_LOG_ERROR("No record for the active bitmap (%d) found in root directory.", active);
        return EIO;
    }
    volume->bitmap_first_cluster = get_le32(bitmap_record.entry, ed::dentry::first_cluster);
    volume->bitmap_length = get_le64(bitmap_record.entry, ed::dentry::data_length);
    if (volume->bitmap_length >= ed::bitmap_length_limit) {
        QFS_LOG_ERROR("Volume bitmap size out of bounds: %llu", static_cast<unsigned long long>(volume->bitmap_length));
        return EINVAL;
    }
    exfat_allocation_bitmap *raw_bitmap = nullptr;
    r = exfat_allocation_bitmap_create(volume->device, &volume->geometry, fat, volume->bitmap_first_cluster,
                                       volume->bitmap_length, &raw_bitmap);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Failed to create bitmap object: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    qfs_cleanup release_bitmap([&] { exfat_allocation_bitmap_destroy(&raw_bitmap); });
    std::vector<uint32_t> metadata_clusters;
    r = collect_metadata_clusters(volume, &metadata_clusters);
    if (r != QFS_OK) return r;
    uint64_t allocated = 0;
    r = exfat_allocation_bitmap_count_allocated(raw_bitmap, metadata_clusters.data(), metadata_clusters.size(),
                                                &allocated);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while counting allocations: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    volume->free_clusters = volume->geometry.cluster_count - allocated;
    return QFS_OK;
}

qfs_result load_label(exfat_volume *volume) {
    char *label = nullptr;
    qfs_result r = exfat_volume_read_label(volume, &label);
    if (r == QFS_OK) {
        volume->label.reset(label);
        return QFS_OK;
    }
    QFS_LOG_ERROR("Error while reading volume name: %lu (%s)", QFS_ERR_ARGS(r));
    if (!volume->read_only) return r;
    QFS_LOG_WARNING("Read-only - Continuing despite error when reading root directory.");
    r = qfs_strdup("", &label);
    if (r != QFS_OK) return r;
    volume->label.reset(label);
    return QFS_OK;
}

qfs_result load_upcase_table(exfat_volume *volume) {
    exfat_upcase_table *table = nullptr;
    qfs_result r = exfat_volume_read_upcase_table(volume, &table);
    if (r == QFS_OK) {
        volume->upcase.reset(table);
        volume->upcase_from_volume =
            get_le32(volume->root_metadata.upcase.entry, ed::dentry::table_checksum) != ed::default_upcase_checksum;
        return QFS_OK;
    }
    QFS_LOG_ERROR("Could not read upcase table for volume: %lu (%s)", QFS_ERR_ARGS(r));
    if (!volume->read_only) return r;
    QFS_LOG_WARNING("Read-only - Continuing despite error when reading root directory.");
    // Without the volume's own table the built-in one serves.
    r = exfat_upcase_get_default_table(&table);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while decompressing default upcase table: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    volume->upcase.reset(table);
    volume->upcase_from_volume = false;
    return QFS_OK;
}

qfs_result keep_boot_regions(exfat_volume *volume) {
    const uint32_t bps = volume->geometry.bytes_per_sector;
    qfs_result r = exfat_boot_region_read(volume->device, bps, exfat_boot_region::main, volume->main_boot_region);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Could not read boot region for volume: %lu (%s)", QFS_ERR_ARGS(r));
        if (!volume->read_only) return r;
        QFS_LOG_WARNING("Read-only - Continuing despite error when reading boot region.");
    }
    r = exfat_boot_region_read(volume->device, bps, exfat_boot_region::backup, volume->backup_boot_region);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Could not read backup boot region for volume: %lu (%s)", QFS_ERR_ARGS(r));
        if (!volume->read_only) return r;
        QFS_LOG_WARNING("Read-only - Continuing despite error when reading backup boot region.");
    }
    return QFS_OK;
}

qfs_result initialize_cached_values(exfat_volume *volume, const uint8_t *first_bytes) {
    qfs_result r = exfat_check_validate_boot_sector(first_bytes, volume_problem_handler, volume);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("exfat_check_validate_boot_sector returned error: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    const uint16_t flags = get_le16(first_bytes, ed::boot::volume_flags);
    if ((flags & ed::flag_media_failure) && !(volume->flags & EXFAT_VOLUME_IGNORE_MEDIA_FAILURE)) {
        QFS_LOG_ERROR("Refusing to mount: An unhandled media failure has been previously reported for this volume. "
                      "Run 'chkdsk /r' before attempting to mount this volume.");
        return EINVAL;
    }
    const uint32_t bps = 1u << first_bytes[ed::boot::bytes_per_sector_shift];
    r = exfat_boot_region_validate(volume->device, bps, exfat_boot_region::main);
    if (r != QFS_OK) return r;
    r = exfat_boot_region_validate(volume->device, bps, exfat_boot_region::backup);
    if (r != QFS_OK) return r;

    // The whole of sector 0, which later writes of the flags and PercentInUse rewrite.
    r = qfs_buffer_alloc(bps, volume->boot_sector);
    if (r == QFS_OK) r = qfs_buffer_alloc(bps, volume->boot_sector_on_disk);
    if (r != QFS_OK) return r;
    r = exfat_volume_read_exact(volume->device, 0, bps, volume->boot_sector.get());
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Failed to read boot sector from exFAT volume: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    memcpy(volume->boot_sector_on_disk.get(), volume->boot_sector.get(), bps);
    const uint16_t current_flags = get_le16(volume->boot_sector.get(), ed::boot::volume_flags);
    if (!volume->read_only && (current_flags & ed::flag_clear_to_zero)) {
        put_le16(volume->boot_sector.get(), ed::boot::volume_flags,
                 static_cast<uint16_t>(current_flags & ~ed::flag_clear_to_zero));
        r = exfat_volume_write_boot_sector(volume);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Failed to write out modified boot sector");
            return r;
        }
    }

    r = cache_boot_values(volume);
    if (r != QFS_OK) return r;
    r = read_metadata(volume);
    if (r != QFS_OK) return r;
    r = load_label(volume);
    if (r != QFS_OK) return r;
    r = load_upcase_table(volume);
    if (r != QFS_OK) return r;
    r = keep_boot_regions(volume);
    if (r != QFS_OK) return r;
    QFS_TRACE("Successfully set up volume.");
    return QFS_OK;
}

// Everything an open sets up, released; the object itself stays.
void reset_volume(exfat_volume *volume) {
    volume->~exfat_volume();
    new (volume) exfat_volume{};
}

} // namespace

qfs_result exfat_volume_read_exact(qfs_device *device, uint64_t position, size_t count, void *buffer) {
    size_t got = 0;
    const qfs_result r = qfs_device_pread(device, position, count, buffer, &got);
    if (r != QFS_OK) return r;
    return got == count ? QFS_OK : QFS_ERR_IO_ERROR;
}

qfs_result exfat_volume_write_exact(qfs_device *device, uint64_t position, size_t count, const void *buffer) {
    size_t written = 0;
    const qfs_result r = qfs_device_pwrite(device, position, count, buffer, &written);
    if (r != QFS_OK) return r;
    return written == count ? QFS_OK : QFS_ERR_IO_ERROR;
}

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
        return internal_error;
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
        return EINVAL;
    }

    exfat_volume *volume = *inout_volume;
    const bool allocated_here = volume == nullptr;
    if (allocated_here) {
        r = exfat_volume_allocate(&volume);
        if (r != QFS_OK) return r;
    } else if (volume->in_use) {
        QFS_LOG_ERROR("The volume object is already in use: %lu (%s)", QFS_ERR_ARGS(QFS_ERR_INVALID_PARAMETER));
        return QFS_ERR_INVALID_PARAMETER;
    }
    volume->device = device;
    volume->flags = flags;
    volume->read_only = read_only;
    qfs_cleanup undo([&] {
        if (volume->opened_device) {
            const qfs_result c = qfs_device_close(device);
            if (c != QFS_OK) QFS_LOG_ERROR("Error while closing device: %lu (%s)", QFS_ERR_ARGS(c));
        }
        if (allocated_here) {
            exfat_volume_destroy(&volume);
        } else {
            reset_volume(volume);
        }
    });

    r = create_caches(volume);
    if (r != QFS_OK) return r;
    if (!device_was_open) {
        r = qfs_device_open(device, 0);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Error while opening device: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
        volume->opened_device = true;
    }
    uint8_t first_bytes[512];
    r = exfat_volume_read_exact(device, 0, sizeof(first_bytes), first_bytes);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Failed to read boot sector from exFAT volume: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    r = initialize_cached_values(volume, first_bytes);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Initializing cached values failed: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    if (!read_only && volume->dirty == 0 && !(flags & EXFAT_VOLUME_DO_NOT_MARK_DIRTY)) {
        r = exfat_volume_set_dirty(volume);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("exfat_volume_set_dirty returned with error: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
    }
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
            result.keep(internal_error);
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
