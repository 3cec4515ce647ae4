#include "cli/format_tarn.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "cli/banner.h"
#include "cli/capacity_check.h"
#include "cli/card_list.h"
#include "cli/card_plan.h"
#include "cli/fixed_disk_guard.h"
#include "cli/format_options.h"
#include "cli/format_output.h"
#include "cli/format_runs.h"
#include "cli/format_tarn_args.h"
#include "cli/standard_streams.h"
#include "cli/update_check.h"
#include "cli/version.h"
#include "device/qfs_device.h"
#include "device/qfs_device_hold.h"
#include "support/qfs_logging.h"
#include "support/qfs_memory.h"
#include "support/qfs_scope.h"

#include <memory>

namespace {

constexpr const char *main_function = "_qfs_main";

// Creation flags for the first look at the device: read-only, no locking.
constexpr uint64_t inspection_flags = QFS_DEVICE_FLAG_READ_ONLY | QFS_DEVICE_FLAG_NO_LOCKING;

enum : uint32_t { discard_none = 0, discard_regular = 1, discard_secure = 2 };

// Where --list and the fixed-disk refusal read sysfs and the mount table.
const qfs_system_paths *system_paths = &qfs_system_paths_default;

void monitor_info(void *, const char *format, va_list args) {
    if (!format_tarn_options.verbose) return;
    vfprintf(stderr, format, args);
    fputs("\n", stderr);
    fflush(stderr);
}

// Engine warnings are deliberately silent in the tool.
void monitor_warning(void *, const char *, va_list) {}

void monitor_error(void *, const char *format, va_list args) {
    fputs("ERROR: ", stderr);
    vfprintf(stderr, format, args);
    fputs("\n", stderr);
    fflush(stderr);
}

format_monitor make_monitor(format_output_context *output) {
    return format_monitor{
        nullptr,
        monitor_info,
        monitor_warning,
        monitor_error,
        output,
        format_update_fstype,
        format_update_cluster_size,
        format_update_device_total_bytes,
        format_update_fs_total_bytes,
        format_update_fs_bytes_free,
        format_update_fslabel,
        format_update_progress,
    };
}

qfs_result run_update_check() {
    int available = 0;
    int32_t latest_raw = 0;
    char *latest_text = nullptr;
    qfs_result r = update_check(&available, &latest_raw, &latest_text);
    if (r != QFS_OK) {
        QFS_LOG_ERROR_AS(main_function, "Error while checking for updates: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    qfs_unique<char[]> latest(latest_text);
    char *current_text = nullptr;
    size_t current_length = 0;
    r = format_make_version_str(FORMAT_TARN_RAW_VERSION, &current_text, &current_length);
    if (r != QFS_OK) {
        QFS_LOG_ERROR_AS(main_function, "Error when creating current version string: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    qfs_unique<char[]> current(current_text);
    fputs(available ? "An update is available.\n" : "No update available.\n", stdout);
    fprintf(stdout, "The current version is %s.\n", current.get());
    fprintf(stdout, "The latest version is %s.\n", latest.get());
    if (available) {
        fprintf(stdout, "\nThe latest version can be downloaded at:\n\t%s\n\n", FORMAT_TARN_DOWNLOAD_URL);
    }
    format_flush(stdout);
    return QFS_OK;
}

struct hold_releaser {
    void operator()(qfs_device_hold *hold) const { qfs_device_hold_destroy(&hold); }
};
using device_hold = std::unique_ptr<qfs_device_hold, hold_releaser>;

// Takes the card for the rest of the run; answers QFS_ERR_SYS_BUSY when someone else has it.
qfs_result take_hold(const char *path, bool force, device_hold &hold) {
    qfs_device_hold *taken = nullptr;
    // A forced run must not claim the device exclusively: it may be mounted on purpose.
    const qfs_result r = qfs_device_hold_create(path, !force, &taken);
    if (r == QFS_OK) {
        hold.reset(taken);
    } else if (r != QFS_ERR_SYS_BUSY) {
        QFS_LOG_ERROR_AS(main_function, "Error while locking the device for formatting: %lu (%s)", QFS_ERR_ARGS(r));
    }
    return r;
}

// Refuses a mounted or busy device unless forced, and holds a free one. Answers 0 to go on.
qfs_result check_in_use(qfs_device *device, const char *path, bool force, device_hold &hold) {
    uint32_t mounted = 0, busy = 0;
    qfs_result r = qfs_device_check_if_in_use(device, &mounted, &busy);
    if (r != QFS_OK) {
        QFS_LOG_ERROR_AS(main_function, "Error while checking if the device is in use: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    if (!mounted && !busy) {
        // Whoever got the device since the check above makes it busy after all.
        r = take_hold(path, force, hold);
        if (r == QFS_OK) return QFS_OK;
        if (r != QFS_ERR_SYS_BUSY) return r;
        busy = 1;
    }
    // A device both mounted and busy is reported as mounted only.
    const char *state_line = mounted ? "Warning: %s is mounted." : "Warning: %s is in use.";
    fprintf(stderr, state_line, path);
    fputs("\n", stderr);
    if (!force) {
        fputs(mounted ? "Refusing to create a new filesystem on a mounted device.\n"
                      : "Refusing to create a new filesystem on a busy device.\n",
              stderr);
        fflush(stderr);
        return mounted ? QFS_ERR_SYS_INVALID_ARGUMENT : QFS_ERR_SYS_BUSY;
    }
    fprintf(stderr, "%s is forced anyway.\n", "format_tarn");
    fflush(stderr);
    return QFS_OK;
}

// The inspection of steps "device checks" up to the size; the handle is closed again before a run.
struct inspection {
    qfs_device *device = nullptr;
    bool open = false;
    device_hold hold; // outlives the inspection: released only after the format
};

qfs_result inspect_device(inspection &look, const char *path, bool is_regular_file, uint64_t *out_sectors) {
    qfs_result r = qfs_device_create_default(path, inspection_flags, &look.device);
    if (r != QFS_OK) {
        QFS_LOG_ERROR_AS(main_function, "Failed to create fat_device: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    r = check_in_use(look.device, path, format_tarn_options.force != 0, look.hold);
    if (r != QFS_OK) {
        return r;
    }
    r = qfs_device_open(look.device, static_cast<int>(format_tarn_options.force));
    if (r != QFS_OK) {
        QFS_LOG_ERROR_AS(main_function, "Failed to open fat_device: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    look.open = true;
    if (!is_regular_file) {
        uint64_t start = 0;
        r = qfs_device_get_partition_start_sector(look.device, &start);
        if (r == QFS_ERR_SYS_NO_ENTRY) {
            start = 0; // a whole device has no partition start
        } else if (r != QFS_OK) {
            QFS_LOG_ERROR_AS(main_function, "Error while getting device start sector: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
        if (start != 0) {
            QFS_LOG_ERROR_AS(main_function,
                             "Device '%s' seems to be a partition. This tool should only be run on top-level "
                             "block devices.",
                             path);
            return QFS_ERR_INVALID_PARAMETER;
        }
    }
    uint64_t sectors = 0;
    r = qfs_device_get_size_in_sectors(look.device, 512, &sectors);
    if (r != QFS_OK) {
        QFS_LOG_ERROR_AS(main_function, "Error while getting device sector count: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    r = qfs_device_close(look.device);
    if (r != QFS_OK) {
        QFS_LOG_ERROR_AS(main_function, "Error while closing device: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    look.open = false;
    // The runs open the device anew; a failure to free this first look changes nothing for them.
    static_cast<void>(qfs_device_destroy(&look.device));
    *out_sectors = sectors;
    return QFS_OK;
}

void release_inspection(inspection &look, qfs_first_error &result) {
    if (look.device == nullptr) {
        return;
    }
    if (look.open) {
        const qfs_result r = qfs_device_close(look.device);
        if (r != QFS_OK) {
            QFS_LOG_ERROR_AS(main_function, "Error while attempting to close open device at cleanup: %lu (%s)",
                             QFS_ERR_ARGS(r));
            result.keep(r);
        }
        look.open = false;
    }
    const qfs_result r = qfs_device_destroy(&look.device);
    if (r != QFS_OK) {
        QFS_LOG_ERROR_AS(main_function, "Error while attempting to destroy device handle at cleanup: %lu (%s)",
                         QFS_ERR_ARGS(r));
        result.keep(r);
    }
}

void print_volume_information(const format_output_context &output, const char *path, uint64_t sectors) {
    fprintf(stderr, "%s formatting of \"%s\" was successfully completed.\n", format_card_class_name(sectors), path);
    fflush(stderr);
    fputs("Volume information:\n", stderr);
    fflush(stderr);
    fprintf(stderr, "\tFile system: %s\n", output.fs_type ? output.fs_type : "");
    fflush(stderr);
    format_print_size_line("\tCapacity: ", output.device_total_bytes);
    format_print_size_line("\tFree space: ", output.fs_bytes_free);
    format_print_size_line("\tCluster size: ", output.cluster_size);
    if (format_tarn_options.label_given && output.label != nullptr) {
        fprintf(stderr, "\tVolume label: %s\n", output.label);
        fflush(stderr);
    }
}

qfs_result format_device(const char *path, format_output_context &output) {
    const format_options &opts = format_tarn_options;
    struct stat st {};
    if (stat(path, &st) != 0) {
        st = {}; // treated as not a regular file
    }
    // Opening a FIFO for reading waits for a writer, and neither it nor a socket can hold a card.
    if (S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode)) {
        QFS_LOG_ERROR_AS(main_function, "Device '%s' is neither a block device nor an image file.", path);
        return QFS_ERR_SYS_INVALID_ARGUMENT;
    }
    inspection look;
    qfs_first_error result;
    uint64_t sectors = 0;
    result.keep(inspect_device(look, path, S_ISREG(st.st_mode), &sectors));
    release_inspection(look, result);
    if (result.failed()) {
        return result.result;
    }
    // A partition was refused above; a whole disk must be one that takes cards, or be allowed.
    if (S_ISBLK(st.st_mode)) {
        const qfs_result r =
            format_check_fixed_disk(system_paths, path, st.st_rdev, opts.allow_fixed_disk != 0);
        if (r != QFS_OK) {
            return r;
        }
    }

    const bool use_exfat = sectors > FORMAT_EXFAT_THRESHOLD_SECTORS;
    const uint32_t discard_mode = opts.secure_discard ? discard_secure : opts.discard ? discard_regular : discard_none;

    format_output_init(stdout, &output);
    if (opts.progress_bar) {
        qfs_result r = format_setup_signal_handlers();
        if (r != QFS_OK) {
            QFS_LOG_ERROR_AS(main_function, "Error setting up signal handlers: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
        r = get_window_size(&output);
        if (r != QFS_OK) {
            QFS_LOG_ERROR_AS(main_function, "Error while getting window size: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
    }
    format_monitor monitor = make_monitor(&output);
    qfs_result r = QFS_OK;
    // The card is still held from the inspection; not a byte of the format is written yet.
    if (opts.check_capacity) {
        r = format_check_capacity(path, st, sectors * 512, &monitor);
        if (r != QFS_OK) return r;
    }
    if (use_exfat) {
        r = format_tarn_exfat(path, opts.verbose, opts.force, opts.zero, discard_mode, opts.label_given, opts.label,
                              opts.tca_relax, &monitor);
    } else {
        const char *fat_variant = nullptr;
        r = format_tarn_fat(path, opts.code_page, opts.verbose, opts.force, opts.zero, discard_mode,
                            opts.label_given, opts.label, opts.tca_relax, opts.tca_align_to_cylinder, &fat_variant,
                            &monitor);
    }
    if (r == QFS_OK) {
        print_volume_information(output, path, sectors);
        if (opts.dry_run) {
            fprintf(stderr, "Dry run: nothing was written to \"%s\".\n", path);
            fflush(stderr);
        }
    }
    return r;
}

} // namespace

qfs_result _qfs_main(int argc, char **argv) {
    print_tca_header(stderr);
    if (!format_parse_args(argc, argv)) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    const format_options &opts = format_tarn_options;
    if (opts.help) {
        print_help(stdout, argv[0]);
        return QFS_OK;
    }
    if (opts.about) {
        print_about(stdout);
        return QFS_OK;
    }
    if (opts.progress_bar && !isatty(STDOUT_FILENO)) {
        fputs("Error: Cannot specify --progress-bar option when standard output does not refer to a terminal.\n",
              stderr);
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (opts.update_check) {
        return run_update_check();
    }
    if (opts.list) {
        return format_list_disks(system_paths, opts.list_all != 0, opts.list_json != 0);
    }
    format_output_context output{};
    const qfs_result r = format_device(opts.device, output);
    format_output_release(&output);
    return r;
}

void format_tarn_set_system_paths(const qfs_system_paths *paths) {
    system_paths = paths != nullptr ? paths : &qfs_system_paths_default;
}

int format_tarn(int argc, char **argv) {
    qfs_result r = _qfs_main(argc, argv);
    // Lost output fails the run, but only after the card was finished.
    const qfs_result lost = format_stdout_failure();
    if (lost != QFS_OK) {
        QFS_LOG_ERROR_AS(main_function, "Output to standard output was lost: %lu (%s)", QFS_ERR_ARGS(lost));
        if (r == QFS_OK) r = lost;
    }
    return r == QFS_OK ? 0 : 1;
}
