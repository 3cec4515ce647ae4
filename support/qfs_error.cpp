#include "support/qfs_error.h"

#include <cerrno>
#include <cstring>

namespace {

// Indexed by printable number (0x7FFFFFFF - code) minus one.
constexpr const char *library_code_names[] = {
    "QFS_ERR_UNKNOWN",
    "QFS_ERR_OUT_OF_MEMORY",
    "QFS_ERR_INVALID_PARAMETER",
    "QFS_ERR_IO_ERROR",
    "QFS_ERR_NOT_IMPLEMENTED",
    "QFS_ERR_INCONSISTENT_FILESYSTEM",
    "QFS_ERR_INTERNAL_ERROR",
    "QFS_ERR_OVERFLOW",
    "QFS_ERR_ALREADY_EXISTS",
    "QFS_ERR_FILE_SYSTEM_LIMITATION",
    "QFS_ERR_DEVICE_READ_ONLY",
    "QFS_ERR_OUT_OF_DISK_SPACE",
    "QFS_ERR_UNSUPPORTED_FEATURE",
    "QFS_ERR_DEVICE_BUSY",
    "QFS_ERR_INVALID_DATA",
};
static_assert(sizeof(library_code_names) / sizeof(library_code_names[0]) ==
              QFS_ERR_UNKNOWN - QFS_ERR_LIBRARY_BASE + 1);

bool is_library_code(qfs_result result) {
    return result >= QFS_ERR_LIBRARY_BASE && result < QFS_ERR_NO_ERRNO;
}

} // namespace

unsigned long qfs_error_printable(qfs_result result) {
    if (result == QFS_ERR_NO_ERRNO) {
        return 0;
    }
    if (is_library_code(result)) {
        return static_cast<unsigned long>(QFS_ERR_NO_ERRNO - result);
    }
    return static_cast<unsigned long>(result);
}

const char *qfs_error_text(qfs_result result) {
    if (result == QFS_OK) {
        return "No error.";
    }
    if (result == QFS_ERR_NO_ERRNO) {
        // The printable code is 0 as well, so the text is the platform's text for 0.
        return strerror(0);
    }
    if (is_library_code(result)) {
        const unsigned long index = qfs_error_printable(result) - 1;
        if (index < sizeof(library_code_names) / sizeof(library_code_names[0])) {
            return library_code_names[index];
        }
        return "<unknown internal error value>";
    }
    return strerror(result);
}

qfs_result qfs_errno_result(int error_number) {
    return error_number != 0 ? static_cast<qfs_result>(error_number) : QFS_ERR_NO_ERRNO;
}

qfs_result qfs_errno_result() {
    return qfs_errno_result(errno);
}

static_assert(QFS_ERR_SYS_NO_ENTRY == ENOENT && QFS_ERR_SYS_IO == EIO && QFS_ERR_SYS_INTERNAL == ENXIO &&
              QFS_ERR_SYS_NO_MEMORY == ENOMEM && QFS_ERR_SYS_BUSY == EBUSY && QFS_ERR_SYS_INVALID_ARGUMENT == EINVAL &&
              QFS_ERR_SYS_NOT_TTY == ENOTTY && QFS_ERR_SYS_TOO_LARGE == EFBIG && QFS_ERR_SYS_NO_SPACE == ENOSPC &&
              QFS_ERR_SYS_ILLEGAL_BYTE_SEQUENCE == EILSEQ);
