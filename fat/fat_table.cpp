#include "fat/fat_table.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "fat/fat_ondisk.h"
#include "support/qfs_endian.h"
#include "support/qfs_logging.h"
#include "support/qfs_memory.h"

namespace fo = fat_ondisk;

namespace {

// A multiple of 3 bytes (two FAT12 entries) and of 4, so no entry straddles two windows.
constexpr size_t window_size = 3 * 65536;

} // namespace

struct fat_table {
    qfs_device *device = nullptr;
    uint8_t bits = 0;
    uint32_t cluster_count = 0;
    uint64_t position = 0; // of the FAT in use, in bytes
    uint64_t bytes = 0;
    qfs_buffer window;
    uint64_t window_start = 0;
    size_t window_length = 0; // 0 while nothing is loaded

    uint32_t end_of_chain_min() const { return bits == 12 ? 0xFF8 : bits == 16 ? 0xFFF8 : 0x0FFFFFF8; }
    uint32_t entry_mask() const { return bits == 12 ? 0xFFF : bits == 16 ? 0xFFFF : fo::fat32_entry_mask; }
};

namespace {

qfs_result load_window(fat_table *t, uint64_t offset) {
    const uint64_t start = offset / window_size * window_size;
    if (t->window_length != 0 && t->window_start == start) return QFS_OK;
    const size_t length = static_cast<size_t>(std::min<uint64_t>(window_size, t->bytes - start));
    size_t got = 0;
    qfs_result r = qfs_device_pread(t->device, t->position + start, length, t->window.get(), &got);
    if (r == QFS_OK && got != length) r = QFS_ERR_SYS_IO;
    if (r != QFS_OK) {
        t->window_length = 0;
        QFS_LOG_ERROR("Error while reading the FAT at byte %llu: %lu (%s)",
                      static_cast<unsigned long long>(t->position + start), QFS_ERR_ARGS(r));
        return r;
    }
    t->window_start = start;
    t->window_length = length;
    return QFS_OK;
}

} // namespace

qfs_result fat_table_create(qfs_device *device, const fat_boot_values &boot, fat_table **out_table) {
    if (device == nullptr || out_table == nullptr) return QFS_ERR_INVALID_PARAMETER;
    const uint64_t bytes = static_cast<uint64_t>(boot.fat_size) * boot.sector_size;
    // Entries 0 and 1 come before the first data cluster.
    if (bytes * 8 / boot.fat_type < static_cast<uint64_t>(boot.cluster_count) + 2) {
        QFS_LOG_ERROR("Inconsistency: FAT region too small to map all clusters!");
        return QFS_ERR_SYS_IO;
    }
    std::unique_ptr<fat_table> table(new (std::nothrow) fat_table{});
    if (!table) return QFS_ERR_OUT_OF_MEMORY;
    table->device = device;
    table->bits = boot.fat_type;
    table->cluster_count = boot.cluster_count;
    table->position =
        (boot.fat_start_sector + static_cast<uint64_t>(boot.active_fat) * boot.fat_size) * boot.sector_size;
    table->bytes = bytes;
    const qfs_result r = qfs_buffer_alloc(static_cast<size_t>(std::min<uint64_t>(window_size, bytes)), table->window);
    if (r != QFS_OK) return r;
    *out_table = table.release();
    return QFS_OK;
}

qfs_result fat_table_destroy(fat_table **table) {
    if (table == nullptr || *table == nullptr) return QFS_ERR_INVALID_PARAMETER;
    delete *table;
    *table = nullptr;
    return QFS_OK;
}

namespace {

// Byte offset of an entry, from the start of the FAT or (window-relative index) of a window: a window
// starts on an even entry, so the FAT12 half-byte pairing is the same in both.
uint64_t entry_offset(const fat_table &t, uint64_t index) {
    return t.bits == 12 ? index + index / 2 : index * (t.bits / 8u);
}

// The entry at a window-relative index, which must lie inside the loaded window.
uint32_t decode_entry(const fat_table &t, uint64_t index) {
    const uint8_t *at = t.window.get() + entry_offset(t, index);
    if (t.bits == 12) {
        const uint16_t pair = get_le16(at, 0);
        return index % 2 != 0 ? pair >> 4 : pair & 0xFFF;
    }
    if (t.bits == 16) return get_le16(at, 0);
    return get_le32(at, 0) & fo::fat32_entry_mask;
}

// Entries in a full window: exact for 12, 16 and 32 bits, as window_size holds a whole number of each.
uint64_t entries_per_window(const fat_table &t) { return window_size * 8 / t.bits; }

// Free entries among window-relative indexes [from, to). A fresh card's FAT is almost all zeros, so
// whole groups of zero bytes are counted at once and only the rest decoded one entry at a time.
uint32_t count_zero_entries(const fat_table &t, uint64_t from, uint64_t to) {
    constexpr uint64_t group = 32; // entries; an even count, so a FAT12 group is whole bytes
    static constexpr uint8_t zeros[group * 4] = {};
    uint32_t count = 0;
    uint64_t index = from;
    while (index < to) {
        if (index % group == 0 && to - index >= group &&
            std::memcmp(t.window.get() + entry_offset(t, index), zeros, group * t.bits / 8) == 0) {
            count += group;
            index += group;
        } else {
            count += decode_entry(t, index) == 0;
            ++index;
        }
    }
    return count;
}

} // namespace

