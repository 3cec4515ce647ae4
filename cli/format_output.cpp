#include "cli/format_output.h"

#include "cli/format_options.h"
#include "cli/standard_streams.h"

#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "support/qfs_logging.h"
#include "support/qfs_memory.h"
#include "support/qfs_support.h"

namespace {

volatile sig_atomic_t window_changed = 0;

// Width of "[" + "] 100 %" around the bar cells.
constexpr uint32_t bar_decoration_width = 8;

struct size_unit {
    uint64_t divisor;
    const char *prefix;
};
constexpr size_unit size_units[] = {
    {1ull, ""},
    {1ull << 10, "ki"},
    {1ull << 20, "Mi"},
    {1ull << 30, "Gi"},
    {1ull << 40, "Ti"},
    {1ull << 50, "Pi"},
    {1ull << 60, "Ei"},
};

format_output_context *as_context(void *context) { return static_cast<format_output_context *>(context); }

void replace_copy(char **slot, const char *text) {
    char *copy = nullptr;
    const qfs_result r = qfs_strdup(text, &copy);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while duplicating string.: %lu (%s)", QFS_ERR_ARGS(r));
        return;
    }
    qfs_free(*slot);
    *slot = copy;
}

void on_window_change(int signal_number) {
    if (signal_number == SIGWINCH) {
        window_changed = 1;
    }
}

void draw_progress_bar(format_output_context *context, uint32_t percent, const char *text) {
    FILE *out = context->stream;
    fprintf(out, "\r%s", percent > 99 ? "Done" : text);
    fputs("\x1b[0K", out);
    fputs("\n", out);

    // A terminal narrower than the decoration gets an empty bar instead of a wrapped width.
    const uint32_t width = context->columns > bar_decoration_width ? context->columns - bar_decoration_width : 0;
    const uint64_t scaled = static_cast<uint64_t>(width) * percent;
    uint64_t filled = scaled / 100;
    uint64_t cells = filled + (scaled % 100 != 0 ? 1 : 0);
    if (cells > width) {
        cells = filled = width;
    }
    fputs("\r[", out);
    for (uint64_t i = 0; i < filled; ++i) fputc('=', out);
    if (cells > filled) fputc('-', out);
    for (uint64_t i = cells; i < width; ++i) fputc(' ', out);
    fprintf(out, "] %3lu %%", static_cast<unsigned long>(percent));
    if (percent != 100) {
        fputs("\r\x1b[A", out);
    } else {
        fputs("\n", out);
    }
    format_flush(out);
}

} // namespace

void format_output_init(FILE *stream, format_output_context *context) {
    *context = format_output_context{};
    context->stream = stream;
}

void format_output_release(format_output_context *context) {
    qfs_free(context->fs_type);
    qfs_free(context->label);
    *context = format_output_context{};
}

void format_update_fstype(void *context, const char *name) {
    if (format_tarn_options.tca_formatter_progress) {
        fprintf(stdout, "FSTYPE:%s\n", name);
        format_flush(stdout);
    }
    if (context) replace_copy(&as_context(context)->fs_type, name);
}

void format_update_cluster_size(void *context, uint32_t bytes) {
    if (format_tarn_options.tca_formatter_progress) {
        fprintf(stdout, "FSCLUSTERSIZE:%lu\n", static_cast<unsigned long>(bytes));
        format_flush(stdout);
    }
    if (context) as_context(context)->cluster_size = bytes;
}

void format_update_device_total_bytes(void *context, uint64_t bytes) {
    if (format_tarn_options.tca_formatter_progress) {
        fprintf(stdout, "DEVICETOTALBYTES:%llu\n", static_cast<unsigned long long>(bytes));
        format_flush(stdout);
    }
    if (context) as_context(context)->device_total_bytes = bytes;
}

void format_update_fs_total_bytes(void *context, uint64_t bytes) {
    if (format_tarn_options.tca_formatter_progress) {
        fprintf(stdout, "FSTOTALBYTES:%llu\n", static_cast<unsigned long long>(bytes));
        format_flush(stdout);
    }
    if (context) as_context(context)->fs_total_bytes = bytes;
}

