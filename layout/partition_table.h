// The partition table of a whole card: one partition on the boundary unit,
// in an MBR with CHS addresses, or in a GPT for cards of more than
// 4294967295 sectors. The zeroed region between the table and the
// partition is written with it. All sector numbers are 512-byte sectors.
#pragma once

#include <cstdint>

#include "device/qfs_device.h"
#include "exfat/format_write.h"
#include "layout/format_monitor.h"
#include "layout/tca_params.h"

inline constexpr uint8_t mbr_type_exfat = 0x07;
inline constexpr uint8_t mbr_type_gpt_protective = 0xEE;

// Three CHS bytes for `sector`; FE FF FF once the cylinder passes 1023.
void mbr_chs_address(uint64_t sector, uint8_t heads, uint8_t sectors_per_track, uint8_t out[3]);

// Builds the 512-byte MBR with one partition of the given type.
void mbr_build(uint8_t sector[512], const tca_param &param, uint32_t partition_start, uint32_t partition_count,
               uint8_t partition_type, uint32_t disk_signature);

// The MBR partition type of a FAT card, chosen by the partition's size.
uint8_t fat_partition_type(uint64_t partition_start, uint64_t partition_count);

qfs_result exfat_format_create_tca_partitioning(qfs_device *dev, const tca_param *param,
                                                uint64_t partition_start_sector, uint64_t partition_sector_count,
                                                uint64_t device_sector_count, bool compare_before_write,
                                                format_progress *progress, const format_monitor *monitor);

qfs_result exfat_format_partition_gpt(qfs_device *dev, const tca_param *param, uint64_t partition_start_sector,
                                      uint64_t partition_sector_count, bool compare_before_write,
                                      format_progress *progress, const format_monitor *monitor);

qfs_result fat_format_create_tca_partitioning(qfs_device *dev, const tca_param *param,
                                              uint64_t partition_start_sector, uint64_t partition_sector_count,
                                              uint64_t device_sector_count, bool compare_before_write,
                                              format_progress *progress, const format_monitor *monitor);
