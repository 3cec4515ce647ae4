// The partition table of a whole card: one partition on the boundary unit,
// in an MBR with CHS addresses, or in a GPT for cards of more than
// 4294967295 sectors. The zeroed region between the table and the
// partition is written with it. All sector numbers here are 512-byte
// sectors, as the card rules count them; the table itself counts in the
// device's own logical sectors, which may be larger.
#pragma once

#include <cstdint>

#include "device/qfs_device.h"
#include "layout/format_monitor.h"
#include "layout/format_progress.h"
#include "layout/tca_params.h"

inline constexpr uint8_t mbr_type_exfat = 0x07;
inline constexpr uint8_t mbr_type_gpt_protective = 0xEE;

enum class partition_table_kind { mbr, gpt };

// Three CHS bytes for `sector`; FE FF FF once the cylinder passes 1023.
void mbr_chs_address(uint64_t sector, uint8_t heads, uint8_t sectors_per_track, uint8_t out[3]);

// Builds the 512-byte MBR with one partition of the given type.
void mbr_build(uint8_t sector[512], const tca_param &param, uint32_t partition_start, uint32_t partition_count,
               uint8_t partition_type, uint32_t disk_signature);

// The MBR partition type of a FAT card, chosen by the partition's size.
uint8_t fat_partition_type(uint64_t partition_start, uint64_t partition_count);

// How many 512-byte sectors make one of the device's logical sectors (1 when
// the device cannot tell, as an image cannot). A layout whose partition start,
// size or boundary unit is not a whole number of device sectors is refused.
[[nodiscard]] qfs_result partition_table_sectors_per_lba(qfs_device *dev, const tca_param &param,
                                                         uint64_t partition_start_sector,
                                                         uint64_t partition_sector_count, const format_monitor *monitor,
                                                         uint32_t *out_sectors_per_lba);

// Writes a table of `kind` with one partition: of `mbr_type` in an MBR (start
// and count are cut to 32 bits there), a basic-data partition in a GPT. A
// failure is logged with the table's name. The caller has announced the step
// and checked that the row has a boundary unit.
[[nodiscard]] qfs_result partition_table_write(qfs_device *dev, const tca_param &param, partition_table_kind kind,
                                               uint8_t mbr_type, uint64_t partition_start_sector,
                                               uint64_t partition_sector_count, bool compare_before_write,
                                               format_progress *progress, const format_monitor *monitor);

// The engines' entries: exFAT cards take an MBR up to 4294967295 sectors and
// a GPT above; FAT cards take an MBR whose type follows the partition's size.
[[nodiscard]] qfs_result exfat_format_create_tca_partitioning(qfs_device *dev, const tca_param *param,
                                                              uint64_t partition_start_sector,
                                                              uint64_t partition_sector_count,
                                                              uint64_t device_sector_count, bool compare_before_write,
                                                              format_progress *progress, const format_monitor *monitor);
[[nodiscard]] qfs_result fat_format_create_tca_partitioning(qfs_device *dev, const tca_param *param,
                                                            uint64_t partition_start_sector,
                                                            uint64_t partition_sector_count,
                                                            uint64_t device_sector_count, bool compare_before_write,
                                                            format_progress *progress, const format_monitor *monitor);

// The GPT writer on its own; the partition start must lie on the row's boundary unit.
[[nodiscard]] qfs_result exfat_format_partition_gpt(qfs_device *dev, const tca_param *param,
                                                    uint64_t partition_start_sector, uint64_t partition_sector_count,
                                                    bool compare_before_write, format_progress *progress,
                                                    const format_monitor *monitor);

// The two table writers behind partition_table_write. Their numbers, the
// row's boundary unit included, count logical blocks of `lba_bytes`.
[[nodiscard]] qfs_result mbr_write(qfs_device *dev, const tca_param &param, uint32_t partition_start,
                                   uint32_t partition_count, uint8_t partition_type, uint32_t lba_bytes,
                                   bool compare_before_write, format_progress *progress);
[[nodiscard]] qfs_result gpt_write(qfs_device *dev, const tca_param &param, uint64_t partition_start_sector,
                                   uint64_t partition_sector_count, uint32_t lba_bytes, bool compare_before_write,
                                   format_progress *progress, const format_monitor *monitor);
