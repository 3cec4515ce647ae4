#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "support/qfs_error.h"

namespace {

struct code_case {
    qfs_result code;
    unsigned long printable;
    const char *text;
};

// Library codes count down from the top of the code space; their printable
// number is the distance from 0x7FFFFFFF.
constexpr code_case library_codes[] = {
    {0x7FFFFFFE, 1, "QFS_ERR_UNKNOWN"},
    {0x7FFFFFFD, 2, "QFS_ERR_OUT_OF_MEMORY"},
    {0x7FFFFFFC, 3, "QFS_ERR_INVALID_PARAMETER"},
    {0x7FFFFFFB, 4, "QFS_ERR_IO_ERROR"},
    {0x7FFFFFFA, 5, "QFS_ERR_NOT_IMPLEMENTED"},
    {0x7FFFFFF9, 6, "QFS_ERR_INCONSISTENT_FILESYSTEM"},
    {0x7FFFFFF8, 7, "QFS_ERR_INTERNAL_ERROR"},
    {0x7FFFFFF7, 8, "QFS_ERR_OVERFLOW"},
    {0x7FFFFFF6, 9, "QFS_ERR_ALREADY_EXISTS"},
    {0x7FFFFFF5, 10, "QFS_ERR_FILE_SYSTEM_LIMITATION"},
    {0x7FFFFFF4, 11, "QFS_ERR_DEVICE_READ_ONLY"},
    {0x7FFFFFF3, 12, "QFS_ERR_OUT_OF_DISK_SPACE"},
    {0x7FFFFFF2, 13, "QFS_ERR_UNSUPPORTED_FEATURE"},
    {0x7FFFFFF1, 14, "QFS_ERR_DEVICE_BUSY"},
    {0x7FFFFFF0, 15, "QFS_ERR_INVALID_DATA"},
};

TEST(ErrorCodes, LibraryCodesPrintTheirDistanceFromTheTop) {
    for (const auto &c : library_codes) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(qfs_error_printable(c.code), c.printable);
        EXPECT_STREQ(qfs_error_text(c.code), c.text);
    }
}

TEST(ErrorCodes, PlatformErrorsPassThrough) {
    EXPECT_EQ(qfs_error_printable(ENOENT), 2u);
    EXPECT_STREQ(qfs_error_text(ENOENT), "No such file or directory");
    EXPECT_EQ(qfs_error_printable(EBUSY), 16u);
    EXPECT_STREQ(qfs_error_text(0), "No error.");
}

TEST(ErrorCodes, FailureWithoutErrnoPrintsZero) {
    EXPECT_EQ(qfs_error_printable(QFS_ERR_NO_ERRNO), 0u);
    EXPECT_STREQ(qfs_error_text(QFS_ERR_NO_ERRNO), strerror(0));
    EXPECT_EQ(qfs_errno_result(0), QFS_ERR_NO_ERRNO);
    EXPECT_EQ(qfs_errno_result(EIO), EIO);
}

} // namespace
