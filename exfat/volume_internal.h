// The exFAT volume object and the steps of opening and closing it, shared by
// the files that implement them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "device/qfs_device.h"
#include "exfat/exfat_ondisk.h"
#include "exfat/fat_table.h"
#include "exfat/root_directory.h"
#include "exfat/upcase.h"
#include "exfat/volume.h"
#include "exfat/volume_geometry.h"
#include "support/qfs_memory.h"
#include "support/qfs_util_hashtable.h"

// An open file-system object. The reference caches own these: the cache of
// open references maps the inode number (8 bytes) to the inode's address.
struct exfat_inode {
    uint64_t number; // the first cluster
    uint32_t first_cluster;
    uint32_t cluster_count;
    uint64_t size;
    exfat_inode *main_ref; // the reference every other one leads back to
};

// Keys and values of both reference caches: the inode number and the inode's address.
inline constexpr size_t exfat_iref_key_size = sizeof(uint64_t);
inline constexpr size_t exfat_iref_value_size = sizeof(exfat_inode *);

struct exfat_volume {
    qfs_device *device = nullptr;
    uint32_t flags = 0;
    bool read_only = false;
    bool opened_device = false; // close the device at close
    bool in_use = false;        // between a successful open and close

    // Cached boot sector values.
    uint8_t revision_major = 0;
    uint8_t revision_minor = 0;
    uint16_t serial_high = 0;
    uint16_t serial_low = 0;
    uint32_t root_first_cluster = 0;
    exfat_geometry geometry{};
    // 0 or 1 as on disk; anything else is a bug.
    uint8_t dirty = 0;
    // The dirty flag is ours to clear at close only when the volume was clean
    // at open: an earlier unclean use stays on record until a check clears it.
    bool clean_at_open = false;
    // Sector 0 was rewritten (dirty flag, PercentInUse) and not yet synced.
    bool boot_sector_unsynced = false;

    // Sector 0 as this volume means it to be, and as the device holds it now.
    qfs_buffer boot_sector;
    qfs_buffer boot_sector_on_disk;

    qfs_owned<exfat_fat, exfat_fat_destroy> fat;
    exfat_root_metadata root_metadata{};
    exfat_inode *root = nullptr; // owned by iref_cache
    // The active FAT's bitmap.
    uint32_t bitmap_first_cluster = 0;
    uint64_t bitmap_length = 0;
    uint64_t free_clusters = 0;

    qfs_unique<char[]> label; // UTF-8
    qfs_owned<exfat_upcase_table, exfat_upcase_destroy_table> upcase;
    bool upcase_from_volume = false;

    // The boot regions as read from the device; null when a read-only open could not read one.
    qfs_buffer main_boot_region;
    qfs_buffer backup_boot_region;

    qfs_owned<qfs_util_hashtable, qfs_util_hashtable_destroy> iref_cache;
    qfs_owned<qfs_util_hashtable, qfs_util_hashtable_destroy> removed_iref_cache;

    uint64_t inconsistencies = 0;
};

// The rest of an open once the first 512 bytes of sector 0 are read:
// everything from the boot sector checks to the kept boot regions.
[[nodiscard]] qfs_result exfat_volume_initialize_cached_values(exfat_volume *volume, const uint8_t *first_bytes);


// Writes the cached boot sector to sector 0 and makes it durable.
[[nodiscard]] qfs_result exfat_volume_write_boot_sector(exfat_volume *volume);
// Before any other metadata change: a dirty flag still in the cache must reach the medium first.
[[nodiscard]] qfs_result exfat_volume_begin_change(exfat_volume *volume);
// Writes the cached boot sector only when it differs from what the device holds.
[[nodiscard]] qfs_result exfat_volume_write_boot_sector_fields(exfat_volume *volume);
// PercentInUse from the allocation count, 0 to 100.
[[nodiscard]] qfs_result exfat_volume_compute_percent_in_use(const exfat_volume *volume, uint8_t *out_percent);

// Reads the label from its root directory record into a new UTF-8 string.
[[nodiscard]] qfs_result exfat_volume_read_label(exfat_volume *volume, char **out_label);

// Writes a volume record over `record` when the volume has one, otherwise
// into the root directory's first free entry, and reads the records again.
[[nodiscard]] qfs_result exfat_volume_store_root_record(exfat_volume *volume, const exfat_root_record &record,
                                                        const uint8_t *entry);
