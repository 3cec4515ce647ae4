// The tool's fixed texts as a user sees them, written out independently of the code.
#pragma once

#include <string>

namespace qfs_test {

inline const std::string banner =
    "Tarn Card Formatter version 1.0.3 (build 3023.2.3.15)\n"
    "Developed by Quorvex Inc.\n";

inline const std::string help_text =
    "For assistance, please contact TCA Helpdesk at:\n"
    "\tTarn Card Association Helpdesk <helpdesk@tarncard.org>\n"
    "\n"
    "usage: format_tarn [-l <volume label>] [--cp <code page>] [--discard] [--overwrite] [--update-check] <device>\n";

inline const std::string about_text =
    "----------------------------------------\n"
    "Copyright (c) 2026 Quorvex Inc.\n"
    "All rights reserved.\n"
    "----------------------------------------\n"
    "Authors:\n"
    "    Quorvex Inc. Storage Software Team\n";

// A run past the device checks on a read-only loop device of a small card:
// the kernel refuses the FAT run's first write.
inline const std::string write_refused =
    "ERROR: Error while writing 1048576 bytes of padding to offset 0: 1 (Operation not permitted)\n"
    "ERROR: Error filling leading part of device with zeroes: 1 (Operation not permitted)\n"
    "ERROR: Error while writing volume structures: 1 (Operation not permitted)\n"
    "Formatting failed!\n";

} // namespace qfs_test
