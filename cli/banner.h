// The texts that head every run and answer --help and --about.
#pragma once

#include <cstdio>

// "Tarn Card Formatter version ..." and the developer line, once per process.
void print_tca_header(FILE *stream);
// Banner, help-desk text and the usage line.
void print_help(FILE *stream, const char *program_path);
// Banner and the credits block.
void print_about(FILE *stream);
