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
    uint32_t dry_run; // format in memory only; the card keeps every byte
    uint32_t list;             // list the disks that take cards instead of formatting
    uint32_t list_all;         // --all: list every whole disk
    uint32_t list_json;        // --json: list as one JSON document
    uint32_t allow_fixed_disk; // format a disk that takes no cards, after a warning
    uint32_t check_capacity;   // make sure a card stores what it claims before formatting it
};

extern format_options format_tarn_options;
