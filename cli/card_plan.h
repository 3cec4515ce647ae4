// What a format makes of a card of a given size: its class name, and the file
// system and cluster size that the card rules give it. The main flow and
// --list both decide here, so the list never promises another layout than
// the format writes.
#pragma once

#include <cstdint>

#include "support/qfs_error.h"

// Cards up to this many 512-byte sectors get FAT; larger ones exFAT.
inline constexpr uint64_t FORMAT_EXFAT_THRESHOLD_SECTORS = 66945024;

// "Tarn", "TNB", "TNC" or "TNE" for a card of `sectors` 512-byte sectors.
const char *format_card_class_name(uint64_t sectors);

struct format_card_plan {
    const char *class_name;  // as format_card_class_name
    const char *file_system; // "exFAT", "FAT12", "FAT16" or "FAT32"
    uint32_t cluster_bytes;
};

// The plan for a whole card of `sectors` 512-byte sectors, as a run without
// --tca-relax makes it. QFS_ERR_SYS_INVALID_ARGUMENT when the card rules have
// no layout for that size: it lies in a gap below the smallest card of its class.
[[nodiscard]] qfs_result format_card_plan_make(uint64_t sectors, format_card_plan *out_plan);
