#include "support/qfs_support.h"

#include <sys/time.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "support/qfs_logging.h"

namespace {
constexpr size_t max_append_length = 8192;
}

qfs_result qfs_strndup(const char *text, size_t length, char **out_copy) {
    void *block = nullptr;
    const qfs_result r = _qfs_malloc(0, length + 1, &block);
    if (r != QFS_OK) {
        return r;
    }
    char *copy = static_cast<char *>(block);
    memcpy(copy, text, length);
    copy[length] = '\0';
    *out_copy = copy;
    return QFS_OK;
}

qfs_result qfs_strdup(const char *text, char **out_copy) {
    return qfs_strndup(text, strlen(text), out_copy);
}

qfs_result qfs_strappend(char **destination, const char *text) {
    if (destination == nullptr) {
        QFS_LOG_ERROR("No destination for strappend.");
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (text == nullptr) {
        return QFS_OK;
    }
    const size_t old_length = *destination ? strnlen(*destination, max_append_length + 1) : 0;
    const size_t new_length = strnlen(text, max_append_length + 1);
    if (old_length > max_append_length || new_length > max_append_length) {
        QFS_LOG_ERROR("Too large input buffer");
        return QFS_ERR_OVERFLOW;
    }
    const size_t new_size = old_length + new_length + 1;
    errno = 0;
    void *grown = realloc(*destination, new_size);
    if (grown == nullptr) {
        const qfs_result r = qfs_errno_result();
        QFS_LOG_ERROR("Memory realloction of %zu bytes failed for pointer %p: %lu (%s)", new_size,
                      static_cast<void *>(*destination), QFS_ERR_ARGS(r));
        return r;
    }
    char *joined = static_cast<char *>(grown);
    memcpy(joined + old_length, text, new_length + 1);
    *destination = joined;
    return QFS_OK;
}

const char *qfs_basename(const char *path) {
    const char *slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

unsigned qfs_bit_length(uint64_t value) {
    unsigned bits = 0;
    while (value != 0) {
        ++bits;
        value >>= 1;
    }
    return bits;
}

qfs_result qfs_get_current_time(qfs_time *out_time) {
    struct timeval now {};
    if (gettimeofday(&now, nullptr) != 0) {
        const qfs_result r = qfs_errno_result();
        QFS_LOG_ERROR("Error from 'gettimeofday': %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    out_time->seconds = now.tv_sec;
    out_time->nanoseconds = static_cast<int64_t>(now.tv_usec) * 1000;
    return QFS_OK;
}

int64_t qfs_time_to_seconds(const struct tm *time) {
    int64_t year = static_cast<int64_t>(time->tm_year) + 1900;
    int64_t month = static_cast<int64_t>(time->tm_mon) + 1;
    // Shift the year to begin in March so the leap day ends it.
    month -= 2;
    if (month <= 0) {
        month += 12;
        year -= 1;
    }
    const int64_t days = year / 4 - year / 100 + year / 400 + 367 * month / 12 + time->tm_mday +
                         365 * year - 719499;
    return days * 86400 + static_cast<int64_t>(time->tm_hour) * 3600 +
           static_cast<int64_t>(time->tm_min) * 60 + time->tm_sec;
}

qfs_result qfs_sleep_ns(uint64_t nanoseconds, int *out_interrupted) {
    struct timespec request {};
    request.tv_sec = static_cast<time_t>(nanoseconds / 1000000000u);
    request.tv_nsec = static_cast<long>(nanoseconds % 1000000000u);
    if (nanosleep(&request, nullptr) != 0) {
        if (errno == EINTR) {
            *out_interrupted = 1;
            return QFS_OK;
        }
        return qfs_errno_result();
    }
    *out_interrupted = 0;
    return QFS_OK;
}
