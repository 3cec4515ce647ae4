// The command-line tool's main flow.
#pragma once

#include "device/qfs_disk_list.h"
#include "support/qfs_error.h"

// Runs the tool; answers the process exit status (0 success, 1 failure).
int format_tarn(int argc, char **argv);

// The main flow itself, answering the first error it recorded.
[[nodiscard]] qfs_result _qfs_main(int argc, char **argv);

// Where the main flow reads what the system knows of its disks (--list and
// the fixed-disk refusal); tests point it at a tree of their own. Null
// restores the system's own roots. The paths are not copied.
void format_tarn_set_system_paths(const qfs_system_paths *paths);
