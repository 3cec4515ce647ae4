// The geometry of a new FAT12, FAT16 or FAT32 volume, settled before
// anything is written: sector size and count, FAT type, cluster size,
// reserved sectors, FAT size, root directory and the alignment of the data
// area. Everything here is a decision on given inputs; only
// fat_format_query_device and fat_format_decide_layout ask the device.
#pragma once

#include <cstddef>
#include <cstdint>

#include "device/qfs_device.h"
#include "layout/format_monitor.h"
#include "layout/tca_params.h"
#include "support/qfs_error.h"

// What the caller of the format asks for; a null pointer means "not
// specified" and leaves the value to the card record or the defaults.
struct fat_format_request {
    bool force;
    const uint8_t *fat_type;
    const uint16_t *root_directory_entries;
    const uint16_t *heads;
    const uint16_t *sectors_per_track;
    const uint16_t *sector_size;
    const uint64_t *sector_count;
    const uint32_t *cluster_size;
    const uint32_t *sectors_per_cluster;
    const uint64_t *partition_start_sector;
    const uint32_t *alignment;
    uint32_t codepage;
    const uint8_t *volume_name; // bytes in the code page
    uint8_t volume_name_length;
    bool tca_strict;
    bool tca_whole;
    bool tca_relax;
    bool tca_partitioning_only;
    bool tca_align_to_cylinder;
};

// What the device answered. The sector size and count are required; the
// other three keep the query's result code, and the layout decides what
// stands in when the device could not tell.
struct fat_device_facts {
    uint32_t sector_size;
    uint64_t sector_count; // in sectors of sector_size
    qfs_result partition_start_result;
    uint64_t partition_start_sector;
    qfs_result heads_result;
    uint32_t heads;
    qfs_result sectors_per_track_result;
    uint32_t sectors_per_track;
};

// The card's row and what the card lookup derived from it (512-byte sectors).
struct fat_tca_record {
    tca_param row;
    uint8_t fat_type;
    uint64_t partition_start_sector;
    uint64_t partition_sector_count;
};

struct fat_layout {
    uint32_t sector_size;
    uint64_t device_sector_count; // the whole device, in sectors of sector_size
    uint64_t sector_count;        // the volume
    uint64_t partition_start;     // sectors in front of the volume: the boot sector's hidden sectors
    uint32_t alignment;           // bytes
    uint32_t boundary_unit;       // sectors; 0 without a card record
    bool card_record;             // the card association's recommendation was followed:
    fat_tca_record card;          // the card's row and partition, for the partition table
    uint8_t fat_type;             // 12, 16 or 32
    uint8_t number_of_fats;
    uint32_t sectors_per_cluster;
    uint32_t cluster_size;
    uint32_t reserved_sectors;
    // Grown to fill the alignment gap, it can exceed what the boot sector's 16 bits hold.
    uint32_t root_directory_entries;
    uint32_t root_directory_sectors;
    uint32_t fat_sectors; // one FAT copy
    uint32_t cluster_count;
    uint16_t backup_boot_sector; // FAT32 only; 0 for none
    uint16_t heads;
    uint16_t sectors_per_track;
};

// The device's sector size (or, when it cannot tell, the override, or 512
// when `relaxed`) and its size in sectors of that size.
[[nodiscard]] qfs_result fat_format_query_device_characteristics(qfs_device *device, bool relaxed,
                                                                 const uint16_t *in_sector_size,
                                                                 uint32_t *out_sector_size, uint64_t *out_sector_count,
                                                                 const format_monitor *monitor);

// Everything the layout needs to know from the device.
[[nodiscard]] qfs_result fat_format_query_device(qfs_device *device, const fat_format_request &request,
                                                 const format_monitor *monitor, fat_device_facts *out_facts);

// The default cluster size for a size in `sector_count` sectors of
// `sector_size`; sets *out_fat_type only when the size decides it.
[[nodiscard]] qfs_result fat_format_get_default_sectors_per_cluster(bool fat_type_fixed, uint32_t sector_size,
                                                                    uint64_t sector_count, uint8_t *out_fat_type,
                                                                    uint32_t *out_sectors_per_cluster);

// FAT size and cluster count of one candidate: `available_sectors` hold the
// FATs and the data area. With a boundary unit the sectors lost to placing
// the data area on a boundary (behind at least 9 reserved sectors) are
// taken off first. The FAT size is rounded up to the alignment.
void fat_format_calculate_fat_size(uint32_t alignment, uint64_t partition_start, uint32_t boundary_unit,
                                   uint64_t available_sectors, uint32_t sector_size, uint32_t sectors_per_cluster,
                                   uint8_t number_of_fats, uint8_t fat_bits, uint64_t *out_cluster_count,
                                   uint64_t *out_fat_sectors, uint64_t *out_max_clusters);

// Chooses FAT type and cluster size: the preset check, the search over
// cluster sizes, or the search for the type the user fixed, then the final
// classification. *out_in_range is 0 when the count lies outside the legal
// range of the type (or no cluster size fitted, with a count of 0).
[[nodiscard]] qfs_result fat_format_dynamically_determine_sectors_per_cluster(
    uint32_t alignment, uint64_t hidden_sectors, uint32_t boundary_unit_sectors, bool fat_type_by_user,
    uint64_t device_sector_count, uint32_t sector_size, uint64_t reserved_sectors, bool root_dir_entries_by_user,
    uint32_t root_directory_entries, bool sec_per_clus_by_user, uint32_t sectors_per_cluster, uint8_t nr_fats,
    uint8_t fat_type, uint32_t *out_in_range, uint32_t *out_sectors_per_cluster, uint64_t *out_cluster_count,
    uint32_t *out_root_directory_sectors, uint8_t *out_fat_type, uint64_t *out_reserved_sectors,
    uint64_t *out_fat_sectors, const format_monitor *message_handler);

// The label and option conflicts, before the device is asked anything.
[[nodiscard]] qfs_result fat_format_check_request(const fat_format_request &request, const format_monitor *monitor);

// Card record checks, cluster size, geometry, sector size and count, then
// FAT type, cluster size, partition start, alignment, reserved sectors,
// root directory, FAT size, the cluster limits and the minimum size.
// `card` is null when the run does not follow the card association.
[[nodiscard]] qfs_result fat_format_plan_layout(const fat_format_request &request, const fat_device_facts &facts,
                                                const fat_tca_record *card, const format_monitor *monitor,
                                                fat_layout *out_layout);

// The whole decision for a device: the request checks, the device queries,
// the card lookup (with tca_strict or tca_whole) and the plan.
[[nodiscard]] qfs_result fat_format_decide_layout(qfs_device *device, const fat_format_request &request,
                                                  const format_monitor *monitor, fat_layout *out_layout);
