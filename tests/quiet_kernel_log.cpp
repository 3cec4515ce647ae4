// Every test program keeps the log lines of the code it runs in-process out
// of the kernel log; the tool run as a program still writes there.
#include <gtest/gtest.h>

#include "support/qfs_logging.h"

namespace {

struct quiet_kernel_log : testing::Environment {
    void SetUp() override { qfs_log_set_kmsg_enabled(false); }
};

const testing::Environment *const registered = testing::AddGlobalTestEnvironment(new quiet_kernel_log);

} // namespace
