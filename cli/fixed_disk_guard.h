// The tool formats cards, not disks: a whole block device that is none of
// a card in an MMC slot, a disk behind USB, a disk the kernel marks
// removable, or a loop device is refused before anything is written, unless
// the user says --allow-fixed-disk. A disk that sysfs does not describe
// counts as fixed.
#pragma once

#include <sys/types.h>

#include "device/qfs_disk_list.h"
#include "support/qfs_error.h"

// True for a disk that can hold a card: MMC, USB, removable or loop. Never for an unknown disk.
bool format_disk_takes_cards(const qfs_disk *disk);

// What a disk that takes no cards is, as the refusal names it: "a fixed NVMe disk".
// `disk` may be null: a device that sysfs does not list.
const char *format_fixed_disk_description(const qfs_disk *disk);

// Looks the block device `number`, opened as `path`, up below `paths`.
// Answers 0 for a disk that takes cards, or, with `allow`, after a warning;
// otherwise writes the refusal to standard error and answers
// QFS_ERR_INVALID_PARAMETER.
[[nodiscard]] qfs_result format_check_fixed_disk(const qfs_system_paths *paths, const char *path, dev_t number,
                                                 bool allow);
