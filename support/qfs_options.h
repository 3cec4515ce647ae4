// A small table-driven command-line parser: each option and positional
// parameter is described by one descriptor; the parser stores values
// through the descriptors' pointers and prints its own errors.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "support/qfs_error.h"

enum qfs_option_kind : uint32_t {
    QFS_OPTION_FLAG = 0,      // stores uint32_t 1
    QFS_OPTION_UINT = 1,      // uint64_t: 0x hex, leading 0 octal, else decimal
    QFS_OPTION_UINT_HEX = 2,  // uint64_t from hexadecimal digits
    QFS_OPTION_UINT_OCT = 3,  // uint64_t from octal digits
    QFS_OPTION_UINT_LIST = 4, // qfs_uint_list
    QFS_OPTION_STRING = 5,    // const char *, the argument itself
};

struct qfs_option {
    uint32_t in_usage;      // shown in the usage line
    uint32_t short_name;    // one character, 0 for none
    const char *long_name;  // without "--", null for none; no names = positional
    uint32_t kind;          // qfs_option_kind
    uint32_t *given;        // set to 1 when matched, may be null
    void *value;            // where the value goes
    const char *value_name; // for the usage line and the missing-parameter message
    uint32_t mandatory;     // 0: using this option switches off the missing-positional check
};

// A list value replaces and frees the one stored before it (a repeated
// option), so a list must start zeroed.
struct qfs_uint_list {
    uint32_t *elements; // owned; release with qfs_free
    size_t count;
};

// 1 on success, 0 on failure (messages on standard error).
int qfs_options_parse(int argc, char **argv, const qfs_option *options, size_t option_count);

// Parses the comma-separated list in argv[value_index].
[[nodiscard]] qfs_result qfs_options_parse_list_input(char **argv, int value_index, qfs_uint_list *out_list);

// "usage: <program> [-l <volume label>] ... <device>" and a newline.
void qfs_options_print_usage(FILE *stream, const char *program_path, const qfs_option *options,
                             size_t option_count);
