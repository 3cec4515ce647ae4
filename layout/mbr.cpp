#include <cstring>

#include "layout/padded_write.h"
#include "layout/partition_table.h"
#include "support/qfs_endian.h"
#include "support/qfs_logging.h"
#include "support/qfs_random.h"

namespace {

// Master boot record layout.
constexpr size_t mbr_size = 512;
constexpr size_t mbr_disk_signature = 440;
constexpr size_t mbr_first_partition = 446;
constexpr size_t mbr_signature = 510;
// Partition entry fields.
constexpr size_t entry_status = 0;
constexpr size_t entry_chs_first = 1;
constexpr size_t entry_type = 4;
constexpr size_t entry_chs_last = 5;
constexpr size_t entry_lba_first = 8;
constexpr size_t entry_sector_count = 12;

constexpr uint64_t max_chs_cylinder = 1023;

// FAT partition types by size: the first rule that holds wins.
constexpr uint64_t fat12_max_sectors = 32679;
constexpr uint64_t fat16_small_max_sectors = 65535;
constexpr uint64_t fat16_chs_end_limit = 4210048;
constexpr uint64_t fat32_chs_max_sectors = 16450560; // 1024 cylinders of 255 heads and 63 sectors

struct chs_address {
    uint64_t cylinder;
    uint8_t head;
    uint8_t sector;
};

chs_address chs_of(uint64_t sector, uint8_t heads, uint8_t sectors_per_track) {
    const uint64_t per_cylinder = static_cast<uint64_t>(heads) * sectors_per_track;
    return {sector / per_cylinder, static_cast<uint8_t>((sector % per_cylinder) / sectors_per_track),
            static_cast<uint8_t>(sector % sectors_per_track + 1)};
}

void chs_encode(const chs_address &a, uint8_t out[3]) {
    if (a.cylinder > max_chs_cylinder) {
        out[0] = 0xFE;
        out[1] = 0xFF;
        out[2] = 0xFF;
        return;
    }
    out[0] = a.head;
    out[1] = static_cast<uint8_t>((a.sector & 63) | ((a.cylinder >> 2) & 0xC0));
    out[2] = static_cast<uint8_t>(a.cylinder & 0xFF);
}

} // namespace

void mbr_chs_address(uint64_t sector, uint8_t heads, uint8_t sectors_per_track, uint8_t out[3]) {
    chs_encode(chs_of(sector, heads, sectors_per_track), out);
}

void mbr_build(uint8_t sector[512], const tca_param &param, uint32_t partition_start, uint32_t partition_count,
               uint8_t partition_type, uint32_t disk_signature) {
    memset(sector, 0, 512);
    put_le32(sector, mbr_disk_signature, disk_signature);
    uint8_t *entry = sector + mbr_first_partition;
    entry[entry_status] = 0x00; // not active
    const chs_address first = chs_of(partition_start, param.heads, param.sectors_per_track);
    const chs_address last =
        chs_of(static_cast<uint64_t>(partition_start) + partition_count - 1, param.heads, param.sectors_per_track);
    QFS_TRACE("CHS start: C=%llu H=%hhu S=%hhu", static_cast<unsigned long long>(first.cylinder), first.head,
              first.sector);
    QFS_TRACE("CHS end: C=%llu H=%hhu S=%hhu", static_cast<unsigned long long>(last.cylinder), last.head, last.sector);
    chs_encode(first, entry + entry_chs_first);
    entry[entry_type] = partition_type;
    chs_encode(last, entry + entry_chs_last);
    put_le32(entry, entry_lba_first, partition_start);
    put_le32(entry, entry_sector_count, partition_count);
    sector[mbr_signature] = 0x55;
    sector[mbr_signature + 1] = 0xAA;
}

uint8_t fat_partition_type(uint64_t partition_start, uint64_t partition_count) {
    if (partition_count <= fat12_max_sectors) return 0x01;
    if (partition_count <= fat16_small_max_sectors) return 0x04;
    if (partition_start + partition_count < fat16_chs_end_limit) return 0x06;
    if (partition_count <= fat32_chs_max_sectors) return 0x0B;
    return 0x0C;
}

qfs_result mbr_write(qfs_device *dev, const tca_param &param, uint32_t partition_start, uint32_t partition_count,
                     uint8_t partition_type, uint32_t lba_bytes, bool compare_before_write,
                     format_progress *progress) {
    uint32_t disk_signature = 0;
    // A failing generator has logged why and leaves the signature at 0, which a card can live with.
    (void)qfs_random_serial_number(&disk_signature);
    uint8_t sector[mbr_size];
    mbr_build(sector, param, partition_start, partition_count, partition_type, disk_signature);
    // The zeroed alignment region up to the partition goes out with it.
    return exfat_format_write_with_padding(dev, 0, mbr_size, sector, static_cast<uint64_t>(partition_start) * lba_bytes,
                                           0, compare_before_write, 0, progress);
}
