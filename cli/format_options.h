// The process-wide record of the tool's option values, cleared before parsing.
#pragma once

#include <cstdint>

struct format_options {
    const char *device;
    uint64_t code_page;
    uint32_t label_given;
    const char *label;
    uint32_t discard;
    uint32_t secure_discard;
    uint32_t tca_relax;
    uint32_t tca_formatter_progress;
    uint32_t tca_align_to_cylinder;
    uint32_t zero; // --zero and --overwrite both set it
    uint32_t progress_bar;
    uint32_t update_check;
    uint32_t verbose;
    uint32_t force;
    uint32_t about;
    uint32_t help;
};

extern format_options format_tarn_options;
