#include "layout/format_progress.h"

void format_progress_set_message(format_progress *progress, const char *message) {
    if (progress == nullptr) return;
    progress->message = message;
    format_monitor_info(progress->monitor, "%s", message);
}

void format_progress_add(format_progress *progress, uint64_t bytes) {
    if (progress == nullptr) return;
    progress->done += bytes;
    const format_monitor *monitor = progress->monitor;
    if (monitor == nullptr || monitor->progress == nullptr) return;
    const uint64_t percent = progress->expected ? progress->done * 100 / progress->expected : 100;
    monitor->progress(monitor->report_context, static_cast<uint32_t>(percent),
                      progress->message ? progress->message : "");
}
