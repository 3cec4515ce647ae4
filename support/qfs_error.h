// Result codes shared by every function of the library.
//
// A result is a signed 32-bit value: 0 is success, small positive values are
// platform error numbers passed through unchanged, and the top of the range
// holds the library's own codes, counting down from 0x7FFFFFFE.
#pragma once

#include <cstdint>

using qfs_result = int32_t;

inline constexpr qfs_result QFS_OK = 0;

inline constexpr qfs_result QFS_ERR_UNKNOWN = 0x7FFFFFFE;
inline constexpr qfs_result QFS_ERR_OUT_OF_MEMORY = 0x7FFFFFFD;
inline constexpr qfs_result QFS_ERR_INVALID_PARAMETER = 0x7FFFFFFC;
inline constexpr qfs_result QFS_ERR_IO_ERROR = 0x7FFFFFFB;
inline constexpr qfs_result QFS_ERR_NOT_IMPLEMENTED = 0x7FFFFFFA;
inline constexpr qfs_result QFS_ERR_INCONSISTENT_FILESYSTEM = 0x7FFFFFF9;
inline constexpr qfs_result QFS_ERR_INTERNAL_ERROR = 0x7FFFFFF8;
inline constexpr qfs_result QFS_ERR_OVERFLOW = 0x7FFFFFF7;
inline constexpr qfs_result QFS_ERR_ALREADY_EXISTS = 0x7FFFFFF6;
inline constexpr qfs_result QFS_ERR_FILE_SYSTEM_LIMITATION = 0x7FFFFFF5;
inline constexpr qfs_result QFS_ERR_DEVICE_READ_ONLY = 0x7FFFFFF4;
inline constexpr qfs_result QFS_ERR_OUT_OF_DISK_SPACE = 0x7FFFFFF3;
inline constexpr qfs_result QFS_ERR_UNSUPPORTED_FEATURE = 0x7FFFFFF2;
inline constexpr qfs_result QFS_ERR_DEVICE_BUSY = 0x7FFFFFF1;
inline constexpr qfs_result QFS_ERR_INVALID_DATA = 0x7FFFFFF0;

// Platform error numbers that the library itself returns, by name. They
// are Linux's errno values, so a code from a failed system call compares
// equal to the same name.
inline constexpr qfs_result QFS_ERR_SYS_NO_ENTRY = 2;          // ENOENT
inline constexpr qfs_result QFS_ERR_SYS_INTERRUPTED = 4;       // EINTR: the user stopped the run
inline constexpr qfs_result QFS_ERR_SYS_IO = 5;                // EIO: an I/O failure or a short transfer
inline constexpr qfs_result QFS_ERR_SYS_INTERNAL = 6;          // ENXIO, which the engines report as "internal error"
inline constexpr qfs_result QFS_ERR_SYS_NO_MEMORY = 12;        // ENOMEM
inline constexpr qfs_result QFS_ERR_SYS_BUSY = 16;             // EBUSY
inline constexpr qfs_result QFS_ERR_SYS_INVALID_ARGUMENT = 22; // EINVAL
inline constexpr qfs_result QFS_ERR_SYS_NOT_TTY = 25;          // ENOTTY: a device request that an image file does not take
inline constexpr qfs_result QFS_ERR_SYS_TOO_LARGE = 27;        // EFBIG
inline constexpr qfs_result QFS_ERR_SYS_NO_SPACE = 28;         // ENOSPC
inline constexpr qfs_result QFS_ERR_SYS_ILLEGAL_BYTE_SEQUENCE = 84; // EILSEQ: text a code page cannot carry back

// A platform call failed but left errno at 0.
inline constexpr qfs_result QFS_ERR_NO_ERRNO = 0x7FFFFFFF;

// Lowest value of the library's own code range.
inline constexpr qfs_result QFS_ERR_LIBRARY_BASE = 0x7FFFFFF0;

// The number a message prints for a result: errno values as they are,
// library codes as their distance from the top of the code space.
unsigned long qfs_error_printable(qfs_result result);

// Constant text for a result; never null.
const char *qfs_error_text(qfs_result result);

// The result for a failed platform call: errno, or QFS_ERR_NO_ERRNO when errno is 0.
[[nodiscard]] qfs_result qfs_errno_result();
[[nodiscard]] qfs_result qfs_errno_result(int error_number);

// Arguments for the "%lu (%s)" pair that ends every failure message.
#define QFS_ERR_ARGS(result) qfs_error_printable(result), qfs_error_text(result)
