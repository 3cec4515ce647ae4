// The volume label: read from its root directory record at open, and
// replaced on request.
#include <cstring>

#include "exfat/util.h"
#include "exfat/volume_internal.h"
#include "support/qfs_endian.h"
#include "support/qfs_logging.h"
#include "support/qfs_support.h"
#include "support/qfs_unistr.h"

namespace ed = exfat_ondisk;

qfs_result exfat_volume_read_label(exfat_volume *volume, char **out_label) {
    const exfat_root_record &record = volume->root_metadata.label;
    char *text = nullptr;
    if (!record.present) {
        QFS_TRACE("No volume name found.");
        const qfs_result r = qfs_strdup("", &text);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Failed to allocate memory for NULL volume name: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
        *out_label = text;
        return QFS_OK;
    }
    const uint8_t count = record.entry[ed::dentry::label_character_count];
    if (count >= ed::label_character_count_limit) {
        QFS_LOG_ERROR("Invalid value in char_count: %hhu", count);
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    uint16_t units[ed::label_character_count_limit - 1] = {};
    for (uint8_t i = 0; i < count; ++i) units[i] = get_le16(record.entry, ed::dentry::label_text + 2u * i);
    const qfs_result r = qfs_unistr_to_utf8(units, count, &text, nullptr);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while decoding volume label: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    *out_label = text;
    return QFS_OK;
}

qfs_result exfat_volume_set_name(exfat_volume *volume, const char *label) {
    if (volume == nullptr || label == nullptr || !volume->in_use) return QFS_ERR_INVALID_PARAMETER;
    uint16_t *raw_units = nullptr;
    size_t count = 0;
    qfs_result r = qfs_unistr_from_utf8(label, strlen(label), &raw_units, &count);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Failed to decode volume name: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    qfs_unique<uint16_t[]> units(raw_units);
    if (volume->read_only) {
        r = QFS_ERR_DEVICE_READ_ONLY;
    } else if (count > ed::max_label_length || !exfat_util_label_is_valid(units.get(), count)) {
        r = QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    char *copy = nullptr;
    if (r == QFS_OK) r = qfs_strdup(label, &copy);
    qfs_unique<char[]> new_label(copy);
    if (r == QFS_OK) {
        uint8_t entry[ed::dentry_size] = {};
        entry[ed::dentry::entry_type] = ed::dentry_volume_label;
        entry[ed::dentry::label_character_count] = static_cast<uint8_t>(count);
        for (size_t i = 0; i < count; ++i) put_le16(entry, ed::dentry::label_text + 2 * i, units[i]);
        r = exfat_volume_store_root_record(volume, volume->root_metadata.label, entry);
    }
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while setting volume label: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    volume->label = std::move(new_label);
    return QFS_OK;
}
