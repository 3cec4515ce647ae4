// --list: the disks that can hold a card, one line each or one JSON
// document, with how each is attached, who made it, what is mounted from it
// and what a format would make of it.
#pragma once

#include <cstddef>

#include "cli/card_plan.h"
#include "device/qfs_disk_list.h"
#include "support/qfs_error.h"

// Prints on standard output the disks below `paths` that take cards, or with
// `all` every whole disk, the others marked "fixed disk"; as text lines, or
// with `json` as one JSON document. A loop device with no file attached is
// no disk and is left out.
[[nodiscard]] qfs_result format_list_disks(const qfs_system_paths *paths, bool all, bool json);

// One listed disk and what a format would make of it.
struct format_list_entry {
    const qfs_disk *disk;
    bool takes_cards;
    bool planned; // `plan` holds the card rules' layout
    format_card_plan plan;
    char verdict[64]; // "TNC, exFAT, 128 KiB clusters", "no card", "fixed disk", ...
};

// The document for `count` entries (none: an empty list).
void format_list_print_json(const format_list_entry *entries, size_t count);
