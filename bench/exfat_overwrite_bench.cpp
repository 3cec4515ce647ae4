// Overwrites a whole image through the exFAT engine: default geometry, no
// card tables, every byte zero-filled. It drives the same padded writer and
// zero-fill walk a full overwrite of a small card will use, so its speed can
// be measured before the FAT engine exists.
//
//     exfat_overwrite_bench <image>
//
// Prints the seconds spent formatting and closing; exits 0 on success.
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "device/qfs_device.h"
#include "device/qfs_device_owner.h"
#include "exfat/format.h"
#include "layout/format_monitor.h"
#include "support/qfs_error.h"

namespace {

void print_line(const char *prefix, const char *format, va_list args) {
    fputs(prefix, stderr);
    vfprintf(stderr, format, args);
    fputs("\n", stderr);
}

void on_info(void *, const char *, va_list) {}
void on_warning(void *, const char *format, va_list args) { print_line("warning: ", format, args); }
void on_error(void *, const char *format, va_list args) { print_line("error: ", format, args); }

// Counts the engine's progress reports; the engine reports after every chunk it writes.
void on_progress(void *context, uint32_t, const char *) { ++*static_cast<uint64_t *>(context); }

double seconds_since(const timespec &start) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec - start.tv_sec) + static_cast<double>(now.tv_nsec - start.tv_nsec) / 1e9;
}

int fail(const char *what, qfs_result r) {
    fprintf(stderr, "%s: %lu (%s)\n", what, QFS_ERR_ARGS(r));
    return 1;
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s <image>\n", argv[0]);
        return 2;
    }
    qfs_device_owner device;
    qfs_result r = qfs_device_create_default(argv[1], 0, device.receive());
    if (r != QFS_OK) return fail("Failed to create the device", r);

    // An image answers no sector-size query: force lets the engine assume 512-byte sectors.
    constexpr bool force = true;
    r = qfs_device_open(device, force);
    if (r != QFS_OK) return fail("Failed to open the device", r);

    uint64_t progress_reports = 0;
    const format_monitor monitor{nullptr,     on_info, on_warning, on_error, &progress_reports, nullptr, nullptr,
                                 nullptr,     nullptr, nullptr,    nullptr,  on_progress};
    timespec start{};
    clock_gettime(CLOCK_MONOTONIC, &start);
    constexpr bool zero_data = true;
    r = exfat_format_volume(device, force, false, zero_data, false, false, EXFAT_DISCARD_NONE, nullptr, nullptr,
                            nullptr, nullptr, nullptr, nullptr, 0, nullptr, nullptr, nullptr, false, false, false,
                            false, &monitor);
    if (r != QFS_OK) return fail("Formatting failed", r);
    const double format_seconds = seconds_since(start);

    // The close flushes the page cache, so it is timed on its own.
    r = qfs_device_close(device);
    if (r != QFS_OK) return fail("Failed to close the device", r);
    printf("format_seconds=%.3f close_seconds=%.3f progress_reports=%llu\n", format_seconds,
           seconds_since(start) - format_seconds, static_cast<unsigned long long>(progress_reports));
    return 0;
}
