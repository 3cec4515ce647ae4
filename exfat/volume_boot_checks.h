// The checks a boot sector must pass before anything else of the volume is
// trusted. Each problem found has a number and a message and goes to a
// problem handler, which decides whether the volume is still acceptable.
#pragma once

#include <cstdint>

#include "support/qfs_error.h"

// 0 accepts the problem and the checks go on; any other result rejects the
// volume with that code.
using exfat_boot_problem_handler = qfs_result (*)(void *context, int problem, const char *message);

// Logs the message. Problems 3 (unknown minor version) and 7 (PercentInUse
// out of range) are warnings and accepted; the other known problems reject
// with QFS_ERR_SYS_INVALID_ARGUMENT; an unknown number rejects with QFS_ERR_SYS_IO.
[[nodiscard]] qfs_result exfat_check_default_problem_handler(void *context, int problem, const char *message);

// Runs the checks in order on the first 512 bytes of a boot sector and stops
// at the first problem the handler rejects. A null handler is the default one.
[[nodiscard]] qfs_result exfat_check_validate_boot_sector(const uint8_t *sector, exfat_boot_problem_handler handler,
                                                          void *context);
