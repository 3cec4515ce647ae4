#include "cli/format_run_steps.h"

#include <cstdio>
#include <cstring>

#include "cli/format_runs.h"
#include "device/qfs_device_owner.h"
#include "support/qfs_logging.h"
#include "support/qfs_memory.h"
#include "support/qfs_scope.h"
#include "support/qfs_unistr.h"

void format_run_say(const char *text) {
    fputs(text, stderr);
    fputs("\n", stderr);
    fflush(stderr);
}

qfs_result format_run_encode_label(const char *text, format_run_label *out_label) {
    uint16_t *utf16 = nullptr;
    size_t units = 0;
    const qfs_result r = qfs_unistr_from_utf8(text, strlen(text), &utf16, &units);
    if (r != QFS_OK) {
        format_run_say("Error: Failed to encode volume label into UTF-16.");
        return r;
    }
    const qfs_unique<uint16_t[]> owned(utf16);
    if (units > format_run_max_label_units) {
        fprintf(stderr, "Error: Invalid volume label length. (Was: %zu Maximum length allowed: %zu)\n", units,
                format_run_max_label_units);
        fflush(stderr);
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    format_run_label label{};
    memcpy(label.units, utf16, units * sizeof(uint16_t));
    label.length = static_cast<uint8_t>(units);
    *out_label = label;
    return QFS_OK;
}

void format_run_echo_device(const char *path) {
    fprintf(stderr, "Device: \"%s\"\n", path);
    fflush(stderr);
}

qfs_result format_run_echo_label(const uint16_t *units, size_t count) {
    if (units == nullptr) {
        format_run_say("Volume label: <none>");
        return QFS_OK;
    }
    char *text = nullptr;
    size_t length = 0;
    const qfs_result r = qfs_unistr_to_utf8(units, count, &text, &length);
    if (r != QFS_OK) {
        fprintf(stderr, "Error while decoding volume label: %s\n", qfs_error_text(r));
        fflush(stderr);
        return r;
    }
    const qfs_unique<char[]> owned(text);
    fprintf(stderr, "Volume label: \"%.*s\"\n", static_cast<int>(length), text);
    fflush(stderr);
    return QFS_OK;
}

void format_run_report_failure(uint32_t verbose, qfs_result r) {
    if (verbose) {
        fprintf(stderr, "Formatting failed: %s\n", qfs_error_text(r));
    } else {
        fputs("Formatting failed!\n", stderr);
    }
    fflush(stderr);
}

qfs_result format_run_on_own_device(const char *path, uint32_t force, const format_run_device_texts &texts,
                                    const std::function<qfs_result(qfs_device *)> &work) {
    qfs_device_owner device;
    qfs_result r = qfs_device_create_default(path, format_run_device_flags(), device.receive());
    if (r != QFS_OK) {
        QFS_LOG_ERROR_AS(texts.function, texts.create_failed, QFS_ERR_ARGS(r));
        return r;
    }
    qfs_first_error result;
    r = qfs_device_open(device, static_cast<int>(force));
    if (r != QFS_OK) {
        QFS_LOG_ERROR_AS(texts.function, texts.open_failed, QFS_ERR_ARGS(r));
        result.keep(r);
    } else {
        result.keep(work(device));
    }
    result.keep(device.close_and_destroy());
    return result.result;
}
