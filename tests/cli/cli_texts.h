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

// What the FAT run answers in this build. A run that ends in it has passed
// every device check; the FAT engine is not part of the build yet.
inline const std::string fat_not_available =
    "[ERROR] FAT formatting (cards of up to 66945024 sectors) is not available in this version: "
    "5 (QFS_ERR_NOT_IMPLEMENTED)\n";

} // namespace qfs_test
