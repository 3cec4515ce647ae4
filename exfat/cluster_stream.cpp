#include "exfat/cluster_stream.h"

#include <algorithm>
#include <new>

#include "support/qfs_logging.h"

namespace ed = exfat_ondisk;

struct exfat_cluster_stream {
    qfs_device *device;
    const exfat_geometry *geometry;
    exfat_fat *fat;
    bool contiguous;
    uint64_t data_length;
    uint64_t position;        // bytes delivered so far
    uint32_t cluster;         // cluster holding `position`, or end of chain
    uint32_t clusters_walked; // clusters entered, to stop a looping chain
};

qfs_result exfat_cluster_stream_create(qfs_device *device, const exfat_geometry *geometry, exfat_fat *fat,
                                       uint32_t first_cluster, uint64_t data_length, bool contiguous,
                                       exfat_cluster_stream **out_stream) {
    if (data_length > 0) {
        if (!exfat_geometry_cluster_is_valid(*geometry, first_cluster)) {
            QFS_LOG_ERROR("Inconsistency: First cluster %lu of a %llu-byte object is outside the cluster heap.",
                          static_cast<unsigned long>(first_cluster), static_cast<unsigned long long>(data_length));
            return QFS_ERR_SYS_IO;
        }
        // Also keeps the cluster arithmetic below 2^32 clusters.
        const uint64_t clusters = (data_length + geometry->cluster_size - 1) / geometry->cluster_size;
        const uint64_t room = contiguous ? static_cast<uint64_t>(geometry->cluster_count) + ed::first_data_cluster -
                                               first_cluster
                                         : geometry->cluster_count;
        if (clusters > room) {
            QFS_LOG_ERROR("Inconsistency: An object of %llu bytes does not fit in the cluster heap.",
                          static_cast<unsigned long long>(data_length));
            return QFS_ERR_SYS_IO;
        }
    }
    exfat_cluster_stream *stream = new (std::nothrow)
        exfat_cluster_stream{device, geometry, fat, contiguous, data_length, 0, first_cluster, data_length > 0};
    if (stream == nullptr) {
        QFS_LOG_ERROR("Failed to allocate a cluster stream: %lu (%s)", QFS_ERR_ARGS(QFS_ERR_SYS_NO_MEMORY));
        return QFS_ERR_SYS_NO_MEMORY;
    }
    *out_stream = stream;
    return QFS_OK;
}

qfs_result exfat_cluster_stream_destroy(exfat_cluster_stream **stream) {
    if (stream == nullptr) return QFS_ERR_INVALID_PARAMETER;
    delete *stream;
    *stream = nullptr;
    return QFS_OK;
}

namespace {

// Moves on to the next cluster once the current one is used up.
qfs_result advance(exfat_cluster_stream *s) {
    if (s->contiguous) {
        s->cluster += 1;
    } else {
        const qfs_result r = exfat_fat_next_cluster(s->fat, s->cluster, &s->cluster);
        if (r != QFS_OK) return r;
        if (s->cluster == ed::fat_end_of_chain) return QFS_OK;
    }
    if (s->clusters_walked == s->geometry->cluster_count) {
        QFS_LOG_ERROR("Inconsistency: Cluster chain loops at cluster %lu.", static_cast<unsigned long>(s->cluster));
        return QFS_ERR_SYS_IO;
    }
    ++s->clusters_walked;
    return QFS_OK;
}

} // namespace

qfs_result exfat_cluster_stream_read(exfat_cluster_stream *s, void *buffer, size_t count, size_t *out_read) {
    const exfat_geometry &g = *s->geometry;
    auto *out = static_cast<uint8_t *>(buffer);
    size_t done = 0;
    count = static_cast<size_t>(std::min<uint64_t>(count, s->data_length - s->position));
    while (done < count && s->cluster != ed::fat_end_of_chain) {
        const uint32_t in_cluster = static_cast<uint32_t>(s->position % g.cluster_size);
        const size_t chunk = std::min<size_t>(count - done, g.cluster_size - in_cluster);
        const uint64_t at = exfat_geometry_cluster_position(g, s->cluster) + in_cluster;
        qfs_result r = qfs_device_read_exact(s->device, at, chunk, out + done);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Error while reading %zu bytes of cluster %lu: %lu (%s)", chunk,
                          static_cast<unsigned long>(s->cluster), QFS_ERR_ARGS(r));
            return r;
        }
        done += chunk;
        s->position += chunk;
        if (s->position % g.cluster_size == 0 && s->position < s->data_length) {
            r = advance(s);
            if (r != QFS_OK) return r;
        }
    }
    *out_read = done;
    return QFS_OK;
}
