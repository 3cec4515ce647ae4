#include "layout/format_monitor.h"

#include <cstdio>
#include <cstdlib>

namespace {

void log_formatted(const char *function, uint32_t level, const char *level_name, const char *format,
                   va_list args) {
    char *text = nullptr;
    if (vasprintf(&text, format, args) < 0) {
        return;
    }
    qfs_log_tagged("format_monitor.cpp", function, __LINE__, level, level_name, "%s", text);
    free(text);
}

} // namespace

void format_monitor_info(const format_monitor *monitor, const char *format, ...) {
    if (monitor == nullptr || monitor->info == nullptr) {
        return;
    }
    va_list args;
    va_start(args, format);
    monitor->info(monitor->message_context, format, args);
    va_end(args);
}

void format_monitor_warning_from(const format_monitor *monitor, const char *function, const char *format,
                                 ...) {
    va_list args;
    va_start(args, format);
    if (monitor != nullptr && monitor->warning != nullptr) {
        monitor->warning(monitor->message_context, format, args);
    } else {
        log_formatted(function, QFS_LOG_LEVEL_WARNING, "WARNING", format, args);
    }
    va_end(args);
}

void format_monitor_error_from(const format_monitor *monitor, const char *function, const char *format,
                               ...) {
    va_list args;
    va_start(args, format);
    if (monitor != nullptr && monitor->error != nullptr) {
        monitor->error(monitor->message_context, format, args);
    } else {
        log_formatted(function, QFS_LOG_LEVEL_ERROR, "ERROR", format, args);
    }
    va_end(args);
}

void format_monitor_report(const format_monitor *monitor, const format_volume_report &report) {
    if (monitor == nullptr) {
        return;
    }
    void *context = monitor->report_context;
    if (monitor->file_system_name) monitor->file_system_name(context, report.file_system_name);
    if (monitor->cluster_size) monitor->cluster_size(context, report.cluster_size);
    if (monitor->total_size) monitor->total_size(context, report.total_size);
    if (monitor->data_area_size) monitor->data_area_size(context, report.data_area_size);
    if (monitor->free_space) monitor->free_space(context, report.free_space);
    if (monitor->label) monitor->label(context, report.label);
}
