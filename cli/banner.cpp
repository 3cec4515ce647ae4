#include "cli/banner.h"

#include "cli/format_tarn_args.h"
#include "cli/standard_streams.h"
#include "cli/version.h"
#include "support/qfs_logging.h"
#include "support/qfs_options.h"

namespace {

bool banner_printed = false;

constexpr const char *help_desk_name = "Tarn Card Association Helpdesk";
constexpr const char *help_desk_address = "helpdesk@tarncard.org";
constexpr const char *rights_notice = "Copyright (c) 2026 Quorvex Inc.";
constexpr const char *authors[] = {
    "Quorvex Inc. Storage Software Team",
};

void print_rule(FILE *stream) { fputs("----------------------------------------\n", stream); }

} // namespace

void print_tca_header(FILE *stream) {
    if (banner_printed) {
        return;
    }
    char text[8] = {};
    char *buffer = text;
    size_t length = sizeof(text);
    const char *version = text;
    const qfs_result r = format_make_version_str(FORMAT_TARN_RAW_VERSION, &buffer, &length);
    if (r != QFS_OK) {
        QFS_LOG_CRITICAL("Internal error when creating current version string from raw version %lu: %lu (%s)",
                         static_cast<unsigned long>(FORMAT_TARN_RAW_VERSION), QFS_ERR_ARGS(r));
        version = "ERROR";
    }
    fprintf(stream, "Tarn Card Formatter version %s (build %s)\n", version, FORMAT_TARN_BUILD_LABEL);
    fputs("Developed by Quorvex Inc.\n", stream);
    format_flush(stream);
    banner_printed = true;
}

void print_help(FILE *stream, const char *program_path) {
    print_tca_header(stream);
    fputs("For assistance, please contact TCA Helpdesk at:\n", stream);
    fprintf(stream, "\t%s <%s>\n\n", help_desk_name, help_desk_address);
    qfs_options_print_usage(stream, program_path, format_tarn_option_table, format_tarn_option_count);
    format_flush(stream);
}

void print_about(FILE *stream) {
    print_tca_header(stream);
    print_rule(stream);
    fprintf(stream, "%s\n", rights_notice);
    fputs("All rights reserved.\n", stream);
    print_rule(stream);
    fputs("Authors:\n", stream);
    for (const char *author : authors) {
        fprintf(stream, "    %s\n", author);
    }
    format_flush(stream);
}
