#include "support/qfs_logging.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

struct logging_state {
    const char *program_name = nullptr;
    bool kmsg_enabled = true;
    int kmsg_fd = -1;
    bool syslog_open = false;
};

logging_state &state() {
    static logging_state s;
    return s;
}

enum class message_form { plain, kmsg_only, tagged, located };

struct location {
    const char *file;
    const char *function;
    int line;
    const char *level_name;
};

struct free_deleter {
    void operator()(char *p) const { free(p); }
};
using owned_text = std::unique_ptr<char, free_deleter>;

owned_text format_text(const char *format, va_list args) {
    char *text = nullptr;
    if (vasprintf(&text, format, args) < 0) {
        return nullptr;
    }
    return owned_text(text);
}

void kmsg_copy(message_form form, const location &where, const char *format, va_list args) {
    logging_state &s = state();
    if (!s.kmsg_enabled) {
        return;
    }
    if (s.kmsg_fd < 0) {
        s.kmsg_fd = open("/dev/kmsg", O_WRONLY | O_APPEND | O_CLOEXEC);
        if (s.kmsg_fd < 0) {
            // No access to the kernel log: stay quiet for the rest of the process.
            s.kmsg_enabled = false;
            return;
        }
    }
    va_list copy;
    va_copy(copy, args);
    owned_text message = format_text(format, copy);
    va_end(copy);
    if (!message) {
        const qfs_result r = qfs_errno_result();
        fprintf(stderr, "[%s] Error while allocating temporary partial message string: %lld / 0x%llX (%s)\n",
                "KMSG", static_cast<long long>(r), static_cast<unsigned long long>(r), qfs_error_text(r));
        return;
    }
    const char *name = s.program_name ? s.program_name : "";
    const long pid = static_cast<long>(getpid());
    char *line = nullptr;
    int length = -1;
    switch (form) {
    case message_form::plain:
    case message_form::kmsg_only:
        length = asprintf(&line, "%s[%ld]: %s\n", name, pid, message.get());
        break;
    case message_form::tagged:
        length = asprintf(&line, "%s[%ld]: [%s] %s\n", name, pid, where.level_name, message.get());
        break;
    case message_form::located:
        length = asprintf(&line, "%s[%ld]: [%s <%s:%d> %s] %s\n", name, pid, where.level_name,
                          where.file, where.line, where.function, message.get());
        break;
    }
    if (length < 0) {
        const qfs_result r = qfs_errno_result();
        fprintf(stderr, "[%s] Error while allocating full message string: %lld / 0x%llX (%s)\n", "KMSG",
                static_cast<long long>(r), static_cast<unsigned long long>(r), qfs_error_text(r));
        return;
    }
    owned_text owned_line(line);
    if (write(s.kmsg_fd, line, static_cast<size_t>(length)) < 0) {
        close(s.kmsg_fd);
        s.kmsg_fd = -1;
        s.kmsg_enabled = false;
    }
}

void syslog_copy(uint32_t level, const char *prefix, const char *format, va_list args) {
    const int priority = qfs_log_level_to_syslog_level(level);
    if (priority == 0 || !state().syslog_open) {
        return;
    }
    va_list copy;
    va_copy(copy, args);
    owned_text message = format_text(format, copy);
    va_end(copy);
    if (message) {
        syslog(priority, "%s%s", prefix, message.get());
        return;
    }
    const qfs_result r = qfs_errno_result();
    fprintf(stderr, "[%s] Error while allocating temporary message string: %d (%s)\n", "SYSLOG",
            static_cast<int>(r), qfs_error_text(r));
    va_copy(copy, args);
    vsyslog(priority, format, copy);
    va_end(copy);
}

owned_text make_prefix(message_form form, const location &where) {
    char *prefix = nullptr;
    int length = -1;
    if (form == message_form::tagged) {
        length = asprintf(&prefix, "[%s] ", where.level_name);
    } else if (form == message_form::located) {
        length = asprintf(&prefix, "[%s <%s:%d> %s] ", where.level_name, where.file, where.line,
                          where.function);
    } else {
        length = asprintf(&prefix, "%s", "");
    }
    return length < 0 ? nullptr : owned_text(prefix);
}

