// The exFAT engine's write plan: its five phases, handed to the card writer.
#include "exfat/format.h"
#include "layout/card_writer.h"
#include "layout/partition_table.h"
#include "support/qfs_logging.h"

namespace {

qfs_result build_plan(const exfat_layout &layout, const exfat_format_images &images, bool boot_region_unpadded,
                      format_write_plan *plan) {
    const uint64_t ss = layout.sector_size;
    const uint64_t k = layout.cluster_size;
    const uint64_t heap = static_cast<uint64_t>(layout.cluster_heap_offset) * ss;
    const uint64_t fat_initialize_size = (static_cast<uint64_t>(layout.cluster_count) + 2) * 32 / 8;
    const uint64_t fat_region_bytes = static_cast<uint64_t>(layout.fat_length) * ss;
    if (fat_initialize_size > fat_region_bytes) {
        QFS_LOG_CRITICAL("fat_initialize_size (%llu) > (fat_sector_count (%lu) * sector_size (%lu)) (%llu)",
                         static_cast<unsigned long long>(fat_initialize_size),
                         static_cast<unsigned long>(layout.fat_length), static_cast<unsigned long>(ss),
                         static_cast<unsigned long long>(fat_region_bytes));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    const uint64_t bitmap_bytes = layout.bitmap_clusters * k;
    const uint64_t upcase_bytes = layout.upcase_clusters * k;
    const uint64_t boot_bytes = images.boot_region ? layout.boot_region_size : 0;
    struct phase {
        const char *status;
        const char *failure;
        bool sync_before;
        format_write_extent extent;
    };
    const phase phases[] = {
        {"Writing allocation bitmap...", "Failed to write out allocation bitmap", false,
         {heap, images.partial_bitmap.get(), layout.partial_bitmap_size, 0, bitmap_bytes}},
        {"Writing upcase table...", "Failed to write out upcase table", false,
         {heap + bitmap_bytes, images.upcase, images.upcase_size, 0, upcase_bytes}},
        {"Writing root directory...", "Failed to write out root directory", false,
         {heap + bitmap_bytes + upcase_bytes, images.root_dir.get(), layout.root_dir_size, 0, k}},
        {"Writing file allocation table...", "Error while writing out the FAT", false,
         {static_cast<uint64_t>(layout.fat_offset) * ss, images.partial_fat.get(), layout.partial_fat_size, 0,
          std::max<uint64_t>(ss, fat_initialize_size)}},
        // The device is synced before the boot region, so a volume never looks valid before its FAT is down.
        {"Writing boot region...", "Error while writing out the boot region", true,
         {0, images.boot_region.get(), layout.boot_region_size, 0,
          boot_region_unpadded ? boot_bytes : static_cast<uint64_t>(layout.fat_offset) * ss}},
    };
    for (const phase &p : phases) {
        const qfs_result r = format_write_plan_add(plan, p.status, p.failure, p.sync_before, {&p.extent, 1});
        if (r != QFS_OK) return r;
    }
    return QFS_OK;
}

} // namespace

qfs_result exfat_format_write_structures(qfs_device *dev, const exfat_layout &layout, const exfat_format_images &images,
                                         const exfat_write_options &options, const format_monitor *monitor) {
    format_write_plan plan{};
    const qfs_result r = build_plan(layout, images, options.boot_region_unpadded, &plan);
    if (r != QFS_OK) {
        return r;
    }
    const card_write_request request{layout.sector_size,
                                     layout.device_sector_count,
                                     options.tca_whole ? exfat_format_create_tca_partitioning : nullptr,
                                     options.tca,
                                     options.tca_partition_start_sector,
                                     options.tca_partition_sector_count,
                                     &plan,
                                     options.choices};
    return card_writer_run(dev, request, monitor);
}
