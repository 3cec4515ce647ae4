// Initialising an opening FAT volume's cached values: the boot sector
// checks and values, the FAT's reserved entries, the root directory, the
// free clusters and the label, all read through the device.
#include <array>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <vector>

#include "fat/fat_ondisk.h"
#include "fat/fat_table.h"
#include "fat/volume_internal.h"
#include "support/qfs_logging.h"
#include "support/qfs_support.h"
#include "support/qfs_unistr.h"

namespace fo = fat_ondisk;

namespace {

using label_bytes = std::array<uint8_t, fo::label_length>;

// A directory holds at most 65536 entries of 32 bytes.
constexpr uint32_t max_directory_bytes = 65536 * fo::dentry_size;

struct fat_table_deleter {
    void operator()(fat_table *table) const { fat_table_destroy(&table); }
};
using fat_table_owner = std::unique_ptr<fat_table, fat_table_deleter>;

// A volume that claims more sectors than its device holds would send reads past its end.
qfs_result check_volume_fits_device(qfs_device *device, const fat_boot_values &boot) {
    uint64_t device_sectors = 0;
    if (qfs_device_get_size_in_sectors(device, boot.sector_size, &device_sectors) != QFS_OK) {
        QFS_TRACE("Device size unknown; volume length not checked against it.");
        return QFS_OK;
    }
    if (boot.sector_count > device_sectors) {
        QFS_LOG_ERROR("Inconsistency: The volume (%llu sectors) extends beyond the end of the device (%llu sectors).",
                      static_cast<unsigned long long>(boot.sector_count),
                      static_cast<unsigned long long>(device_sectors));
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    return QFS_OK;
}

// Looks through directory entries for the label entry; true once the end of the directory is met.
bool scan_for_label(const uint8_t *entries, size_t size, std::optional<label_bytes> *label) {
    for (size_t at = 0; at + fo::dentry_size <= size; at += fo::dentry_size) {
        const uint8_t *entry = entries + at;
        const uint8_t first = entry[fo::dentry::name];
        if (first == fo::dentry_end) return true;
        const uint8_t attributes = entry[fo::dentry::attributes];
        if (first == fo::dentry_deleted || attributes == fo::attribute_long_name ||
            (attributes & fo::attribute_volume_label) == 0 || label->has_value()) {
            continue;
        }
        label_bytes bytes{};
        memcpy(bytes.data(), entry + fo::dentry::name, bytes.size());
        if (bytes[0] == fo::dentry_e5_escape) bytes[0] = fo::dentry_deleted;
        *label = bytes;
    }
    return false;
}

// Where the root directory lies: the fixed area of FAT12/16, or the clusters of the FAT32 root chain.
struct root_extents {
    std::vector<uint64_t> positions; // bytes
    size_t size = 0;                 // of each extent
};

qfs_result locate_root_directory(const fat_boot_values &b, fat_table *fat, root_extents *out) {
    try {
        if (b.fat_type != 32) {
            out->positions.push_back(b.root_sector * b.sector_size);
            out->size = static_cast<size_t>(b.root_sectors) * b.sector_size;
            return QFS_OK;
        }
        std::vector<uint32_t> clusters;
        const qfs_result r = fat_table_read_chain(fat, b.root_directory_first_fat_cluster,
                                                  max_directory_bytes / b.cluster_size + 1, &clusters);
        if (r != QFS_OK) return r;
        for (uint32_t c : clusters) {
            out->positions.push_back(b.cluster_heap_start_sector * b.sector_size +
                                     static_cast<uint64_t>(c - fo::first_data_cluster) * b.cluster_size);
        }
        out->size = b.cluster_size;
        return QFS_OK;
    } catch (const std::bad_alloc &) {
        return QFS_ERR_OUT_OF_MEMORY;
    }
}

qfs_result read_root_directory(qfs_device *device, const root_extents &root, std::optional<label_bytes> *label) {
    qfs_buffer buffer;
    qfs_result r = qfs_buffer_alloc(root.size, buffer);
    for (size_t i = 0; r == QFS_OK && i < root.positions.size(); ++i) {
        r = fat_volume_read_exact(device, root.positions[i], root.size, buffer.get());
        if (r == QFS_OK && scan_for_label(buffer.get(), root.size, label)) break;
    }
    return r;
}

// Label bytes in the volume's code page to UTF-8, without the padding spaces.
qfs_result decode_label(uint32_t codepage, const label_bytes &bytes, char **out_label) {
    size_t length = bytes.size();
    while (length > 0 && bytes[length - 1] == ' ')
        --length;
    uint16_t *units = nullptr;
    size_t count = 0;
    qfs_result r = qfs_unistr_from_codepage(codepage, 0, bytes.data(), length, nullptr, &units, &count);
    if (r != QFS_OK) return r;
    qfs_unique<uint16_t[]> owned_units(units);
    return qfs_unistr_to_utf8(units, count, out_label, nullptr);
}

// The label entry's text, else the boot sector's unless it is "NO NAME", else none.
qfs_result load_label(fat_volume *volume, const uint8_t *boot_sector, const std::optional<label_bytes> &entry) {
    char *text = nullptr;
    qfs_result r = QFS_OK;
    const fat_boot_values &b = volume->boot;
    const size_t boot_label = b.fat_type == 32 ? fo::ebpb32::label : fo::ebpb16::label;
    if (entry) {
        r = decode_label(volume->codepage, *entry, &text);
        if (r != QFS_OK) QFS_LOG_ERROR("Error while decoding volume label: %lu (%s)", QFS_ERR_ARGS(r));
    } else if (b.has_serial_number && memcmp(boot_sector + boot_label, fo::no_label, fo::label_length) != 0) {
        label_bytes bytes{};
        memcpy(bytes.data(), boot_sector + boot_label, bytes.size());
        r = decode_label(volume->codepage, bytes, &text);
        if (r != QFS_OK) QFS_LOG_ERROR("Error while decoding boot sector volume label: %lu (%s)", QFS_ERR_ARGS(r));
    } else {
        QFS_TRACE("No volume name found.");
        r = qfs_strdup("", &text);
    }
    if (r != QFS_OK) return r;
    volume->label.reset(text);
    return QFS_OK;
}

} // namespace

qfs_result fat_volume_init_cached_values(fat_volume *volume, const uint8_t *boot_sector) {
    qfs_result r = fat_volume_check_boot_sector(boot_sector);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("fat_check_validate_boot_sector returned error: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    r = fat_volume_parse_boot_sector(boot_sector, &volume->boot);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("fat_volume_parse_boot_sector returned error: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    volume->media = boot_sector[fo::bpb::media];
    r = check_volume_fits_device(volume->device, volume->boot);
    if (r != QFS_OK) return r;

    fat_table *raw_fat = nullptr;
    r = fat_table_create(volume->device, volume->boot, &raw_fat);
    if (r == QFS_OK) r = fat_table_check_reserved_entries(raw_fat, volume->media);
    fat_table_owner fat(raw_fat);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Failed to create FAT object: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    root_extents root;
    r = locate_root_directory(volume->boot, fat.get(), &root);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while creating root directory inode: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    std::optional<label_bytes> label_entry;
    r = read_root_directory(volume->device, root, &label_entry);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while reading root directory: %lu (%s)", QFS_ERR_ARGS(r));
        if (!volume->read_only) return r;
        QFS_LOG_WARNING("Read-only - Continuing despite error when reading root directory.");
    }
    r = fat_table_count_free(fat.get(), &volume->free_clusters);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while counting free clusters: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    r = load_label(volume, boot_sector, label_entry);
    if (r != QFS_OK) return r;
    QFS_TRACE("Successfully set up volume.");
    return QFS_OK;
}