void emit(message_form form, const location &where, uint32_t level, bool to_stderr, bool to_kmsg,
          bool to_syslog, const char *format, va_list args) {
    const int saved_errno = errno;
    owned_text prefix = make_prefix(form, where);
    if (to_stderr) {
        if (prefix) {
            fputs(prefix.get(), stderr);
        }
        va_list copy;
        va_copy(copy, args);
        vfprintf(stderr, format, copy);
        va_end(copy);
        fputc('\n', stderr);
        fflush(stderr);
    }
    if (to_kmsg) {
        kmsg_copy(form, where, format, args);
    }
    if (to_syslog) {
        if (prefix) {
            syslog_copy(level, prefix.get(), format, args);
        } else if (state().syslog_open && qfs_log_level_to_syslog_level(level) != 0) {
            const qfs_result r = qfs_errno_result();
            fprintf(stderr, "[%s] Error while allocating temporary prefix string: %d (%s)\n", "SYSLOG",
                    static_cast<int>(r), qfs_error_text(r));
            va_list copy;
            va_copy(copy, args);
            vsyslog(qfs_log_level_to_syslog_level(level), format, copy);
            va_end(copy);
        }
    }
    errno = saved_errno;
}

} // namespace

void qfs_log_set_program_name(const char *name) {
    state().program_name = name;
}

void qfs_log_set_kmsg_enabled(bool enabled) {
    logging_state &s = state();
    if (s.kmsg_fd >= 0) {
        close(s.kmsg_fd);
        s.kmsg_fd = -1;
    }
    s.kmsg_enabled = enabled;
}

void qfs_log_tagged(const char *file, const char *function, int line, uint32_t level,
                    const char *level_name, const char *format, ...) {
    va_list args;
    va_start(args, format);
    emit(message_form::tagged, {file, function, line, level_name}, level, true, true, true, format, args);
    va_end(args);
}

void qfs_log_located(const char *file, const char *function, int line, uint32_t level,
                     const char *level_name, const char *format, ...) {
    va_list args;
    va_start(args, format);
    emit(message_form::located, {file, function, line, level_name}, level, true, true, true, format, args);
    va_end(args);
}

void qfs_log_plain(uint32_t level, const char *format, ...) {
    va_list args;
    va_start(args, format);
    emit(message_form::plain, {"", "", 0, ""}, level, true, true, true, format, args);
    va_end(args);
}

void qfs_log_located_stderr(const char *file, const char *function, int line, uint32_t level,
                            const char *level_name, const char *format, ...) {
    va_list args;
    va_start(args, format);
    emit(message_form::located, {file, function, line, level_name}, level, true, false, false, format, args);
    va_end(args);
}

void qfs_log_kmsg_only(uint32_t level, const char *format, ...) {
    va_list args;
    va_start(args, format);
    emit(message_form::kmsg_only, {"", "", 0, ""}, level, false, true, false, format, args);
    va_end(args);
}

void qfs_log_syslog(uint32_t level, const char *format, ...) {
    const int priority = qfs_log_level_to_syslog_level(level);
    if (priority == 0 || !state().syslog_open) {
        return;
    }
    va_list args;
    va_start(args, format);
    vsyslog(priority, format, args);
    va_end(args);
}

void qfs_log_open_syslog(const char *identity, int daemon) {
    logging_state &s = state();
    if (s.syslog_open) {
        QFS_LOG_WARNING("Tried to reopen syslog.");
        return;
    }
    openlog(identity, LOG_PID, daemon ? LOG_DAEMON : LOG_USER);
    s.syslog_open = true;
}

void qfs_log_close_syslog() {
    logging_state &s = state();
    if (!s.syslog_open) {
        QFS_LOG_WARNING("Tried to close not opened syslog.");
        return;
    }
    closelog();
    s.syslog_open = false;
}

int qfs_log_level_to_syslog_level(uint32_t level) {
    switch (level) {
    case QFS_LOG_LEVEL_CRITICAL: return LOG_CRIT;
    case QFS_LOG_LEVEL_ERROR: return LOG_ERR;
    case QFS_LOG_LEVEL_NOTICE: return LOG_NOTICE;
    case QFS_LOG_LEVEL_INFO: return LOG_INFO;
    case QFS_LOG_LEVEL_WARNING: return LOG_WARNING;
    case QFS_LOG_LEVEL_DEBUG:
    case QFS_LOG_LEVEL_TRACE: return LOG_DEBUG;
    default:
        QFS_LOG_ERROR("Unrecognized log level passed to %s: %d", __func__, static_cast<int>(level));
        return 0;
    }
}

#if defined(QFS_TRACE_ENABLED)
namespace {
qfs_trace_hook trace_hook = nullptr;
void *trace_context = nullptr;
} // namespace

qfs_trace_hook qfs_trace_set_hook(qfs_trace_hook hook, void *context) {
    qfs_trace_hook previous = trace_hook;
    trace_hook = hook;
    trace_context = context;
    return previous;
}

void qfs_trace(const char *, const char *function, int, const char *format, ...) {
    if (trace_hook == nullptr) {
        return;
    }
    const int saved_errno = errno;
    va_list args;
    va_start(args, format);
    owned_text message = format_text(format, args);
    va_end(args);
    if (message) {
        trace_hook(trace_context, function, message.get());
    }
    errno = saved_errno;
}
#endif
