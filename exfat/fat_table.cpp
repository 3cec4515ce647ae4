#include "exfat/fat_table.h"

#include <new>

#include "support/qfs_endian.h"
#include "support/qfs_logging.h"
#include "support/qfs_memory.h"

namespace ed = exfat_ondisk;

namespace {
constexpr uint32_t entry_bytes = 4;
constexpr uint64_t no_sector = UINT64_MAX;
} // namespace

// One sector of the FAT is kept, so walking a chain of neighbouring clusters
// costs one read per sector.
struct exfat_fat {
    qfs_device *device;
    exfat_geometry geometry;
    qfs_buffer sector;
    uint64_t cached_sector; // index within the FAT, or no_sector
};

qfs_result exfat_fat_create(qfs_device *device, const exfat_geometry &geometry, exfat_fat **out_fat) {
    qfs_buffer sector;
    qfs_result r = qfs_buffer_alloc(geometry.bytes_per_sector, sector);
    if (r != QFS_OK) return r;
    exfat_fat *fat = new (std::nothrow) exfat_fat{device, geometry, std::move(sector), no_sector};
    if (fat == nullptr) {
        QFS_LOG_ERROR("Failed to allocate the FAT object: %lu (%s)", QFS_ERR_ARGS(QFS_ERR_SYS_NO_MEMORY));
        return QFS_ERR_SYS_NO_MEMORY;
    }
    *out_fat = fat;
    return QFS_OK;
}

qfs_result exfat_fat_destroy(exfat_fat **fat) {
    if (fat == nullptr) return QFS_ERR_INVALID_PARAMETER;
    delete *fat;
    *fat = nullptr;
    return QFS_OK;
}

qfs_result exfat_fat_get_entry(exfat_fat *fat, uint32_t cluster, uint32_t *out_entry) {
    const exfat_geometry &g = fat->geometry;
    if (cluster >= static_cast<uint64_t>(g.cluster_count) + ed::first_data_cluster) {
        QFS_LOG_ERROR("Cluster %lu is beyond the end of the FAT.", static_cast<unsigned long>(cluster));
        return QFS_ERR_SYS_IO;
    }
    const uint64_t offset = static_cast<uint64_t>(cluster) * entry_bytes;
    const uint64_t sector = offset >> g.bytes_per_sector_shift;
    if (sector != fat->cached_sector) {
        const uint64_t position = exfat_geometry_active_fat_position(g) + (sector << g.bytes_per_sector_shift);
        const qfs_result r = qfs_device_read_exact(fat->device, position, g.bytes_per_sector, fat->sector.get());
        if (r != QFS_OK) {
            fat->cached_sector = no_sector;
            QFS_LOG_ERROR("Error while reading FAT sector at offset %llu: %lu (%s)",
                          static_cast<unsigned long long>(position), QFS_ERR_ARGS(r));
            return r;
        }
        fat->cached_sector = sector;
    }
    *out_entry = get_le32(fat->sector.get(), offset & (g.bytes_per_sector - 1));
    return QFS_OK;
}

qfs_result exfat_fat_next_cluster(exfat_fat *fat, uint32_t cluster, uint32_t *out_next) {
    uint32_t entry = 0;
    const qfs_result r = exfat_fat_get_entry(fat, cluster, &entry);
    if (r != QFS_OK) return r;
    if (entry != ed::fat_end_of_chain && !exfat_geometry_cluster_is_valid(fat->geometry, entry)) {
        QFS_LOG_ERROR("Inconsistency: FAT entry of cluster %lu does not continue its chain (0x%08lX).",
                      static_cast<unsigned long>(cluster), static_cast<unsigned long>(entry));
        return QFS_ERR_SYS_IO;
    }
    *out_next = entry;
    return QFS_OK;
}

qfs_result exfat_fat_count_chain(exfat_fat *fat, uint32_t first, uint32_t *out_count) {
    if (!exfat_geometry_cluster_is_valid(fat->geometry, first)) {
        QFS_LOG_ERROR("Inconsistency: Cluster chain starts outside the cluster heap (%lu).",
                      static_cast<unsigned long>(first));
        return QFS_ERR_SYS_IO;
    }
    uint32_t count = 0;
    for (uint32_t cluster = first; cluster != ed::fat_end_of_chain;) {
        // No chain can hold more clusters than the heap: a longer one loops.
        if (count == fat->geometry.cluster_count) {
            QFS_LOG_ERROR("Inconsistency: Cluster chain starting at %lu loops.", static_cast<unsigned long>(first));
            return QFS_ERR_SYS_IO;
        }
        ++count;
        const qfs_result r = exfat_fat_next_cluster(fat, cluster, &cluster);
        if (r != QFS_OK) return r;
    }
    *out_count = count;
    return QFS_OK;
}

qfs_result exfat_fat_append_chain(exfat_fat *fat, uint32_t first, uint32_t max_clusters,
                                  std::vector<uint32_t> *clusters) {
    if (!exfat_geometry_cluster_is_valid(fat->geometry, first)) {
        QFS_LOG_ERROR("Inconsistency: Cluster chain starts outside the cluster heap (%lu).",
                      static_cast<unsigned long>(first));
        return QFS_ERR_SYS_IO;
    }
    try {
        uint32_t cluster = first;
        for (uint32_t n = 0; n < max_clusters && cluster != ed::fat_end_of_chain; ++n) {
            clusters->push_back(cluster);
            if (n + 1 < max_clusters) {
                const qfs_result r = exfat_fat_next_cluster(fat, cluster, &cluster);
                if (r != QFS_OK) return r;
            }
        }
    } catch (const std::bad_alloc &) {
        QFS_LOG_ERROR("Failed to collect a cluster chain: %lu (%s)", QFS_ERR_ARGS(QFS_ERR_SYS_NO_MEMORY));
        return QFS_ERR_SYS_NO_MEMORY;
    }
    return QFS_OK;
}
