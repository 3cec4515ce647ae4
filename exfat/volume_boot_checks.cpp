#include "exfat/volume_boot_checks.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "exfat/exfat_ondisk.h"
#include "support/qfs_endian.h"
#include "support/qfs_logging.h"

namespace ed = exfat_ondisk;

namespace {

// Problem numbers, in the order the checks run.
enum : int {
    problem_signature = 0,
    problem_legacy_bpb = 17,
    problem_magic = 1,
    problem_version = 2,
    problem_minor_version = 3,
    problem_sector_shift = 4,
    problem_cluster_shift = 5,
    problem_number_of_fats = 6,
    problem_percent_in_use = 7,
    problem_second_fat_active = 8,
    problem_volume_length = 9,
    problem_fat_length = 10,
    problem_fat_beyond_volume = 11,
    problem_fat_overlaps_heap = 12,
    problem_cluster_count = 13,
    problem_heap_beyond_volume = 14,
    problem_root_cluster = 15,
    problem_fat_too_small = 16,
};
constexpr int last_known_problem = problem_legacy_bpb;

constexpr uint16_t boot_signature_value = 0xAA55;
constexpr uint8_t percent_not_available = 0xFF;
constexpr uint8_t min_sector_shift = 9;
constexpr uint8_t max_sector_shift = 12;
// A cluster is at most 32 MiB (2^25 bytes).
constexpr uint8_t max_cluster_bytes_shift = 25;
constexpr uint64_t fat_entry_bytes = 4;

// Hands each problem found to the handler; after the handler rejects one,
// the remaining checks report nothing and the rejection is the result.
class boot_checker {
public:
    boot_checker(exfat_boot_problem_handler handler, void *context) : handler_(handler), context_(context) {}

