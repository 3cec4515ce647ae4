// Result codes as error messages print them: "%lu (%s)", and the line an
// internal error prints.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "support/qfs_error.h"
#include "support/qfs_logging.h"

namespace {

TEST(ErrorCodes, LibraryCodesPrintTheirDistanceFromTheTopAndTheirName) {
    EXPECT_EQ(qfs_error_printable(QFS_ERR_UNKNOWN), 1u);
    EXPECT_STREQ(qfs_error_text(QFS_ERR_UNKNOWN), "QFS_ERR_UNKNOWN");
    EXPECT_EQ(qfs_error_printable(QFS_ERR_DEVICE_READ_ONLY), 11u);
    EXPECT_STREQ(qfs_error_text(QFS_ERR_DEVICE_READ_ONLY), "QFS_ERR_DEVICE_READ_ONLY");
    EXPECT_EQ(qfs_error_printable(QFS_ERR_INVALID_DATA), 15u);
    EXPECT_STREQ(qfs_error_text(QFS_ERR_INVALID_DATA), "QFS_ERR_INVALID_DATA");
}

TEST(ErrorCodes, PlatformErrorsPassThrough) {
    EXPECT_EQ(qfs_error_printable(ENOENT), 2u);
    EXPECT_STREQ(qfs_error_text(ENOENT), "No such file or directory");
    EXPECT_STREQ(qfs_error_text(0), "No error.");
    EXPECT_EQ(qfs_error_printable(QFS_ERR_NO_ERRNO), 0u);
    EXPECT_STREQ(qfs_error_text(QFS_ERR_NO_ERRNO), strerror(0));
    EXPECT_EQ(qfs_errno_result(0), QFS_ERR_NO_ERRNO);
    EXPECT_EQ(qfs_errno_result(EIO), EIO);
}

// What a user reports from an internal error: the source file, line and function before the text.
TEST(ErrorCodes, CriticalLineNamesFileLineAndFunction) {
    qfs_log_set_kmsg_enabled(false);
    testing::internal::CaptureStderr();
    const int line = __LINE__ + 1;
    QFS_LOG_CRITICAL("Internal error: probe value %d is out of range.", 42);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "[CRITICAL <error_test.cpp:" + std::to_string(line) +
                                                          "> TestBody] Internal error: probe value 42 is out of range.\n");
    qfs_log_set_kmsg_enabled(true);
}

} // namespace
