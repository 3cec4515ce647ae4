#include "exfat/root_directory.h"

#include <cstring>

#include "support/qfs_logging.h"
#include "support/qfs_memory.h"

namespace ed = exfat_ondisk;

namespace {

// Keeps one record of a kind; a second one is an inconsistency.
qfs_result keep(exfat_root_record *record, const uint8_t *entry, uint64_t position, const char *kind) {
    if (record->present) {
        QFS_LOG_ERROR("Inconsistency: More than one %s record in root directory.", kind);
        return QFS_ERR_SYS_IO;
    }
    record->present = true;
    record->position = position;
    memcpy(record->entry, entry, ed::dentry_size);
    return QFS_OK;
}

// Files one entry; sets *out_end at the end-of-directory entry.
qfs_result file_entry(exfat_root_metadata *m, const uint8_t *entry, uint64_t position, bool *out_end) {
    const uint8_t type = entry[ed::dentry::entry_type];
    if ((type & ed::dentry_in_use) == 0) {
        if (!m->has_free_slot) {
            m->has_free_slot = true;
            m->free_slot_position = position;
        }
        *out_end = type == ed::dentry_end_of_directory;
        return QFS_OK;
    }
    switch (type) {
    case ed::dentry_allocation_bitmap: {
        const int index = entry[ed::dentry::bitmap_flags] & ed::bitmap_flag_second_fat;
        return keep(&m->bitmap[index], entry, position,
                    index == 0 ? "first allocation bitmap" : "second allocation bitmap");
    }
    case ed::dentry_upcase_table:
        return keep(&m->upcase, entry, position, "up-case table");
    case ed::dentry_volume_label:
        return keep(&m->label, entry, position, "volume label");
    case ed::dentry_volume_guid:
        return keep(&m->guid, entry, position, "volume GUID");
    default:
        return QFS_OK; // files, directories and anything newer are not the volume's business here
    }
}

} // namespace

qfs_result exfat_root_directory_read_records(qfs_device *device, const exfat_geometry &geometry, exfat_fat *fat,
                                             uint32_t first_cluster, uint32_t cluster_count,
                                             exfat_root_metadata *out_metadata) {
    qfs_buffer sector;
    qfs_result r = qfs_buffer_alloc(geometry.bytes_per_sector, sector);
    if (r != QFS_OK) return r;
    exfat_root_metadata m{};
    const uint32_t sectors_per_cluster = 1u << geometry.sectors_per_cluster_shift;
    bool end = false;
    uint32_t cluster = first_cluster;
    for (uint32_t walked = 0; walked < cluster_count && !end; ++walked) {
        const uint64_t base = exfat_geometry_cluster_position(geometry, cluster);
        for (uint32_t s = 0; s < sectors_per_cluster && !end; ++s) {
            const uint64_t at = base + (static_cast<uint64_t>(s) << geometry.bytes_per_sector_shift);
            r = qfs_device_read_exact(device, at, geometry.bytes_per_sector, sector.get());
            if (r != QFS_OK) {
                QFS_LOG_ERROR("Error while reading root directory sector at offset %llu: %lu (%s)",
                              static_cast<unsigned long long>(at), QFS_ERR_ARGS(r));
                return r;
            }
            for (uint32_t off = 0; off < geometry.bytes_per_sector && !end; off += ed::dentry_size) {
                r = file_entry(&m, sector.get() + off, at + off, &end);
                if (r != QFS_OK) return r;
            }
        }
        if (!end && walked + 1 < cluster_count) {
            r = exfat_fat_next_cluster(fat, cluster, &cluster);
            if (r != QFS_OK) return r;
            if (cluster == ed::fat_end_of_chain) break;
        }
    }
    *out_metadata = m;
    return QFS_OK;
}
