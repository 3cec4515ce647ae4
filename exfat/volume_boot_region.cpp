#include "exfat/volume_boot_region.h"

#include "exfat/exfat_ondisk.h"
#include "exfat/util.h"
#include "exfat/volume_internal.h"
#include "support/qfs_endian.h"
#include "support/qfs_logging.h"

namespace ed = exfat_ondisk;

namespace {

uint64_t region_position(uint32_t bytes_per_sector, exfat_boot_region which) {
    return which == exfat_boot_region::main ? 0 : static_cast<uint64_t>(ed::boot_region_sectors) * bytes_per_sector;
}

} // namespace

qfs_result exfat_boot_region_read(qfs_device *device, uint32_t bytes_per_sector, exfat_boot_region which,
                                  qfs_buffer &out_region) {
    const size_t size = static_cast<size_t>(ed::boot_region_sectors) * bytes_per_sector;
    qfs_buffer region;
    qfs_result r = qfs_buffer_alloc(size, region);
    if (r != QFS_OK) return r;
    r = qfs_device_read_exact(device, region_position(bytes_per_sector, which), size, region.get());
    if (r != QFS_OK) return r;
    out_region = std::move(region);
    return QFS_OK;
}

qfs_result exfat_boot_region_verify(const uint8_t *region, uint32_t bytes_per_sector, exfat_boot_region which) {
    const bool main = which == exfat_boot_region::main;
    const size_t checksummed_bytes = static_cast<size_t>(ed::checksummed_sectors) * bytes_per_sector;
    const uint32_t calculated = exfat_util_calculate_boot_region_checksum(region, checksummed_bytes);
    const uint8_t *checksums = region + static_cast<size_t>(ed::checksum_sector) * bytes_per_sector;
    const uint32_t stored = get_le32(checksums, 0);
    if (calculated != stored) {
        QFS_LOG_ERROR("Calculated %s boot region checksum (0x%08lX) doesn't match stored checksum (0x%08lX).",
                      main ? "main" : "backup", static_cast<unsigned long>(calculated),
                      static_cast<unsigned long>(stored));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    for (size_t i = 1; i < bytes_per_sector / 4; ++i) {
        const uint32_t word = get_le32(checksums, i * 4);
        if (word != stored) {
            QFS_LOG_ERROR("%s checksum region does not contain a repeating pattern as expected. checksum_region[0] "
                          "(0x%08lX) != checksum_region[%zu] (0x%08lX)",
                          main ? "Main" : "Backup", static_cast<unsigned long>(stored), i,
                          static_cast<unsigned long>(word));
            return QFS_ERR_SYS_INVALID_ARGUMENT;
        }
    }
    return QFS_OK;
}

qfs_result exfat_boot_region_validate(qfs_device *device, uint32_t bytes_per_sector, exfat_boot_region which) {
    const bool main = which == exfat_boot_region::main;
    qfs_buffer region;
    qfs_result r = exfat_boot_region_read(device, bytes_per_sector, which, region);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while reading %s boot region: %lu (%s)", main ? "main" : "backup", QFS_ERR_ARGS(r));
    } else {
        r = exfat_boot_region_verify(region.get(), bytes_per_sector, which);
    }
    if (r != QFS_OK) {
        if (main) {
            QFS_LOG_ERROR("Validation of main boot region failed.");
        } else {
            QFS_LOG_ERROR("Validation of backup boot region failed.");
        }
    }
    return r;
}

void exfat_boot_region_seal(uint8_t *region, uint32_t bytes_per_sector) {
    const size_t checksummed_bytes = static_cast<size_t>(ed::checksummed_sectors) * bytes_per_sector;
    const uint32_t checksum = exfat_util_calculate_boot_region_checksum(region, checksummed_bytes);
    uint8_t *checksums = region + static_cast<size_t>(ed::checksum_sector) * bytes_per_sector;
    for (uint32_t i = 0; i < bytes_per_sector; i += 4) put_le32(checksums, i, checksum);
}
