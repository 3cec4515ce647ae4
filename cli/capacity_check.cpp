#include "cli/capacity_check.h"

#include <csignal>
#include <cstdio>

#include "cli/format_options.h"
#include "cli/format_output.h"
#include "device/qfs_capacity_probe.h"
#include "device/qfs_device.h"
#include "device/qfs_device_owner.h"
#include "support/qfs_logging.h"

namespace {

constexpr const char *main_function = "_qfs_main";

volatile sig_atomic_t stop_requested = 0;

void request_stop(int) { stop_requested = 1; }

// Ctrl-C, a closed terminal or a polite kill during the check only set a
// flag: the check stops at the next block and puts the card back first.
class stop_signals {
public:
    stop_signals() {
        stop_requested = 0;
        struct sigaction action {};
        action.sa_handler = request_stop;
        sigemptyset(&action.sa_mask);
        for (size_t i = 0; i < count; ++i) sigaction(signals[i], &action, &previous[i]);
    }
    ~stop_signals() {
        for (size_t i = 0; i < count; ++i) sigaction(signals[i], &previous[i], nullptr);
    }
    stop_signals(const stop_signals &) = delete;
    stop_signals &operator=(const stop_signals &) = delete;

private:
    static constexpr int signals[] = {SIGINT, SIGTERM, SIGHUP};
    static constexpr size_t count = sizeof(signals) / sizeof(signals[0]);
    struct sigaction previous[count] {};
};

void report_progress(void *context, uint32_t percent, const char *step) {
    const auto *monitor = static_cast<const format_monitor *>(context);
    monitor->progress(monitor->report_context, percent, step);
}

bool stop_asked(void *) { return stop_requested != 0; }

// The check itself, on a second handle that bypasses the page cache.
qfs_result probe(const char *path, uint64_t claimed_bytes, const format_monitor *monitor,
                 qfs_capacity_verdict *verdict) {
    qfs_device_owner device;
    qfs_result r = qfs_device_create_default(path, QFS_DEVICE_FLAG_DIRECT_IO, device.receive());
    if (r == QFS_OK) r = qfs_device_open(device, static_cast<int>(format_tarn_options.force));
    if (r != QFS_OK) {
        QFS_LOG_ERROR_AS(main_function, "Failed to open '%s' for the capacity check: %lu (%s)", path, QFS_ERR_ARGS(r));
        return r;
    }
    const stop_signals signals;
    const qfs_capacity_hooks hooks{const_cast<format_monitor *>(monitor), report_progress, stop_asked, nullptr, 0};
    r = qfs_capacity_probe(device, claimed_bytes, &hooks, verdict);
    const qfs_result closed = device.close_and_destroy();
    return r != QFS_OK ? r : closed;
}

} // namespace

qfs_result format_check_capacity(const char *path, const struct stat &info, uint64_t claimed_bytes,
                                 const format_monitor *monitor) {
    if (!S_ISBLK(info.st_mode)) {
        fprintf(stderr, S_ISREG(info.st_mode)
                            ? "Capacity check skipped: \"%s\" is an image file, which holds whatever it is given.\n"
                            : "Capacity check skipped: \"%s\" is not a block device.\n",
                path);
        fflush(stderr);
        return QFS_OK;
    }
    if (format_tarn_options.dry_run) {
        fputs("Capacity check skipped: a dry run writes nothing to the card.\n", stderr);
        fflush(stderr);
        return QFS_OK;
    }
    char claimed[FORMAT_SIZE_TEXT_SIZE];
    format_size_text(claimed_bytes, claimed, sizeof(claimed));
    format_monitor_info(monitor, "Checking that \"%s\" stores all of its %s...", path, claimed);
    qfs_capacity_verdict verdict{};
    const qfs_result r = probe(path, claimed_bytes, monitor, &verdict);
    if (r == QFS_ERR_SYS_INTERRUPTED) {
        fputs("Capacity check interrupted: every block it wrote was put back, nothing was formatted.\n", stderr);
        fflush(stderr);
        return r;
    }
    if (r != QFS_OK) {
        return r;
    }
    const double seconds = static_cast<double>(verdict.microseconds) / 1e6;
    format_monitor_info(monitor, "Capacity check done in %.1f s, %llu MiB written.", seconds,
                        static_cast<unsigned long long>(verdict.bytes_written >> 20));
    if (verdict.genuine) {
        fprintf(stderr, "Capacity check passed: %u addresses across all of %s read back right in %.1f s.\n",
                verdict.addresses, claimed, seconds);
        fflush(stderr);
        return QFS_OK;
    }
    char real[FORMAT_SIZE_TEXT_SIZE];
    format_size_text(verdict.real_bytes, real, sizeof(real));
    QFS_LOG_ERROR_AS(main_function,
                     "Fake capacity: \"%s\" claims %s but stores only %s (to within 1%%); data written past that "
                     "point overwrites earlier data or is lost. Nothing was formatted and the card is as it was.",
                     path, claimed, real);
    return QFS_ERR_SYS_NO_SPACE;
}
