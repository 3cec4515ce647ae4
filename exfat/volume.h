// Opening an exFAT volume: the boot sector checks, the boot-region
// checksums, the cached values, the root directory's records, the up-case
// table, the allocation count and the dirty flag.
#pragma once

#include <cstddef>
#include <cstdint>

#include "device/qfs_device.h"
#include "support/qfs_error.h"

struct exfat_volume;

// Create flags.
enum : uint32_t {
    EXFAT_VOLUME_READ_ONLY = 1,
    EXFAT_VOLUME_IGNORE_MEDIA_FAILURE = 4,
    EXFAT_VOLUME_DO_NOT_MARK_DIRTY = 8,
    EXFAT_VOLUME_TIME_MODE_MASK = (1u << 20) | (1u << 21),
};

// Opens the volume on `device`. With *inout_volume null a volume object is
// allocated; otherwise the caller's object (from exfat_volume_allocate) is used.
[[nodiscard]] qfs_result exfat_volume_create(qfs_device *device, uint32_t flags, exfat_volume **inout_volume);
// Synchronises the boot sector fields, settles the dirty state and closes the
// device when the volume opened it. On a writable volume close rewrites sector
// 0 (and syncs) only when one of the two fields outside the boot-region
// checksum changed: VolumeFlags loses the dirty flag when the volume was clean
// at open and no inconsistency was met (it is set, or left set, otherwise),
// and PercentInUse becomes (allocated clusters x 100) / cluster count. A
// read-only volume writes nothing. A second close does nothing.
[[nodiscard]] qfs_result exfat_volume_close(exfat_volume *volume);
// Closes the volume if it is still open, then frees it.
[[nodiscard]] qfs_result exfat_volume_destroy(exfat_volume **volume);
// A zeroed volume object for callers that preallocate.
[[nodiscard]] qfs_result exfat_volume_allocate(exfat_volume **out_volume);

// Each writes sector 0 at once and syncs; a read-only volume refuses.
[[nodiscard]] qfs_result exfat_volume_update_percent_in_use(exfat_volume *volume);
[[nodiscard]] qfs_result exfat_volume_set_dirty(exfat_volume *volume);
[[nodiscard]] qfs_result exfat_volume_clear_dirty(exfat_volume *volume);

// What the volume reports once open.
struct exfat_volume_info {
    uint8_t revision_major;
    uint8_t revision_minor;
    uint32_t serial_number;
    uint8_t number_of_fats;
    uint8_t active_fat;
    bool dirty;
    uint32_t bytes_per_sector;
    uint32_t cluster_size;
    uint32_t fat_offset;
    uint32_t fat_length;
    uint32_t cluster_heap_offset;
    uint32_t cluster_count;
    uint32_t root_first_cluster;
    uint64_t volume_length;
    uint64_t free_clusters;
    bool upcase_from_volume; // false when the built-in copy serves the standard checksum
};
[[nodiscard]] qfs_result exfat_volume_get_info(const exfat_volume *volume, exfat_volume_info *out_info);
// The label as UTF-8; empty when the volume has none. Owned by the volume.
const char *exfat_volume_get_label(const exfat_volume *volume);

struct qfs_upcase_table;
using exfat_upcase_table = qfs_upcase_table;
// The volume's up-case table: the built-in copy when the up-case record
// carries the standard table's checksum, otherwise the table read from the
// volume, checked against the record's checksum and decompressed. Free it
// with exfat_upcase_destroy_table.
[[nodiscard]] qfs_result exfat_volume_read_upcase_table(exfat_volume *volume, exfat_upcase_table **out_table);

// Replaces the label (UTF-8, at most 11 UTF-16 units of allowed characters)
// in the label record, or in the root directory's first free entry.
[[nodiscard]] qfs_result exfat_volume_set_name(exfat_volume *volume, const char *label);
// Writes the serial number into the main and backup boot sectors and
// recomputes both boot-region checksums.
[[nodiscard]] qfs_result exfat_volume_set_serial_number(exfat_volume *volume, uint32_t serial_number);
// The 16 bytes of the volume GUID record; 2 (no such entry) when the volume has none.
[[nodiscard]] qfs_result exfat_volume_get_guid(const exfat_volume *volume, uint8_t *out_guid);
// Writes the volume GUID record (type 0xA0, no secondary entries, its set
// checksum at bytes 2-3, flags 0, the GUID at bytes 6-21).
[[nodiscard]] qfs_result exfat_volume_set_guid(exfat_volume *volume, const uint8_t *guid);
