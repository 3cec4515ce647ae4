// Set-up shared by every fuzz target, linked into each of them.
#include "support/qfs_logging.h"

// Millions of runs must not fill the kernel log with the tool's refusals.
extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    qfs_log_set_kmsg_enabled(false);
    return 0;
}
