// The steps of a FAT layout plan, shared by the files that implement them:
// the caller's options as they stand after the card record filled the gaps,
// and one function per decision.
#pragma once

#include <cstdint>
#include <optional>

#include "fat/format_layout.h"

// The options in force: the caller's, completed from the card record.
struct fat_wishes {
    std::optional<uint8_t> fat_type;
    std::optional<uint16_t> root_directory_entries;
    std::optional<uint16_t> heads;
    std::optional<uint16_t> sectors_per_track;
    std::optional<uint16_t> sector_size;
    std::optional<uint64_t> sector_count;
    std::optional<uint32_t> cluster_size;
    std::optional<uint32_t> sectors_per_cluster;
    std::optional<uint64_t> partition_start_sector;
    std::optional<uint32_t> alignment;
};

fat_wishes fat_plan_wishes_of(const fat_format_request &request);

// How a value from the caller that differs from the device's is settled, as the warnings say it.
const char *fat_plan_override_choice(bool force);

// Every option the caller gave must be the card's; the rest take the card's values.
[[nodiscard]] qfs_result fat_plan_apply_card_record(const fat_tca_record &card, const format_monitor *monitor,
                                                    fat_wishes *inout_wishes);
// A cluster size given in bytes must be a power of two from 512 bytes to 32 MiB.
[[nodiscard]] qfs_result fat_plan_check_cluster_size(const fat_wishes &wishes, const format_monitor *monitor);
// Heads and sectors per track for the boot sector.
[[nodiscard]] qfs_result fat_plan_settle_geometry(const fat_wishes &wishes, const fat_device_facts &facts, bool force,
                                                  const format_monitor *monitor, fat_layout *inout_layout);
// Sector size, device and volume sector counts; a whole-card run's volume is the card's partition.
[[nodiscard]] qfs_result fat_plan_settle_sector_size(const fat_wishes &wishes, const fat_device_facts &facts,
                                                     const fat_tca_record *whole_card, bool force,
                                                     const format_monitor *monitor, fat_layout *inout_layout);
