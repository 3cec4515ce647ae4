#include "cli/card_plan.h"

#include <cstdarg>

#include "layout/tca_params.h"

namespace {

struct capacity_class {
    uint64_t max_sectors;
    const char *name;
};
// Upper bounds are inclusive.
constexpr capacity_class capacity_classes[] = {
    {4153344, "Tarn"},      // 2126512128 bytes
    {66945024, "TNB"},      // 34275852288 bytes
    {4294705152, "TNC"},    // 2198889037824 bytes
    {UINT64_MAX, "TNE"},
};

// The lookups explain a refusal through the monitor; a plan only needs to know that they refused.
void ignore_message(void *, const char *, va_list) {}
const format_monitor quiet_monitor = {nullptr, nullptr, nullptr, ignore_message, nullptr, nullptr, nullptr,
                                      nullptr, nullptr, nullptr, nullptr, nullptr};

} // namespace

const char *format_card_class_name(uint64_t sectors) {
    for (const auto &c : capacity_classes) {
        if (sectors <= c.max_sectors) return c.name;
    }
    return "TNE";
}

qfs_result format_card_plan_make(uint64_t sectors, format_card_plan *out_plan) {
    if (out_plan == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    tca_param row{};
    uint64_t start = 0, count = 0;
    const char *file_system = "exFAT";
    // A whole card, laid out from scratch, strictly by the card rules: the run's own request.
    if (sectors > FORMAT_EXFAT_THRESHOLD_SECTORS) {
        const qfs_result r = exfat_format_get_tca_param(sectors, &row, &start, &count, true, false, &quiet_monitor);
        if (r != QFS_OK) return r;
    } else {
        uint8_t fat_type = 0;
        const qfs_result r =
            fat_format_get_tca_param(sectors, &row, &fat_type, &start, &count, true, false, false, &quiet_monitor);
        if (r != QFS_OK) return r;
        file_system = fat_type == 12 ? "FAT12" : fat_type == 16 ? "FAT16" : "FAT32";
    }
    *out_plan = {format_card_class_name(sectors), file_system, row.sectors_per_cluster * TCA_SECTOR_SIZE};
    return QFS_OK;
}
