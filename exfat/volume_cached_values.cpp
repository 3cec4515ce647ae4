// Initialising an opening volume's cached values: the boot sector checks,
// the boot regions, the values themselves, the FAT, the root directory's
// records, the allocation count, the label, the up-case table and the kept
// copies of both boot regions.
#include <algorithm>
#include <cstring>
#include <vector>

#include "exfat/allocation_bitmap.h"
#include "exfat/volume_boot_checks.h"
#include "exfat/volume_boot_region.h"
#include "exfat/volume_internal.h"
#include "support/qfs_endian.h"
#include "support/qfs_logging.h"
#include "support/qfs_support.h"

namespace ed = exfat_ondisk;

namespace {

// The problem number of an out-of-range PercentInUse, a metadata inconsistency that is accepted.
constexpr int percent_in_use_problem = 7;

// Counts an accepted inconsistency before the default handler reports it.
qfs_result volume_problem_handler(void *context, int problem, const char *message) {
    const qfs_result r = exfat_check_default_problem_handler(context, problem, message);
    if (r == QFS_OK && problem == percent_in_use_problem) {
        static_cast<exfat_volume *>(context)->inconsistencies += 1;
    }
    return r;
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
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    g.active_fat = (flags & ed::flag_active_fat) ? 1 : 0;
    if (g.active_fat == 1 && g.number_of_fats == 1) {
        QFS_LOG_ERROR("Boot sector specifies the use of a second FAT, but there is only one.");
        return QFS_ERR_SYS_INVALID_ARGUMENT;
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

// A volume that claims more sectors than its device (or partition) holds
// would send writes past its end. A device that cannot tell its size is
// taken at its word.
qfs_result check_volume_fits_device(qfs_device *device, uint32_t bytes_per_sector, uint64_t volume_length) {
    uint64_t device_sectors = 0;
    if (qfs_device_get_size_in_sectors(device, bytes_per_sector, &device_sectors) != QFS_OK) {
        QFS_TRACE("Device size unknown; volume length not checked against it.");
        return QFS_OK;
    }
    if (volume_length > device_sectors) {
        QFS_LOG_ERROR("Inconsistency: The volume (%llu sectors) extends beyond the end of the device (%llu sectors).",
                      static_cast<unsigned long long>(volume_length), static_cast<unsigned long long>(device_sectors));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
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
    r = qfs_util_hashtable_insert(volume->iref_cache.get(), &inode->number, exfat_iref_key_size, &inode,
                                  exfat_iref_value_size);
    if (r != QFS_OK) {
        std::free(inode);
        return r;
    }
    // What the cache hands out for the root must be the root's main reference.
    exfat_inode *cached = nullptr;
    const uint64_t key = volume->root_first_cluster;
    if (!qfs_util_hashtable_get(volume->iref_cache.get(), &key, exfat_iref_key_size, &cached, exfat_iref_value_size) ||
        cached != inode || cached->main_ref != cached) {
        QFS_LOG_CRITICAL("Root iref is not the main ref.");
        return QFS_ERR_SYS_INTERNAL;
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
                return QFS_ERR_SYS_NO_MEMORY;
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
        return QFS_ERR_SYS_IO;
    }
    volume->bitmap_first_cluster = get_le32(bitmap_record.entry, ed::dentry::first_cluster);
    volume->bitmap_length = get_le64(bitmap_record.entry, ed::dentry::data_length);
    if (volume->bitmap_length >= ed::bitmap_length_limit) {
        QFS_LOG_ERROR("Volume bitmap size out of bounds: %llu", static_cast<unsigned long long>(volume->bitmap_length));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    exfat_allocation_bitmap *raw_bitmap = nullptr;
    r = exfat_allocation_bitmap_create(volume->device, &volume->geometry, fat, volume->bitmap_first_cluster,
                                       volume->bitmap_length, &raw_bitmap);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Failed to create bitmap object: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    const qfs_owned<exfat_allocation_bitmap, exfat_allocation_bitmap_destroy> bitmap(raw_bitmap);
    std::vector<uint32_t> metadata_clusters;
    r = collect_metadata_clusters(volume, &metadata_clusters);
    if (r != QFS_OK) return r;
    uint64_t allocated = 0;
    r = exfat_allocation_bitmap_count_allocated(bitmap.get(), metadata_clusters.data(), metadata_clusters.size(),
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

} // namespace

qfs_result exfat_volume_initialize_cached_values(exfat_volume *volume, const uint8_t *first_bytes) {
    qfs_result r = exfat_check_validate_boot_sector(first_bytes, volume_problem_handler, volume);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("exfat_check_validate_boot_sector returned error: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    const uint16_t flags = get_le16(first_bytes, ed::boot::volume_flags);
    if ((flags & ed::flag_media_failure) && !(volume->flags & EXFAT_VOLUME_IGNORE_MEDIA_FAILURE)) {
        QFS_LOG_ERROR("Refusing to mount: An unhandled media failure has been previously reported for this volume. "
                      "Run 'chkdsk /r' before attempting to mount this volume.");
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    const uint32_t bps = 1u << first_bytes[ed::boot::bytes_per_sector_shift];
    r = exfat_boot_region_validate(volume->device, bps, exfat_boot_region::main);
    if (r != QFS_OK) return r;
    r = exfat_boot_region_validate(volume->device, bps, exfat_boot_region::backup);
    if (r != QFS_OK) return r;
    r = check_volume_fits_device(volume->device, bps, get_le64(first_bytes, ed::boot::volume_length));
    if (r != QFS_OK) return r;

    // The whole of sector 0, which later writes of the flags and PercentInUse rewrite.
    r = qfs_buffer_alloc(bps, volume->boot_sector);
    if (r == QFS_OK) r = qfs_buffer_alloc(bps, volume->boot_sector_on_disk);
    if (r != QFS_OK) return r;
    r = qfs_device_read_exact(volume->device, 0, bps, volume->boot_sector.get());
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Failed to read boot sector from exFAT volume: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    // The values below must come from the bytes the checks passed.
    if (memcmp(volume->boot_sector.get(), first_bytes, 512) != 0) {
        QFS_LOG_ERROR("Boot sector changed while the volume was being opened: %lu (%s)", QFS_ERR_ARGS(QFS_ERR_SYS_IO));
        return QFS_ERR_SYS_IO;
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

