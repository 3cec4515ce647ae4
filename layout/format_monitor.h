// The record through which a format engine reports messages, results and
// progress to its caller. Every slot but the progress callback may be null.
#pragma once

#include <cstdarg>
#include <cstdint>

#include "support/qfs_logging.h"

struct format_monitor {
    void *message_context;
    void (*info)(void *context, const char *format, va_list args);
    void (*warning)(void *context, const char *format, va_list args);
    void (*error)(void *context, const char *format, va_list args);
    void *report_context;
    void (*file_system_name)(void *context, const char *name);
    void (*cluster_size)(void *context, uint32_t bytes);
    void (*total_size)(void *context, uint64_t bytes);
    void (*data_area_size)(void *context, uint64_t bytes);
    void (*free_space)(void *context, uint64_t bytes);
    void (*label)(void *context, const char *label);
    void (*progress)(void *context, uint32_t percent, const char *text);
};

// Information goes to the info callback only; without one it is dropped.
void format_monitor_info(const format_monitor *monitor, const char *format, ...) QFS_PRINTF(2, 3);

// Warnings and errors go to their callback, or to the log at that level
// under the reporting function's name when the monitor has none.
void format_monitor_warning_from(const format_monitor *monitor, const char *function,
                                 const char *format, ...) QFS_PRINTF(3, 4);
void format_monitor_error_from(const format_monitor *monitor, const char *function,
                               const char *format, ...) QFS_PRINTF(3, 4);

// What a format found out about the new volume, as its caller is told it.
struct format_volume_report {
    const char *file_system_name;
    uint32_t cluster_size;   // bytes
    uint64_t total_size;     // the volume, in bytes
    uint64_t data_area_size; // the clusters, in bytes
    uint64_t free_space;     // bytes
    const char *label;       // UTF-8; empty without a label
};

// Hands each value to its report callback, skipping the missing ones.
void format_monitor_report(const format_monitor *monitor, const format_volume_report &report);

#define format_monitor_warning(monitor, ...) format_monitor_warning_from(monitor, __func__, __VA_ARGS__)
#define format_monitor_error(monitor, ...) format_monitor_error_from(monitor, __func__, __VA_ARGS__)
