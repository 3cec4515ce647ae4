// The volume's up-case table: the built-in copy when the volume declares the
// standard table's checksum, otherwise the table read from the volume and
// proved by its checksum.
#include <memory>

#include "exfat/cluster_stream.h"
#include "exfat/volume_internal.h"
#include "support/qfs_endian.h"
#include "support/qfs_logging.h"

namespace ed = exfat_ondisk;

namespace {

// The table's bytes as the record describes them.
qfs_result read_raw_table(exfat_volume *volume, const exfat_root_record &record, qfs_buffer &out_data,
                          uint64_t *out_length) {
    const uint64_t length = get_le64(record.entry, ed::dentry::data_length);
    if (length % 2 != 0) {
        QFS_LOG_ERROR("Volume inconsistency - Uneven upcase table size: %llu", static_cast<unsigned long long>(length));
        return QFS_ERR_SYS_IO;
    }
    if (length >= ed::upcase_length_limit) {
        QFS_LOG_ERROR("Volume inconsistency - Size of upcase table out of bounds for 16-bit range: %llu",
                      static_cast<unsigned long long>(length));
        return QFS_ERR_SYS_IO;
    }
    qfs_buffer data;
    qfs_result r = qfs_buffer_alloc(static_cast<size_t>(length), data);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Failed to allocate %zu bytes for raw upcase table data.", static_cast<size_t>(length));
        return r;
    }
    exfat_cluster_stream *raw_stream = nullptr;
    r = exfat_cluster_stream_create(volume->device, &volume->geometry, volume->fat.get(),
                                    get_le32(record.entry, ed::dentry::first_cluster), length, false, &raw_stream);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Failed to create cluster stream with upcase record.");
        return r;
    }
    const qfs_owned<exfat_cluster_stream, exfat_cluster_stream_destroy> stream(raw_stream);
    size_t got = 0;
    r = exfat_cluster_stream_read(stream.get(), data.get(), static_cast<size_t>(length), &got);
    if (r != QFS_OK) return r;
    if (got != length) {
        QFS_LOG_ERROR("Could not read requested amount of raw upcase table data. Requested: %llu bytes, Read: %zu bytes",
                      static_cast<unsigned long long>(length), got);
        return QFS_ERR_SYS_IO;
    }
    out_data = std::move(data);
    *out_length = length;
    return QFS_OK;
}

} // namespace

qfs_result exfat_volume_read_upcase_table(exfat_volume *volume, exfat_upcase_table **out_table) {
    if (volume == nullptr || out_table == nullptr || !volume->fat) return QFS_ERR_INVALID_PARAMETER;
    const exfat_root_record &record = volume->root_metadata.upcase;
    if (!record.present) {
        QFS_LOG_ERROR("Volume inconsistency - No upcase table record found in root directory.");
        return QFS_ERR_SYS_IO;
    }
    const uint32_t recorded = get_le32(record.entry, ed::dentry::table_checksum);
    exfat_upcase_table *table = nullptr;
    if (recorded == ed::default_upcase_checksum) {
        QFS_TRACE("Default upcase table detected. Using hard coded copy.");
        const qfs_result r = exfat_upcase_get_default_table(&table);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Error while getting default upcase table: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
        *out_table = table;
        return QFS_OK;
    }
    qfs_buffer data;
    uint64_t length = 0;
    qfs_result r = read_raw_table(volume, record, data, &length);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Failed to read upcase table data: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    const uint32_t calculated = exfat_upcase_table_checksum(data.get(), static_cast<size_t>(length));
    if (calculated != recorded) {
        QFS_LOG_ERROR("Incorrect checksum for upcase table! Expected: 0x%lX, Calculated: 0x%lX",
                      static_cast<unsigned long>(recorded), static_cast<unsigned long>(calculated));
        return QFS_ERR_SYS_IO;
    }
    QFS_TRACE("Upcase table checksum: 0x%lX", static_cast<unsigned long>(calculated));
    r = exfat_upcase_decompress_table(data.get(), static_cast<uint16_t>(length / 2), &table);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Failed to decompress table: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    *out_table = table;
    return QFS_OK;
}
