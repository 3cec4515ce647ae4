// The one logging facility: standard error, a copy in the kernel log and,
// when a caller opened it, syslog.
#pragma once

#include <cstdarg>
#include <cstdint>

#include "support/qfs_error.h"

#define QFS_PRINTF(fmt_index, args_index) __attribute__((format(printf, fmt_index, args_index)))

enum qfs_log_level : uint32_t {
    QFS_LOG_LEVEL_CRITICAL = 0,
    QFS_LOG_LEVEL_ERROR = 1,
    QFS_LOG_LEVEL_NOTICE = 2,
    QFS_LOG_LEVEL_INFO = 3,
    QFS_LOG_LEVEL_WARNING = 4,
    QFS_LOG_LEVEL_DEBUG = 5,
    QFS_LOG_LEVEL_TRACE = 6,
};

// Program name shown in front of kernel-log lines; null for none. The text is not copied.
void qfs_log_set_program_name(const char *name);

// "[LEVEL] message" on standard error; used for ERROR and WARNING.
void qfs_log_tagged(const char *file, const char *function, int line, uint32_t level,
                    const char *level_name, const char *format, ...) QFS_PRINTF(6, 7);
// "[LEVEL <file:line> function] message" on standard error; used for CRITICAL.
void qfs_log_located(const char *file, const char *function, int line, uint32_t level,
                     const char *level_name, const char *format, ...) QFS_PRINTF(6, 7);
// The message alone.
void qfs_log_plain(uint32_t level, const char *format, ...) QFS_PRINTF(2, 3);
// A located message on standard error only.
void qfs_log_located_stderr(const char *file, const char *function, int line, uint32_t level,
                            const char *level_name, const char *format, ...) QFS_PRINTF(6, 7);
// A message to the kernel log only.
void qfs_log_kmsg_only(uint32_t level, const char *format, ...) QFS_PRINTF(2, 3);
// A message to syslog only.
void qfs_log_syslog(uint32_t level, const char *format, ...) QFS_PRINTF(2, 3);

void qfs_log_open_syslog(const char *identity, int daemon);
void qfs_log_close_syslog();
int qfs_log_level_to_syslog_level(uint32_t level);

// Test hook: switch the kernel-log copy on or off and forget its descriptor.
void qfs_log_set_kmsg_enabled(bool enabled);

#define QFS_LOG_ERROR(...) \
    qfs_log_tagged(__FILE_NAME__, __func__, __LINE__, QFS_LOG_LEVEL_ERROR, "ERROR", __VA_ARGS__)
#define QFS_LOG_WARNING(...) \
    qfs_log_tagged(__FILE_NAME__, __func__, __LINE__, QFS_LOG_LEVEL_WARNING, "WARNING", __VA_ARGS__)
#define QFS_LOG_CRITICAL(...) \
    qfs_log_located(__FILE_NAME__, __func__, __LINE__, QFS_LOG_LEVEL_CRITICAL, "CRITICAL", __VA_ARGS__)

// Logging under an explicit function name (the main flow logs as "_qfs_main").
#define QFS_LOG_ERROR_AS(function, ...) \
    qfs_log_tagged(__FILE_NAME__, function, __LINE__, QFS_LOG_LEVEL_ERROR, "ERROR", __VA_ARGS__)
#define QFS_LOG_CRITICAL_AS(function, ...) \
    qfs_log_located(__FILE_NAME__, function, __LINE__, QFS_LOG_LEVEL_CRITICAL, "CRITICAL", __VA_ARGS__)

// Debug trace: parameter dumps, layout values, table matching. It produces no
// output in the tool; test builds compile it in so tests can watch decisions.
#if defined(QFS_TRACE_ENABLED)
void qfs_trace(const char *file, const char *function, int line, const char *format, ...)
    QFS_PRINTF(4, 5);
using qfs_trace_hook = void (*)(void *context, const char *function, const char *message);
// Installs a receiver for trace lines (null removes it); returns the previous one.
qfs_trace_hook qfs_trace_set_hook(qfs_trace_hook hook, void *context);
#define QFS_TRACE(...) qfs_trace(__FILE_NAME__, __func__, __LINE__, __VA_ARGS__)
#else
inline void qfs_trace_discard(const char *, ...) QFS_PRINTF(1, 2);
inline void qfs_trace_discard(const char *, ...) {}
// Keeps the format checked while generating no code.
#define QFS_TRACE(...)                            \
    do {                                          \
        if (false) qfs_trace_discard(__VA_ARGS__); \
    } while (0)
#endif
