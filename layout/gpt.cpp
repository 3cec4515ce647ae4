#include <cstring>

#include "layout/padded_write.h"
#include "layout/partition_table.h"
#include "support/qfs_crc32.h"
#include "support/qfs_endian.h"
#include "support/qfs_logging.h"
#include "support/qfs_memory.h"
#include "support/qfs_util.h"

namespace {

// Each header is built in 512 bytes; on a device of larger sectors the rest of its sector is zero.
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

// The four pieces of a GPT in one working buffer.
struct gpt_image {
    qfs_buffer work;
    uint8_t *protective_mbr;
    uint8_t *primary;
    uint8_t *backup;
    uint8_t *entries;
};

// Where the table's pieces go on a card; all numbers are LBAs.
struct gpt_places {
    uint64_t lba_bytes;
    uint64_t partition_start;
    uint64_t last_usable;
    uint64_t backup_header;
    uint64_t boundary_unit;
};

qfs_result build_gpt(const gpt_places &at, const format_monitor *monitor, gpt_image *out) {
    qfs_result r = qfs_buffer_alloc(work_buffer_size, out->work);
    if (r != QFS_OK) {
        format_monitor_error(monitor, "Error while allocating temporary GPT data buffer: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    out->protective_mbr = out->work.get();
    out->primary = out->protective_mbr + lba_size;
    out->backup = out->primary + lba_size;
    out->entries = out->backup + lba_size;

    uint8_t disk_guid[16], unique_guid[16];
    r = qfs_util_generate_guid(disk_guid);
    if (r == QFS_OK) r = qfs_util_generate_guid(unique_guid);
    if (r != QFS_OK) {
        return r;
    }
    build_protective_mbr(out->protective_mbr);
    uint8_t *entries = out->entries;
    memcpy(entries + part_type_guid, basic_data_type_guid, 16);
    memcpy(entries + part_unique_guid, unique_guid, 16);
    put_le64(entries, part_first_lba, at.partition_start);
    put_le64(entries, part_last_lba, at.last_usable);
    for (size_t i = 0; i < sizeof(partition_name) - 1; ++i) {
        put_le16(entries, part_name + 2 * i, static_cast<uint16_t>(partition_name[i]));
    }
    const uint32_t entries_crc = qfs_crc32(entries, entries_bytes);
    build_header(out->primary, 1, at.backup_header, at.partition_start, at.last_usable, disk_guid, 2, entries_crc);
    build_header(out->backup, at.backup_header, 1, at.partition_start, at.last_usable, disk_guid, at.last_usable + 1,
                 entries_crc);
    return QFS_OK;
}

qfs_result write_gpt(qfs_device *dev, const gpt_image &image, const gpt_places &at, bool compare_before_write,
                     format_progress *progress, const format_monitor *monitor) {
    struct gpt_write {
        uint64_t position;
        const uint8_t *data;
        size_t size;
        uint64_t padded;
        const char *failure;
    };
    const uint64_t lba = at.lba_bytes;
    const gpt_write writes[] = {
        {0, image.protective_mbr, lba_size, lba, "Error while writing out the protective MBR region: %lu (%s)"},
        {lba, image.primary, lba_size, lba, "Error while writing out the GPT header region: %lu (%s)"},
        // The primary entry array, padded with zeros up to the partition.
        {2 * lba, image.entries, entries_bytes, (at.partition_start - 2) * lba,
         "Error while writing out the GPT partition entries: %lu (%s)"},
        {at.backup_header * lba, image.backup, lba_size, lba,
         "Error while writing out the backup GPT header region: %lu (%s)"},
        // The backup entry array, padded up to the backup header.
        {(at.last_usable + 1) * lba, image.entries, entries_bytes, (at.boundary_unit - 1) * lba,
         "Error while writing the backup GPT partition entries.: %lu (%s)"},
    };
    for (const gpt_write &w : writes) {
        const qfs_result r = exfat_format_write_with_padding(dev, w.position, w.size, w.data, w.padded, 0,
                                                             compare_before_write, 0, progress);
        if (r != QFS_OK) {
            format_monitor_error(monitor, w.failure, QFS_ERR_ARGS(r));
            return r;
        }
    }
    return QFS_OK;
}

} // namespace

qfs_result gpt_write(qfs_device *dev, const tca_param &param, uint64_t partition_start_sector,
                     uint64_t partition_sector_count, uint32_t lba_bytes, bool compare_before_write,
                     format_progress *progress, const format_monitor *monitor) {
    const uint64_t boundary_unit = param.boundary_unit;
    if (partition_start_sector % boundary_unit != 0) {
        format_monitor_error(monitor,
                             "GPT partitioning must be aligned to a boundary unit. Partition start: %llu, boundary "
                             "unit: %lu",
                             static_cast<unsigned long long>(partition_start_sector),
                             static_cast<unsigned long>(boundary_unit));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    // One boundary unit stays free behind the partition; the backup header is the card's last sector.
    const uint64_t device_end = partition_start_sector + partition_sector_count + boundary_unit;
    const gpt_places at{
        .lba_bytes = lba_bytes,
        .partition_start = partition_start_sector,
        .last_usable = partition_start_sector + partition_sector_count - 1,
        .backup_header = device_end - 1,
        .boundary_unit = boundary_unit,
    };
    gpt_image image{};
    const qfs_result r = build_gpt(at, monitor, &image);
    if (r != QFS_OK) {
        return r;
    }
    return write_gpt(dev, image, at, compare_before_write, progress, monitor);
}
