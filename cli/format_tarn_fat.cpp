#include <cstdio>
#include <cstring>

#include "cli/format_run_steps.h"
#include "cli/format_runs.h"
#include "fat/fat_ondisk.h"
#include "fat/format.h"
#include "fat/upcase.h"
#include "fat/util.h"
#include "fat/volume.h"
#include "fat/volume_owner.h"
#include "support/qfs_logging.h"
#include "support/qfs_memory.h"
#include "support/qfs_unistr.h"

namespace {

constexpr const char *run_function = "format_tarn_fat";
constexpr uint32_t default_code_page = 437;
// Code pages are numbered well below this; larger numbers are refused without a look at the tables.
constexpr uint64_t code_page_limit = 2147483648u;

// The label as the volume stores it: upper-cased, in the code page's bytes.
struct fat_label {
    uint8_t bytes[fat_ondisk::label_length];
    uint8_t length;
};

qfs_result settle_code_page(uint64_t given, uint32_t *out_code_page) {
    if (given == 0) {
        *out_code_page = default_code_page;
        return QFS_OK;
    }
    if (given >= code_page_limit || !qfs_unistr_codepage_supported(static_cast<uint32_t>(given))) {
        fprintf(stderr, "Error: Unsupported code page %llu.\n", static_cast<unsigned long long>(given));
        fflush(stderr);
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    *out_code_page = static_cast<uint32_t>(given);
    return QFS_OK;
}

using upcase_table_owner = qfs_owned<fat_upcase_table, fat_upcase_destroy_table>;

qfs_result upcase_label(format_run_label *label) {
    fat_upcase_table *raw = nullptr;
    qfs_result r = fat_upcase_get_default_table(&raw);
    if (r != QFS_OK) {
        QFS_LOG_ERROR_AS(run_function, "Error while getting upcase table: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    const upcase_table_owner table(raw);
    r = fat_upcase_convert_name(table.get(), label->units, label->length);
    if (r != QFS_OK) {
        QFS_LOG_ERROR_AS(run_function, "Error while converting volume label to uppercase: %lu (%s)", QFS_ERR_ARGS(r));
    }
    return r;
}

// The typed label as it will be stored: upper-cased, in the code page, within the short-name rules.
qfs_result encode_label(const char *text, uint32_t code_page, fat_label *out) {
    format_run_label typed{};
    qfs_result r = format_run_encode_label(text, &typed);
    if (r == QFS_OK) r = upcase_label(&typed);
    if (r != QFS_OK) return r;
    // Room for the terminator the conversion always writes.
    uint8_t bytes[fat_ondisk::label_length + 1] = {};
    size_t count = 0;
    if (qfs_unistr_to_codepage(code_page, typed.units, typed.length, nullptr, bytes, sizeof(bytes), &count, 0) ==
        nullptr) {
        fprintf(stderr, "Error: Non-CP%llu characters in volume label.\n", static_cast<unsigned long long>(code_page));
        fflush(stderr);
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    if (!fat_util_label_is_valid(code_page, bytes, count)) {
        format_run_say("Error: Invalid characters in volume label.");
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    fat_label label{};
    memcpy(label.bytes, bytes, count);
    label.length = static_cast<uint8_t>(count);
    *out = label;
    return QFS_OK;
}

// The echo shows the label as stored, read back from its code page.
qfs_result echo_request(const char *device_path, uint32_t code_page, const fat_label *label) {
    format_run_echo_device(device_path);
    if (label == nullptr) {
        return format_run_echo_label(nullptr, 0);
    }
    uint16_t *units = nullptr;
    size_t count = 0;
    if (qfs_unistr_from_codepage(code_page, 0, label->bytes, label->length, nullptr, &units, &count) != QFS_OK) {
        format_run_say("Error while converting volume label to UTF-16.");
        return QFS_ERR_SYS_ILLEGAL_BYTE_SEQUENCE;
    }
    const qfs_unique<uint16_t[]> owned(units);
    return format_run_echo_label(units, count);
}

const char *variant_of(uint8_t fat_type) { return fat_type == 32 ? "32" : fat_type == 16 ? "16" : "12"; }

// What the run asks of the FAT engine besides the device.
struct fat_run {
    uint32_t verbose, force, zero, discard_mode;
    uint32_t code_page;
    const fat_label *label;
    uint32_t tca_relax, tca_align_to_cylinder;
    format_monitor *monitor;
};

// Formats the open device and proves the result by opening it with the volume code.
qfs_result format_and_verify(qfs_device *device, const fat_run &run, const char **out_variant) {
    qfs_result r = fat_format_volume(
        device, run.force != 0, false, run.zero != 0, false, false, run.discard_mode, nullptr, nullptr, nullptr,
        nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, run.code_page,
        run.label ? run.label->bytes : nullptr, run.label ? run.label->length : 0, nullptr, false, true,
        run.tca_relax != 0, false, run.tca_align_to_cylinder != 0, run.monitor);
    if (r != QFS_OK) {
        format_run_report_failure(run.verbose, r);
        return r;
    }
    fat_volume_owner volume;
    const uint32_t mount_flags = (run.code_page << FAT_VOLUME_CODEPAGE_SHIFT) & FAT_VOLUME_CODEPAGE_MASK;
    r = fat_volume_create(device, mount_flags, volume.receive());
    if (r != QFS_OK) {
        QFS_LOG_ERROR_AS(run_function, "Generated invalid volume. fat_volume_create returned: %lu (%s)",
                         QFS_ERR_ARGS(r));
        return r;
    }
    fat_volume_info info{};
    r = fat_volume_get_info(volume, &info);
    if (r == QFS_OK) r = volume.close_and_destroy();
    if (r != QFS_OK) return r;
    *out_variant = variant_of(info.fat_type);
    return QFS_OK;
}

} // namespace

qfs_result format_tarn_fat(const char *device_path, uint64_t code_page, uint32_t verbose, uint32_t force,
                           uint32_t zero, uint32_t discard_mode, uint32_t label_given, const char *label_text,
                           uint32_t tca_relax, uint32_t tca_align_to_cylinder, const char **out_fat_variant,
                           format_monitor *monitor) {
    fat_run run{verbose, force, zero, discard_mode, 0, nullptr, tca_relax, tca_align_to_cylinder, monitor};
    qfs_result r = settle_code_page(code_page, &run.code_page);
    if (r != QFS_OK) return r;
    fat_label label{};
    if (label_given) {
        r = encode_label(label_text, run.code_page, &label);
        if (r != QFS_OK) return r;
        run.label = &label;
    }
    if (verbose) {
        r = echo_request(device_path, run.code_page, run.label);
        if (r != QFS_OK) return r;
    }
    const format_run_device_texts texts{run_function, "Failed to create fat_device: %lu (%s)",
                                        "Failed to open fat_device: %lu (%s)"};
    const char *variant = nullptr;
    r = format_run_on_own_device(device_path, force, texts,
                                 [&](qfs_device *device) { return format_and_verify(device, run, &variant); });
    if (r != QFS_OK) return r;
    if (out_fat_variant != nullptr) *out_fat_variant = variant;
    return QFS_OK;
}
