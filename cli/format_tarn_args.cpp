#include "cli/format_tarn_args.h"

#include <unistd.h>

#include <cstdio>

#include "cli/banner.h"
#include "cli/format_runs.h"
#include "device/qfs_device.h"

format_options format_tarn_options{};

namespace {
format_options &o = format_tarn_options;
}

// Options in the order of the usage line and the help text.
const qfs_option format_tarn_option_table[] = {
    // in_usage, short, long, kind, given, value, value_name, mandatory
    {1, 'l', "volume-label", QFS_OPTION_STRING, &o.label_given, &o.label, "volume label", 1},
    {1, 0, "cp", QFS_OPTION_UINT, nullptr, &o.code_page, "code page", 1},
    {1, 0, "discard", QFS_OPTION_FLAG, nullptr, &o.discard, nullptr, 1},
    {0, 0, "secure-discard", QFS_OPTION_FLAG, nullptr, &o.secure_discard, nullptr, 1},
    {0, 0, "tca-relax", QFS_OPTION_FLAG, nullptr, &o.tca_relax, nullptr, 1},
    {0, 0, "tca-formatter-progress", QFS_OPTION_FLAG, nullptr, &o.tca_formatter_progress, nullptr, 1},
    {0, 0, "tca-align-to-cylinder", QFS_OPTION_FLAG, nullptr, &o.tca_align_to_cylinder, nullptr, 1},
    {0, 0, "zero", QFS_OPTION_FLAG, nullptr, &o.zero, nullptr, 1},
    // --overwrite is another name for --zero: both set the same flag.
    {1, 0, "overwrite", QFS_OPTION_FLAG, nullptr, &o.zero, nullptr, 1},
    {0, 0, "progress-bar", QFS_OPTION_FLAG, nullptr, &o.progress_bar, nullptr, 1},
    // The modes below need no device.
    {1, 0, "update-check", QFS_OPTION_FLAG, nullptr, &o.update_check, nullptr, 0},
    {0, 'v', "verbose", QFS_OPTION_FLAG, nullptr, &o.verbose, nullptr, 1},
    {0, 'f', "force", QFS_OPTION_FLAG, nullptr, &o.force, nullptr, 1},
    {0, 0, "about", QFS_OPTION_FLAG, nullptr, &o.about, nullptr, 0},
    {0, 'h', "help", QFS_OPTION_FLAG, nullptr, &o.help, nullptr, 0},
    // Left out of the usage line, which front ends and scripts may read as it always was.
    {0, 0, "dry-run", QFS_OPTION_FLAG, nullptr, &o.dry_run, nullptr, 1},
    // --list needs no device; --all and --json only shape its output.
    {0, 0, "list", QFS_OPTION_FLAG, nullptr, &o.list, nullptr, 0},
    {0, 0, "all", QFS_OPTION_FLAG, nullptr, &o.list_all, nullptr, 1},
    {0, 0, "json", QFS_OPTION_FLAG, nullptr, &o.list_json, nullptr, 1},
    {0, 0, "allow-fixed-disk", QFS_OPTION_FLAG, nullptr, &o.allow_fixed_disk, nullptr, 1},
    {0, 0, "check-capacity", QFS_OPTION_FLAG, nullptr, &o.check_capacity, nullptr, 1},
    // The positional device path.
    {1, 0, nullptr, QFS_OPTION_STRING, nullptr, &o.device, "device", 1},
};
const size_t format_tarn_option_count = sizeof(format_tarn_option_table) / sizeof(format_tarn_option_table[0]);
static_assert(sizeof(format_tarn_option_table) / sizeof(format_tarn_option_table[0]) == 22);

bool format_parse_args(int argc, char **argv) {
    format_tarn_options = format_options{};
    bool ok = argc >= 2 && qfs_options_parse(argc, argv, format_tarn_option_table, format_tarn_option_count);
    if (ok && o.progress_bar && o.tca_formatter_progress) {
        fputs("Error: Conflict between --progress-bar and --tca-formatter-progress options.\n", stderr);
        ok = false;
    }
    if (ok && (o.list_all || o.list_json) && !o.list) {
        fputs("Error: --all and --json go with --list only.\n", stderr);
        ok = false;
    }
    if (ok && !o.tca_formatter_progress && isatty(STDOUT_FILENO)) {
        // The terminal bar is the default on a terminal.
        o.progress_bar = 1;
    }
    if (!ok) {
        print_help(stderr, argc > 0 ? argv[0] : "format_tarn");
    }
    return ok;
}

uint64_t format_run_device_flags() { return o.dry_run ? static_cast<uint64_t>(QFS_DEVICE_FLAG_SHADOW) : 0; }
