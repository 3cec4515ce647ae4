// The exFAT and FAT runs: each converts the label, opens the device afresh,
// formats it and verifies the new volume with its own reader.
#pragma once

#include <cstdint>

#include "layout/format_monitor.h"
#include "support/qfs_error.h"

// Creation flags of the device that a run formats: with --dry-run the
// in-memory layer sits on top, and the card below is only read.
uint64_t format_run_device_flags();

[[nodiscard]] qfs_result format_tarn_exfat(const char *device_path, uint32_t verbose, uint32_t force, uint32_t zero,
                                           uint32_t discard_mode, uint32_t label_given, const char *label,
                                           uint32_t tca_relax, format_monitor *monitor);

[[nodiscard]] qfs_result format_tarn_fat(const char *device_path, uint64_t code_page, uint32_t verbose, uint32_t force,
                                         uint32_t zero, uint32_t discard_mode, uint32_t label_given, const char *label,
                                         uint32_t tca_relax, uint32_t tca_align_to_cylinder,
                                         const char **out_fat_variant, format_monitor *monitor);
