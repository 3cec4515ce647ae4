#include "exfat/allocation_bitmap.h"

#include <algorithm>
#include <bit>
#include <memory>
#include <new>

#include "exfat/cluster_stream.h"
#include "support/qfs_logging.h"
#include "support/qfs_memory.h"

namespace ed = exfat_ondisk;

namespace {
// The bitmap is read in pieces of this size, whatever its length.
constexpr size_t read_piece = 64 * 1024;
} // namespace

struct exfat_allocation_bitmap {
    qfs_device *device;
    const exfat_geometry *geometry;
    exfat_fat *fat;
    uint32_t first_cluster;
    uint64_t length;
};

qfs_result exfat_allocation_bitmap_create(qfs_device *device, const exfat_geometry *geometry, exfat_fat *fat,
                                          uint32_t first_cluster, uint64_t length,
                                          exfat_allocation_bitmap **out_bitmap) {
    const uint64_t needed = (static_cast<uint64_t>(geometry->cluster_count) + 7) / 8;
    if (length < needed) {
        QFS_LOG_ERROR("Inconsistency: Allocation bitmap of %llu bytes is too small for %lu clusters.",
                      static_cast<unsigned long long>(length), static_cast<unsigned long>(geometry->cluster_count));
        return QFS_ERR_SYS_IO;
    }
    if (!exfat_geometry_cluster_is_valid(*geometry, first_cluster)) {
        QFS_LOG_ERROR("Inconsistency: Allocation bitmap starts outside the cluster heap (cluster %lu).",
                      static_cast<unsigned long>(first_cluster));
        return QFS_ERR_SYS_IO;
    }
    exfat_allocation_bitmap *bitmap =
        new (std::nothrow) exfat_allocation_bitmap{device, geometry, fat, first_cluster, length};
    if (bitmap == nullptr) {
        QFS_LOG_ERROR("Failed to allocate the bitmap object: %lu (%s)", QFS_ERR_ARGS(QFS_ERR_SYS_NO_MEMORY));
        return QFS_ERR_SYS_NO_MEMORY;
    }
    *out_bitmap = bitmap;
    return QFS_OK;
}

qfs_result exfat_allocation_bitmap_destroy(exfat_allocation_bitmap **bitmap) {
    if (bitmap == nullptr) return QFS_ERR_INVALID_PARAMETER;
    delete *bitmap;
    *bitmap = nullptr;
    return QFS_OK;
}

qfs_result exfat_allocation_bitmap_count_allocated(exfat_allocation_bitmap *bitmap, const uint32_t *in_use,
                                                   size_t in_use_count, uint64_t *out_allocated) {
    const uint64_t clusters = bitmap->geometry->cluster_count;
    const uint64_t bytes = (clusters + 7) / 8;
    exfat_cluster_stream *raw_stream = nullptr;
    qfs_result r = exfat_cluster_stream_create(bitmap->device, bitmap->geometry, bitmap->fat, bitmap->first_cluster,
                                               bytes, false, &raw_stream);
    if (r != QFS_OK) return r;
    const qfs_owned<exfat_cluster_stream, exfat_cluster_stream_destroy> stream(raw_stream);
    qfs_buffer piece;
    r = qfs_buffer_alloc(static_cast<size_t>(std::min<uint64_t>(bytes, read_piece)), piece);
    if (r != QFS_OK) return r;

    uint64_t allocated = 0;
    size_t next_in_use = 0;
    for (uint64_t done = 0; done < bytes;) {
        const size_t want = static_cast<size_t>(std::min<uint64_t>(bytes - done, read_piece));
        size_t got = 0;
        r = exfat_cluster_stream_read(stream.get(), piece.get(), want, &got);
        if (r != QFS_OK) return r;
        if (got != want) {
            QFS_LOG_ERROR("Inconsistency: Allocation bitmap chain ends after %llu of %llu bytes.",
                          static_cast<unsigned long long>(done + got), static_cast<unsigned long long>(bytes));
            return QFS_ERR_SYS_IO;
        }
        // Bit i of the bitmap stands for cluster i + 2.
        const uint64_t end_bit = (done + got) * 8;
        for (; next_in_use < in_use_count && in_use[next_in_use] - ed::first_data_cluster < end_bit; ++next_in_use) {
            const uint64_t bit = in_use[next_in_use] - ed::first_data_cluster - done * 8;
            if ((piece[bit / 8] & (1u << (bit % 8))) == 0) {
                QFS_LOG_ERROR("Inconsistency: Cluster %lu of the volume's metadata is not marked as allocated.",
                              static_cast<unsigned long>(in_use[next_in_use]));
                return QFS_ERR_SYS_IO;
            }
        }
        for (size_t i = 0; i < got; ++i) {
            uint8_t byte = piece[i];
            // The last byte may carry bits for clusters beyond the heap.
            const uint64_t first_bit = (done + i) * 8;
            if (clusters - first_bit < 8) byte &= static_cast<uint8_t>((1u << (clusters - first_bit)) - 1);
            allocated += static_cast<unsigned>(std::popcount(byte));
        }
        done += got;
    }
    *out_allocated = allocated;
    return QFS_OK;
}
