// What the tool shows while and after a format runs: machine-readable lines
// for a front end, or a two-line terminal progress bar, and the size lines
// of the "Volume information:" block. The presentation follows the options
// --tca-formatter-progress and --progress-bar of the process-wide record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "support/qfs_error.h"

struct format_output_context {
    uint32_t rows;
    uint32_t columns;
    FILE *stream;
    char *fs_type;
    uint32_t cluster_size;
    uint64_t device_total_bytes;
    uint64_t fs_total_bytes;
    uint64_t fs_bytes_free;
    char *label;
};

void format_output_init(FILE *stream, format_output_context *context);
void format_output_release(format_output_context *context);

// Reporting callbacks of the format monitor; the context may be null.
void format_update_fstype(void *context, const char *name);
void format_update_cluster_size(void *context, uint32_t bytes);
void format_update_device_total_bytes(void *context, uint64_t bytes);
void format_update_fs_total_bytes(void *context, uint64_t bytes);
void format_update_fs_bytes_free(void *context, uint64_t bytes);
void format_update_fslabel(void *context, const char *label);
void format_update_progress(void *context, uint32_t percent, const char *text);

// Reads the terminal size of the context's stream into the context.
qfs_result get_window_size(format_output_context *context);
// Installs the window-change handling; the window-change signal stays unblocked afterwards.
qfs_result format_setup_signal_handlers();
// True once a window-change signal arrived and the size was not re-read since.
bool format_window_changed();

// Room for the longest size text: "16.0 EiB (18446744073709551615 bytes)".
inline constexpr size_t FORMAT_SIZE_TEXT_SIZE = 48;
// "29.7 GiB (31914983424 bytes)", cut to `size` bytes with its NUL.
void format_size_text(uint64_t value, char *text, size_t size);
// "<prefix>" and the size text and a newline on standard error.
void format_print_size_line(const char *prefix, uint64_t value);