qfs_result fat_table_get_entry(fat_table *table, uint32_t cluster, uint32_t *out_entry) {
    if (table == nullptr || out_entry == nullptr || cluster > table->cluster_count + 1ull) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    const qfs_result r = load_window(table, entry_offset(*table, cluster));
    if (r != QFS_OK) return r;
    *out_entry = decode_entry(*table, cluster % entries_per_window(*table));
    return QFS_OK;
}

qfs_result fat_table_check_reserved_entries(fat_table *table, uint8_t media) {
    uint32_t entry0 = 0, entry1 = 0;
    qfs_result r = fat_table_get_entry(table, 0, &entry0);
    if (r == QFS_OK) r = fat_table_get_entry(table, 1, &entry1);
    if (r != QFS_OK) return r;
    const uint32_t mask = table->entry_mask();
    if (entry0 != ((mask & ~0xFFu) | media)) {
        QFS_LOG_ERROR("Inconsistency: FAT entry 0 (0x%lX) does not carry the media descriptor 0x%02hhX.",
                      static_cast<unsigned long>(entry0), media);
        return QFS_ERR_SYS_IO;
    }
    // FAT16 and FAT32 clear their two top bits for a volume that was not shut down cleanly or met a hard error.
    const uint32_t state_bits = table->bits == 12 ? 0 : (mask + 1) >> 1 | (mask + 1) >> 2;
    if ((entry1 | state_bits) != mask) {
        QFS_LOG_ERROR("Inconsistency: FAT entry 1 (0x%lX) is not an end-of-chain mark.",
                      static_cast<unsigned long>(entry1));
        return QFS_ERR_SYS_IO;
    }
    return QFS_OK;
}

// Counts a window at a time: on a large card this loop reads most of what a verification reads.
qfs_result fat_table_count_free(fat_table *table, uint32_t *out_free_clusters) {
    if (table == nullptr || out_free_clusters == nullptr) return QFS_ERR_INVALID_PARAMETER;
    const uint64_t per_window = entries_per_window(*table);
    const uint64_t end = table->cluster_count + 2ull;
    uint32_t free_clusters = 0;
    for (uint64_t first = 0; first < end; first += per_window) {
        const qfs_result r = load_window(table, entry_offset(*table, first));
        if (r != QFS_OK) return r;
        const uint64_t from = std::max<uint64_t>(first, fo::first_data_cluster) - first;
        const uint64_t to = std::min(end - first, per_window);
        free_clusters += count_zero_entries(*table, from, to);
    }
    *out_free_clusters = free_clusters;
    return QFS_OK;
}

qfs_result fat_table_read_chain(fat_table *table, uint32_t first, uint32_t max_clusters,
                                std::vector<uint32_t> *out_clusters) {
    if (table == nullptr || out_clusters == nullptr) return QFS_ERR_INVALID_PARAMETER;
    std::vector<uint32_t> clusters;
    uint32_t cluster = first;
    for (;;) {
        if (cluster < fo::first_data_cluster || cluster > table->cluster_count + 1ull) {
            QFS_LOG_ERROR("Inconsistency: The cluster chain from cluster %lu leaves the volume at entry 0x%lX.",
                          static_cast<unsigned long>(first), static_cast<unsigned long>(cluster));
            return QFS_ERR_SYS_IO;
        }
        // A chain longer than the volume has clusters runs in a circle.
        if (clusters.size() >= std::min(max_clusters, table->cluster_count)) {
            QFS_LOG_ERROR("Inconsistency: The cluster chain from cluster %lu loops or exceeds %lu clusters.",
                          static_cast<unsigned long>(first), static_cast<unsigned long>(max_clusters));
            return QFS_ERR_SYS_IO;
        }
        try {
            clusters.push_back(cluster);
        } catch (const std::bad_alloc &) {
            return QFS_ERR_OUT_OF_MEMORY;
        }
        uint32_t next = 0;
        const qfs_result r = fat_table_get_entry(table, cluster, &next);
        if (r != QFS_OK) return r;
        if (next >= table->end_of_chain_min()) break;
        if (next == 0 || next == table->end_of_chain_min() - 1) {
            QFS_LOG_ERROR("Inconsistency: The cluster chain from cluster %lu meets a %s cluster at %lu.",
                          static_cast<unsigned long>(first), next == 0 ? "free" : "bad",
                          static_cast<unsigned long>(cluster));
            return QFS_ERR_SYS_IO;
        }
        cluster = next;
    }
    *out_clusters = std::move(clusters);
    return QFS_OK;
}