    void check(bool bad, int problem, const char *format, ...) QFS_PRINTF(4, 5) {
        if (!bad || result_ != QFS_OK) return;
        char message[512];
        va_list args;
        va_start(args, format);
        vsnprintf(message, sizeof(message), format, args);
        va_end(args);
        result_ = handler_(context_, problem, message);
    }
    qfs_result result() const { return result_; }

private:
    exfat_boot_problem_handler handler_;
    void *context_;
    qfs_result result_ = QFS_OK;
};

// `value` sectors shifted left, saturating instead of overflowing: a
// handler may have accepted a shift that no real volume has.
uint64_t shifted(uint64_t value, unsigned shift) {
    if (value == 0) return 0;
    if (shift >= 64 || value > (UINT64_MAX >> shift)) return UINT64_MAX;
    return value << shift;
}

// The signature, the cleared legacy parameter block, the name and the revision.
void check_identity(boot_checker &c, const uint8_t *b) {
    const uint16_t signature = get_le16(b, ed::boot::boot_signature);
    c.check(signature != boot_signature_value, problem_signature, "Invalid end of sector signature: 0x%04hX",
            signature);
    bool legacy_bpb_clear = true;
    for (size_t i = 0; i < ed::boot::must_be_zero_length; ++i) {
        legacy_bpb_clear = legacy_bpb_clear && b[ed::boot::must_be_zero + i] == 0;
    }
    c.check(!legacy_bpb_clear, problem_legacy_bpb, "Encountered non-zero data in legacy BIOS parameter block.");
    c.check(memcmp(b + ed::boot::file_system_name, "EXFAT   ", 8) != 0, problem_magic,
            "Invalid exFAT magic: 0x%016llX (\"%.*s\")",
            static_cast<unsigned long long>(get_le64(b, ed::boot::file_system_name)), 8,
            reinterpret_cast<const char *>(b + ed::boot::file_system_name));
    const uint8_t minor = b[ed::boot::file_system_revision];
    const uint8_t major = b[ed::boot::file_system_revision + 1];
    c.check(major >= 2, problem_version, "Unsupported exFAT version: %hhu.%hhu", major, minor);
    c.check(major == 1 && minor != 0, problem_minor_version, "Unknown minor exFAT version: %hhu.%hhu", major, minor);
}

// Sector and cluster sizes, the FATs and the volume flags.
void check_units(boot_checker &c, const uint8_t *b) {
    const uint8_t sector_shift = b[ed::boot::bytes_per_sector_shift];
    c.check(sector_shift < min_sector_shift || sector_shift > max_sector_shift, problem_sector_shift,
            "bytes_per_sector_shift out of range: %hhu", sector_shift);
    const uint8_t cluster_shift = b[ed::boot::sectors_per_cluster_shift];
    c.check(cluster_shift > max_cluster_bytes_shift - sector_shift, problem_cluster_shift,
            "sectors_per_cluster_shift out of range: %hhu (bytes_per_sector_shift=%hhu)", cluster_shift, sector_shift);
    const uint8_t fats = b[ed::boot::number_of_fats];
    c.check(fats == 0 || fats > 2, problem_number_of_fats, "Invalid number of FATs: %hhu", fats);
    const uint8_t percent = b[ed::boot::percent_in_use];
    c.check(percent > 100 && percent != percent_not_available, problem_percent_in_use,
            "Inconsistency - Invalid value for percent_in_use: %hhu", percent);
    c.check((get_le16(b, ed::boot::volume_flags) & ed::flag_active_fat) != 0 && fats != 2, problem_second_fat_active,
            "Inconsistency: Number of FATs is not 2 and the secondary FAT is the active one. (number_of_fats=%hhu)",
            fats);
}

// The FAT region, the cluster heap and the root directory inside the volume.
void check_regions(boot_checker &c, const uint8_t *b) {
    const uint64_t volume_length = get_le64(b, ed::boot::volume_length);
    c.check(volume_length == 0, problem_volume_length, "Invalid total sector count: %llu",
            static_cast<unsigned long long>(volume_length));
    const uint32_t fat_length = get_le32(b, ed::boot::fat_length);
    c.check(fat_length == 0, problem_fat_length, "Invalid number of sectors in FAT: %lu",
            static_cast<unsigned long>(fat_length));
    const uint64_t fat_end =
        get_le32(b, ed::boot::fat_offset) + static_cast<uint64_t>(fat_length) * b[ed::boot::number_of_fats];
    c.check(fat_end > volume_length, problem_fat_beyond_volume,
            "Inconsistency: FAT region extends beyond the length of the volume (FAT end: %llu sectors, volume end: "
            "%llu sectors).",
            static_cast<unsigned long long>(fat_end), static_cast<unsigned long long>(volume_length));
    const uint32_t heap_offset = get_le32(b, ed::boot::cluster_heap_offset);
    c.check(fat_end > heap_offset, problem_fat_overlaps_heap,
            "Inconsistency: FAT region overlaps cluster heap region by %lu sectors!",
            static_cast<unsigned long>(fat_end - heap_offset));
    const uint32_t cluster_count = get_le32(b, ed::boot::cluster_count);
    c.check(cluster_count == 0 || cluster_count > ed::max_cluster_count, problem_cluster_count,
            "Inconsistency: The number of clusters (%llu) is invalid for an exFAT volume.",
            static_cast<unsigned long long>(cluster_count));
    const uint64_t fat_bytes = shifted(fat_length, b[ed::boot::bytes_per_sector_shift]);
    c.check(fat_bytes < (static_cast<uint64_t>(cluster_count) + ed::first_data_cluster) * fat_entry_bytes,
            problem_fat_too_small, "Inconsistency: FAT region too small to map all clusters!");
    const uint64_t heap_sectors = shifted(cluster_count, b[ed::boot::sectors_per_cluster_shift]);
    const uint64_t heap_end = heap_sectors > UINT64_MAX - heap_offset ? UINT64_MAX : heap_offset + heap_sectors;
    c.check(heap_end > volume_length, problem_heap_beyond_volume,
            "Inconsistency: Cluster heap extends beyond the length of the volume (cluster heap end: %llu sectors, "
            "volume end: %llu sectors).",
            static_cast<unsigned long long>(heap_end), static_cast<unsigned long long>(volume_length));
    const uint32_t root = get_le32(b, ed::boot::first_cluster_of_root);
    c.check(root < ed::first_data_cluster || root >= static_cast<uint64_t>(cluster_count) + ed::first_data_cluster,
            problem_root_cluster,
            "Inconsistency: First cluster of root directory is outside cluster heap bounds.(first_cluster_of_root=%llu)",
            static_cast<unsigned long long>(root));
}

} // namespace

qfs_result exfat_check_default_problem_handler(void *, int problem, const char *message) {
    if (problem < 0 || problem > last_known_problem) {
        QFS_LOG_ERROR("Unrecognized error code: %d", problem);
        return QFS_ERR_SYS_IO;
    }
    if (problem == problem_minor_version || problem == problem_percent_in_use) {
        QFS_LOG_WARNING("%s", message);
        return QFS_OK;
    }
    QFS_LOG_ERROR("%s", message);
    return QFS_ERR_SYS_INVALID_ARGUMENT;
}

qfs_result exfat_check_validate_boot_sector(const uint8_t *b, exfat_boot_problem_handler handler, void *context) {
    boot_checker c(handler != nullptr ? handler : exfat_check_default_problem_handler, context);
    check_identity(c, b);
    check_units(c, b);
    check_regions(c, b);
    return c.result();
}
