#include "cli/format_run_steps.h"
#include "cli/format_runs.h"
#include "exfat/format.h"
#include "exfat/util.h"
#include "exfat/volume.h"
#include "exfat/volume_owner.h"
#include "support/qfs_logging.h"

namespace {

// Encodes the typed label as it will be stored: neither upper-cased nor trimmed.
qfs_result encode_label(const char *text, format_run_label *out) {
    format_run_label label{};
    const qfs_result r = format_run_encode_label(text, &label);
    if (r != QFS_OK) return r;
    if (!exfat_util_label_is_valid(label.units, label.length)) {
        format_run_say("Error: Invalid characters in volume label.");
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    *out = label;
    return QFS_OK;
}

qfs_result echo_request(const char *device_path, const format_run_label *label) {
    format_run_echo_device(device_path);
    const qfs_result r = format_run_echo_label(label ? label->units : nullptr, label ? label->length : 0);
    if (r != QFS_OK) return r;
    format_run_say("Volume GUID: <none>");
    return QFS_OK;
}

// Formats the open device and proves the result by opening it with the volume code.
qfs_result format_and_verify(qfs_device *device, uint32_t verbose, uint32_t force, uint32_t zero,
                             uint32_t discard_mode, const format_run_label *label, uint32_t tca_relax,
                             format_monitor *monitor) {
    qfs_result r = exfat_format_volume(device, force != 0, false, zero != 0, false, false, discard_mode, nullptr,
                                       nullptr, nullptr, nullptr, nullptr, label ? label->units : nullptr,
                                       label ? label->length : 0, nullptr, nullptr, nullptr, false, true,
                                       tca_relax != 0, false, monitor);
    if (r != QFS_OK) {
        format_run_report_failure(verbose, r);
        return r;
    }
    exfat_volume_owner volume;
    r = exfat_volume_create(device, 0, volume.receive());
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Generated invalid volume. exfat_volume_create returned: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    // Closing clears the dirty flag the open set: a card left dirty is a failed run.
    return volume.close_and_destroy();
}

} // namespace

qfs_result format_tarn_exfat(const char *device_path, uint32_t verbose, uint32_t force, uint32_t zero,
                             uint32_t discard_mode, uint32_t label_given, const char *label_text, uint32_t tca_relax,
                             format_monitor *monitor) {
    format_run_label label{};
    qfs_result r = QFS_OK;
    if (label_given) {
        r = encode_label(label_text, &label);
        if (r != QFS_OK) return r;
    }
    if (verbose) {
        r = echo_request(device_path, label_given ? &label : nullptr);
        if (r != QFS_OK) return r;
    }
    const format_run_device_texts texts{__func__, "Failed to create exfat_device: %lu (%s)",
                                        "Failed to open exfat_device: %lu (%s)"};
    return format_run_on_own_device(device_path, force, texts, [&](qfs_device *device) {
        return format_and_verify(device, verbose, force, zero, discard_mode, label_given ? &label : nullptr,
                                 tca_relax, monitor);
    });
}
