// The FAT engine's write plan: its seven phases, handed to the card writer.
#include <algorithm>

#include "fat/format.h"
#include "layout/card_writer.h"
#include "layout/partition_table.h"
#include "support/qfs_logging.h"

namespace {

// Where the boot region and its backup lie in the reserved region, in bytes.
struct reserved_region {
    uint64_t size;
    uint64_t boot_region;
    uint64_t backup; // 0 without a backup boot region
};

// The boot region and its backup must fit the reserved region apart from each other.
qfs_result check_reserved_region(const reserved_region &r, uint32_t backup_sector, uint32_t sector_size) {
    if (r.size < r.boot_region) {
        QFS_LOG_CRITICAL("Internal error: Reserved region (%zu bytes) is not large enough to fit the boot region "
                         "(%zu bytes).",
                         static_cast<size_t>(r.size), static_cast<size_t>(r.boot_region));
        return QFS_ERR_SYS_INTERNAL;
    }
    if (backup_sector == 0) return QFS_OK;
    if (r.backup < r.boot_region) {
        QFS_LOG_CRITICAL("Internal error: Backup boot region at sector %lu overlaps the primary boot region (%zu "
                         "bytes / %zu sectors).",
                         static_cast<unsigned long>(backup_sector), static_cast<size_t>(r.boot_region),
                         static_cast<size_t>(r.boot_region / sector_size));
        return QFS_ERR_SYS_INTERNAL;
    }
    if (r.backup + r.boot_region > r.size) {
        QFS_LOG_CRITICAL("Internal error: Reserved region (%zu bytes) is not large enough to fit the backup boot "
                         "region (sector %lu, %zu bytes).",
                         static_cast<size_t>(r.size), static_cast<unsigned long>(backup_sector),
                         static_cast<size_t>(r.boot_region));
        return QFS_ERR_SYS_INTERNAL;
    }
    return QFS_OK;
}

qfs_result build_plan(const fat_layout &layout, const fat_format_images &images, bool short_fat,
                      format_write_plan *plan) {
    const uint64_t ss = layout.sector_size;
    const bool fat32 = layout.fat_type == 32;
    const uint32_t backup_sector = fat32 ? layout.backup_boot_sector : 0;
    const reserved_region reserved{layout.reserved_sectors * ss, images.boot_region_size, backup_sector * ss};
    qfs_result r = check_reserved_region(reserved, backup_sector, layout.sector_size);
    if (r != QFS_OK) return r;
    const uint8_t *boot = images.boot_region.get();
    const uint64_t fat_bytes = layout.fat_sectors * ss;
    // Entries 0 and 1 and one per cluster, rounded up to whole bytes (FAT12 packs two entries in three).
    const uint64_t used_fat_bytes = ((layout.cluster_count + 2ull) * layout.fat_type + 7) / 8;
    const uint64_t fat_written = short_fat ? std::max(ss, used_fat_bytes) : fat_bytes;
    const uint64_t reserved_from = backup_sector != 0 ? reserved.backup + reserved.boot_region : reserved.boot_region;
    // FSInfo and the third boot sector, then zeros up to the backup boot region.
    const uint64_t fsinfo_end = backup_sector != 0 ? reserved.backup : reserved.boot_region;

    const uint64_t root_at = (layout.reserved_sectors + uint64_t{layout.number_of_fats} * layout.fat_sectors) * ss;
    const format_write_extent root[] = {
        {root_at, images.root_directory.get(), images.root_directory_size, 0, images.root_directory_size}};
    if (layout.number_of_fats > format_max_extents) {
        QFS_LOG_CRITICAL("Internal error: Claimed more extents than available (%zu > %zu).",
                         static_cast<size_t>(layout.number_of_fats), format_max_extents);
        return QFS_ERR_SYS_INTERNAL;
    }
    format_write_extent fats[format_max_extents];
    const size_t fat_copies = layout.number_of_fats;
    for (size_t copy = 0; copy < fat_copies; ++copy) {
        fats[copy] = {(layout.reserved_sectors + copy * layout.fat_sectors) * ss, images.fat_sector.get(),
                      images.fat_sector_size, 0, fat_written};
    }
    const format_write_extent reserved_zeros[] = {{reserved_from, nullptr, 0, 0, reserved.size - reserved_from}};
    const format_write_extent backup[] = {{reserved.backup, boot, images.boot_region_size, 0, reserved.boot_region}};
    const format_write_extent fsinfo[] = {{ss, boot + ss, images.boot_region_size - ss, 0, fsinfo_end - ss}};
    const format_write_extent boot_sector[] = {{0, boot, ss, 0, ss}};
    struct phase {
        const char *status;
        const char *failure;
        bool sync_before;
        std::span<const format_write_extent> extents;
    };
    const phase phases[] = {
        {"Writing root directory...", "Failed to write out root directory", false, root},
        {"Writing file allocation table...", "Error while writing out the FAT", false, {fats, fat_copies}},
        {"Writing reserved region...", "Error while writing reserved region", false,
         short_fat ? std::span<const format_write_extent>{} : reserved_zeros},
        {"Writing backup boot region...", "Error while writing out the backup boot region", false,
         backup_sector != 0 ? backup : std::span<const format_write_extent>{}},
        {nullptr, nullptr, false, {}}, // a phase of the sequence that FAT leaves unused
        {"Writing FSInfo sector...", "Error while writing out the FSInfo sector", false,
         fat32 ? fsinfo : std::span<const format_write_extent>{}},
        // The device is synced before the boot sector, so a volume never looks valid before the rest is down.
        {"Writing boot region...", "Error while writing out the boot region", true, boot_sector},
    };
    for (const phase &p : phases) {
        r = format_write_plan_add(plan, p.status, p.failure, p.sync_before, p.extents);
        if (r != QFS_OK) return r;
    }
    return QFS_OK;
}

// A whole-card run writes the card's partition table in front of the volume.
card_write_request card_request(const fat_layout &layout, const fat_write_options &options,
                                const format_write_plan &plan) {
    const bool whole = options.tca_whole && layout.card_record;
    const fat_tca_record &card = layout.card;
    return {layout.sector_size,
            layout.device_sector_count,
            whole ? fat_format_create_tca_partitioning : nullptr,
            layout.card_record ? &card.row : nullptr,
            whole ? card.partition_start_sector : 0,
            whole ? card.partition_sector_count : 0,
            &plan,
            options.choices};
}

} // namespace

qfs_result fat_format_write_structures(qfs_device *dev, const fat_layout &layout, const fat_format_images &images,
                                       const fat_write_options &options, const format_monitor *monitor) {
    format_write_plan plan{};
    const qfs_result r = build_plan(layout, images, options.short_fat, &plan);
    return r == QFS_OK ? card_writer_run(dev, card_request(layout, options, plan), monitor) : r;
}
