#include <cstring>

#include "layout/partition_table.h"
#include "support/qfs_crc32.h"
#include "support/qfs_endian.h"
#include "support/qfs_logging.h"
#include "support/qfs_memory.h"
#include "support/qfs_util.h"

namespace {

constexpr uint64_t lba_size = 512;
constexpr uint32_t entry_count = 128;
constexpr uint32_t entry_size = 128;
constexpr uint64_t entries_bytes = entry_count * entry_size; // 16384: 32 sectors
// Protective MBR, primary header, backup header and the entry array.
constexpr size_t work_buffer_size = 3 * lba_size + entries_bytes;

// GPT header fields.
constexpr size_t header_signature = 0;     // "EFI PART"
constexpr size_t header_revision = 8;      // 0x00010000
constexpr size_t header_size_field = 12;   // 92
constexpr size_t header_crc = 16;
constexpr size_t header_current_lba = 24;
constexpr size_t header_backup_lba = 32;
constexpr size_t header_first_usable = 40;
constexpr size_t header_last_usable = 48;
constexpr size_t header_disk_guid = 56;
constexpr size_t header_entries_lba = 72;
constexpr size_t header_entry_count = 80;
constexpr size_t header_entry_size = 84;
constexpr size_t header_entries_crc = 88;
constexpr uint32_t header_size = 92;
constexpr uint32_t gpt_revision_1_0 = 0x00010000;

// Partition entry fields.
constexpr size_t part_type_guid = 0;
constexpr size_t part_unique_guid = 16;
constexpr size_t part_first_lba = 32;
constexpr size_t part_last_lba = 40;
constexpr size_t part_name = 56; // 72 bytes of UTF-16LE

// Basic data partition EBD0A0A2-B9E5-4433-87C0-68B6B72699C7 in its stored byte order.
constexpr uint8_t basic_data_type_guid[16] = {0xA2, 0xA0, 0xD0, 0xEB, 0xE5, 0xB9, 0x33, 0x44,
                                              0x87, 0xC0, 0x68, 0xB6, 0xB7, 0x26, 0x99, 0xC7};
constexpr char partition_name[] = "Primary";

void build_protective_mbr(uint8_t *mbr) {
    uint8_t *entry = mbr + 446;
    entry[0] = 0x00;                 // not active
    entry[1] = 0x00;                 // CHS of LBA 1: head 0, sector 2, cylinder 0
    entry[2] = 0x02;
    entry[3] = 0x00;
    entry[4] = mbr_type_gpt_protective;
    entry[5] = 0xFF;                 // CHS beyond what it can address
    entry[6] = 0xFF;
    entry[7] = 0xFF;
    put_le32(entry, 8, 1);
    put_le32(entry, 12, 0xFFFFFFFFu);
    mbr[510] = 0x55;
    mbr[511] = 0xAA;
}

void build_header(uint8_t *header, uint64_t current_lba, uint64_t backup_lba, uint64_t first_usable,
                  uint64_t last_usable, const uint8_t disk_guid[16], uint64_t entries_lba, uint32_t entries_crc) {
    memcpy(header + header_signature, "EFI PART", 8);
    put_le32(header, header_revision, gpt_revision_1_0);
    put_le32(header, header_size_field, header_size);
    put_le64(header, header_current_lba, current_lba);
    put_le64(header, header_backup_lba, backup_lba);
    put_le64(header, header_first_usable, first_usable);
    put_le64(header, header_last_usable, last_usable);
    memcpy(header + header_disk_guid, disk_guid, 16);
    put_le64(header, header_entries_lba, entries_lba);
    put_le32(header, header_entry_count, entry_count);
    put_le32(header, header_entry_size, entry_size);
    put_le32(header, header_entries_crc, entries_crc);
    put_le32(header, header_crc, 0);
    put_le32(header, header_crc, qfs_crc32(header, header_size));
}

} // namespace

qfs_result exfat_format_partition_gpt(qfs_device *dev, const tca_param *param, uint64_t partition_start_sector,
                                      uint64_t partition_sector_count, bool compare_before_write,
                                      format_progress *progress, const format_monitor *monitor) {
    const uint64_t boundary_unit = param->boundary_unit;
    if (partition_start_sector % boundary_unit != 0) {
        format_monitor_error(monitor,
                             "GPT partitioning must be aligned to a boundary unit. Partition start: %llu, boundary "
                             "unit: %lu",
                             static_cast<unsigned long long>(partition_start_sector),
                             static_cast<unsigned long>(boundary_unit));
        return 22;
    }
    const uint64_t device_end = partition_start_sector + partition_sector_count + boundary_unit;
    const uint64_t backup_header_lba = device_end - 1;
    const uint64_t last_usable_lba = partition_start_sector + partition_sector_count - 1;

    qfs_buffer work;
    qfs_result r = qfs_buffer_alloc(work_buffer_size, work);
    if (r != QFS_OK) {
        format_monitor_error(monitor, "Error while allocating temporary GPT data buffer: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    uint8_t *protective_mbr = work.get();
    uint8_t *primary = protective_mbr + lba_size;
    uint8_t *backup = primary + lba_size;
    uint8_t *entries = backup + lba_size;

    uint8_t disk_guid[16], unique_guid[16];
    r = qfs_util_generate_guid(disk_guid);
    if (r == QFS_OK) r = qfs_util_generate_guid(unique_guid);
    if (r != QFS_OK) {
        return r;
    }

    build_protective_mbr(protective_mbr);
    memcpy(entries + part_type_guid, basic_data_type_guid, 16);
    memcpy(entries + part_unique_guid, unique_guid, 16);
    put_le64(entries, part_first_lba, partition_start_sector);
    put_le64(entries, part_last_lba, last_usable_lba);
    for (size_t i = 0; i < sizeof(partition_name) - 1; ++i) {
        put_le16(entries, part_name + 2 * i, static_cast<uint16_t>(partition_name[i]));
    }
    const uint32_t entries_crc = qfs_crc32(entries, entries_bytes);
    build_header(primary, 1, backup_header_lba, partition_start_sector, last_usable_lba, disk_guid, 2, entries_crc);
    build_header(backup, backup_header_lba, 1, partition_start_sector, last_usable_lba, disk_guid,
                 last_usable_lba + 1, entries_crc);

    struct gpt_write {
        uint64_t position;
        const uint8_t *data;
        size_t size;
        uint64_t padded;
        const char *failure;
    };
    const gpt_write writes[] = {
        {0, protective_mbr, lba_size, lba_size, "Error while writing out the protective MBR region: %lu (%s)"},
        {lba_size, primary, lba_size, lba_size, "Error while writing out the GPT header region: %lu (%s)"},
        // The primary entry array, padded with zeros up to the partition.
        {2 * lba_size, entries, entries_bytes, (partition_start_sector - 2) * lba_size,
         "Error while writing out the GPT partition entries: %lu (%s)"},
        {backup_header_lba * lba_size, backup, lba_size, lba_size,
         "Error while writing out the backup GPT header region: %lu (%s)"},
        // The backup entry array, padded up to the backup header.
        {(last_usable_lba + 1) * lba_size, entries, entries_bytes, (boundary_unit - 1) * lba_size,
         "Error while writing the backup GPT partition entries.: %lu (%s)"},
    };
    for (const gpt_write &w : writes) {
        r = exfat_format_write_with_padding(dev, w.position, w.size, w.data, w.padded, 0, compare_before_write, 0,
                                            progress);
        if (r != QFS_OK) {
            format_monitor_error(monitor, w.failure, QFS_ERR_ARGS(r));
            return r;
        }
    }
    return QFS_OK;
}