void format_update_fs_bytes_free(void *context, uint64_t bytes) {
    if (format_tarn_options.tca_formatter_progress) {
        fprintf(stdout, "FSBYTESFREE:%llu\n", static_cast<unsigned long long>(bytes));
        format_flush(stdout);
    }
    if (context) as_context(context)->fs_bytes_free = bytes;
}

void format_update_fslabel(void *context, const char *label) {
    if (format_tarn_options.tca_formatter_progress) {
        fprintf(stdout, "FSLABEL:%s\n", label);
        format_flush(stdout);
    }
    if (context) replace_copy(&as_context(context)->label, label);
}

void format_update_progress(void *context, uint32_t percent, const char *text) {
    if (format_tarn_options.tca_formatter_progress) {
        fprintf(stdout, "PROGRESS:%lu/%lu %s\n", static_cast<unsigned long>(percent), 100ul, text);
        format_flush(stdout);
        return;
    }
    if (!format_tarn_options.progress_bar || context == nullptr) {
        return;
    }
    format_output_context *ctx = as_context(context);
    if (window_changed) {
        const qfs_result r = get_window_size(ctx);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Error when refreshing window size: %lu (%s)", QFS_ERR_ARGS(r));
        }
        window_changed = 0;
    }
    draw_progress_bar(ctx, percent, text);
}

qfs_result get_window_size(format_output_context *context) {
    struct winsize size {};
    if (ioctl(fileno(context->stream), TIOCGWINSZ, &size) != 0) {
        const qfs_result r = qfs_errno_result();
        QFS_LOG_ERROR("Error from 'ioctl(TIOCGWINSZ)': %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    context->rows = size.ws_row;
    context->columns = size.ws_col;
    return QFS_OK;
}

bool format_window_changed() { return window_changed != 0; }

qfs_result format_setup_signal_handlers() {
    sigset_t all, previous;
    if (sigfillset(&all) != 0) {
        const qfs_result r = qfs_errno_result();
        QFS_LOG_ERROR("Error from 'sigfillset': %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    if (sigprocmask(SIG_BLOCK, &all, &previous) != 0) {
        const qfs_result r = qfs_errno_result();
        QFS_LOG_ERROR("Error from 'sigprocmask': %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    struct sigaction action {};
    if (sigfillset(&action.sa_mask) != 0) {
        const qfs_result r = qfs_errno_result();
        QFS_LOG_ERROR("Error from 'sigfillset': %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    action.sa_flags = SA_RESTART;
    action.sa_handler = on_window_change;
    if (sigaction(SIGWINCH, &action, nullptr) != 0) {
        const qfs_result r = qfs_errno_result();
        QFS_LOG_ERROR("Error from 'sigaction': %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    // The window-change signal is never blocked afterwards, even if it was before.
    if (sigdelset(&previous, SIGWINCH) != 0) {
        const qfs_result r = qfs_errno_result();
        QFS_LOG_ERROR("Error from 'sigdelset': %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    if (sigprocmask(SIG_SETMASK, &previous, nullptr) != 0) {
        const qfs_result r = qfs_errno_result();
        QFS_LOG_ERROR("Error from 'sigprocmask': %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    return QFS_OK;
}

void format_size_text(uint64_t value, char *text, size_t size) {
    // A zero value has no unit in the search; it prints with the unit of index 0.
    size_t unit = 0;
    for (size_t i = sizeof(size_units) / sizeof(size_units[0]); i-- > 1;) {
        if (size_units[i].divisor <= value) {
            unit = i;
            break;
        }
    }
    const uint64_t divisor = size_units[unit].divisor;
    uint64_t whole = value / divisor;
    // Rounds the first decimal half up; the unit stays as chosen, so 1048575 bytes print as 1024.0 kiB.
    uint64_t tenths = (divisor / 2 + (value % divisor) * 10) / divisor;
    if (tenths >= 10) {
        whole += 1;
        tenths = 0;
    }
    snprintf(text, size, "%llu.%hu %sB (%llu bytes)", static_cast<unsigned long long>(whole),
             static_cast<unsigned short>(tenths), size_units[unit].prefix, static_cast<unsigned long long>(value));
}

void format_print_size_line(const char *prefix, uint64_t value) {
    char text[FORMAT_SIZE_TEXT_SIZE];
    format_size_text(value, text, sizeof(text));
    fprintf(stderr, "%s%s\n", prefix, text);
    fflush(stderr);
}
