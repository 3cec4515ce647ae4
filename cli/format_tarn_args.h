// The tool's option table and argument parsing.
#pragma once

#include <cstddef>

#include "cli/format_options.h"
#include "support/qfs_options.h"

extern const qfs_option format_tarn_option_table[];
extern const size_t format_tarn_option_count;

// Clears the option record and parses into it; prints the help text to
// standard error on failure. Answers true on success.
bool format_parse_args(int argc, char **argv);
