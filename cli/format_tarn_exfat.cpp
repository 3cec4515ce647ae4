#include <cstdio>
#include <cstring>

#include "cli/format_runs.h"
#include "device/qfs_device.h"
#include "exfat/exfat_ondisk.h"
#include "exfat/format.h"
#include "exfat/util.h"
#include "exfat/volume.h"
#include "support/qfs_logging.h"
#include "support/qfs_memory.h"
#include "support/qfs_scope.h"
#include "support/qfs_unistr.h"

namespace {

constexpr size_t max_label_units = exfat_ondisk::max_label_length;

struct exfat_label {
    uint16_t units[max_label_units];
    uint8_t length;
};

void say(const char *text) {
    fputs(text, stderr);
    fputs("\n", stderr);
    fflush(stderr);
}

// Encodes the typed label as it will be stored: neither upper-cased nor trimmed.
qfs_result encode_label(const char *text, exfat_label *out) {
    uint16_t *utf16 = nullptr;
    size_t units = 0;
    qfs_result r = qfs_unistr_from_utf8(text, strlen(text), &utf16, &units);
    if (r != QFS_OK) {
        say("Error: Failed to encode volume label into UTF-16.");
        return r;
    }
    qfs_unique<uint16_t[]> owned(utf16);
    if (units > max_label_units) {
        fprintf(stderr, "Error: Invalid volume label length. (Was: %zu Maximum length allowed: %zu)\n", units,
                max_label_units);
        fflush(stderr);
        return 22;
    }
    exfat_label label{};
    memcpy(label.units, utf16, units * sizeof(uint16_t));
    label.length = static_cast<uint8_t>(units);
    if (!exfat_util_label_is_valid(label.units, label.length)) {
        say("Error: Invalid characters in volume label.");
        return 22;
    }
    *out = label;
    return QFS_OK;
}

qfs_result echo_request(const char *device_path, const exfat_label *label) {
    fprintf(stderr, "Device: \"%s\"\n", device_path);
    fflush(stderr);
    if (label == nullptr) {
        say("Volume label: <none>");
    } else {
        char *text = nullptr;
        size_t length = 0;
        const qfs_result r = qfs_unistr_to_utf8(label->units, label->length, &text, &length);
        if (r != QFS_OK) {
            fprintf(stderr, "Error while decoding volume label: %s\n", qfs_error_text(r));
            fflush(stderr);
            return r;
        }
        qfs_unique<char[]> owned(text);
        fprintf(stderr, "Volume label: \"%.*s\"\n", static_cast<int>(length), text);
        fflush(stderr);
    }
    say("Volume GUID: <none>");
    return QFS_OK;
}

// Formats the open device and proves the result by opening it with the volume code.
qfs_result format_and_verify(qfs_device *device, uint32_t verbose, uint32_t force, uint32_t zero,
                             uint32_t discard_mode, const exfat_label *label, uint32_t tca_relax,
                             format_monitor *monitor) {
    qfs_result r = exfat_format_volume(device, force != 0, false, zero != 0, false, false, discard_mode, nullptr,
                                       nullptr, nullptr, nullptr, nullptr, label ? label->units : nullptr,
                                       label ? label->length : 0, nullptr, nullptr, nullptr, false, true,
                                       tca_relax != 0, false, monitor);
    if (r != QFS_OK) {
        if (verbose) {
            fprintf(stderr, "Formatting failed: %s\n", qfs_error_text(r));
        } else {
            fputs("Formatting failed!\n", stderr);
        }
        fflush(stderr);
        return r;
    }
    exfat_volume *volume = nullptr;
    r = exfat_volume_create(device, 0, &volume);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Generated invalid volume. exfat_volume_create returned: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    exfat_volume_close(volume);
    exfat_volume_destroy(&volume);
    return QFS_OK;
}

} // namespace

qfs_result format_tarn_exfat(const char *device_path, uint32_t verbose, uint32_t force, uint32_t zero,
                             uint32_t discard_mode, uint32_t label_given, const char *label_text, uint32_t tca_relax,
                             format_monitor *monitor) {
    exfat_label label{};
    qfs_result r = QFS_OK;
    if (label_given) {
        r = encode_label(label_text, &label);
        if (r != QFS_OK) return r;
    }
    if (verbose) {
        r = echo_request(device_path, label_given ? &label : nullptr);
        if (r != QFS_OK) return r;
    }

    qfs_device *device = nullptr;
    r = qfs_device_create_default(device_path, 0, &device);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Failed to create exfat_device: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    qfs_first_error result;
    r = qfs_device_open(device, static_cast<int>(force));
    const bool open = r == QFS_OK;
    if (!open) {
        QFS_LOG_ERROR("Failed to open exfat_device: %lu (%s)", QFS_ERR_ARGS(r));
        result.keep(r);
    } else {
        result.keep(format_and_verify(device, verbose, force, zero, discard_mode, label_given ? &label : nullptr,
                                      tca_relax, monitor));
    }

    // Cleanup keeps the first error.
    if (open) {
        r = qfs_device_close(device);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Error while attempting to close open device at cleanup: %lu (%s)", QFS_ERR_ARGS(r));
            result.keep(r);
        }
    }
    r = qfs_device_destroy(&device);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while attempting to destroy device handle at cleanup: %lu (%s)", QFS_ERR_ARGS(r));
        result.keep(r);
    }
    return result.result;
}
