// The root directory's records that describe the volume itself: the
// allocation bitmaps, the up-case table, the label and the volume GUID.
#pragma once

#include <cstdint>

#include "device/qfs_device.h"
#include "exfat/exfat_ondisk.h"
#include "exfat/fat_table.h"
#include "exfat/volume_geometry.h"
#include "support/qfs_error.h"

struct exfat_root_record {
    bool present;
    uint64_t position; // byte position of the entry on the volume
    uint8_t entry[exfat_ondisk::dentry_size];
};

struct exfat_root_metadata {
    exfat_root_record bitmap[2]; // by the FAT each belongs to (flags bit 0)
    exfat_root_record upcase;
    exfat_root_record label;
    exfat_root_record guid;
    // The first entry not in use, where a new record can go.
    bool has_free_slot;
    uint64_t free_slot_position;
};

// Reads the records from the `cluster_count` clusters of the root directory's
// chain, up to the end-of-directory entry. A second record of a kind (or of
// one FAT's bitmap) fails with QFS_ERR_SYS_IO.
[[nodiscard]] qfs_result exfat_root_directory_read_records(qfs_device *device, const exfat_geometry &geometry,
                                                           exfat_fat *fat, uint32_t first_cluster,
                                                           uint32_t cluster_count, exfat_root_metadata *out_metadata);
