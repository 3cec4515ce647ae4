#include "cli/standard_streams.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>

namespace {

qfs_result stdout_failure = QFS_OK;

qfs_result open_null_on(int wanted_fd) {
    const int fd = open("/dev/null", O_RDWR);
    if (fd < 0) {
        return qfs_errno_result();
    }
    if (fd != wanted_fd) {
        // The lowest free descriptor is taken, so a different one means the wanted one is open after all.
        close(fd);
    }
    return QFS_OK;
}

} // namespace

qfs_result format_prepare_standard_streams() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) == -1 && errno == EBADF) {
            const qfs_result r = open_null_on(fd);
            if (r != QFS_OK) return r;
        }
    }
    if (signal(SIGPIPE, SIG_IGN) == SIG_ERR) {
        return qfs_errno_result();
    }
    return QFS_OK;
}

void format_flush(FILE *stream) {
    errno = 0;
    const bool failed = fflush(stream) != 0 || ferror(stream);
    if (!failed || stream != stdout) {
        return;
    }
    if (stdout_failure == QFS_OK) {
        stdout_failure = errno != 0 ? qfs_errno_result() : QFS_ERR_SYS_IO;
    }
    // What is still buffered is dropped with the stream's error state; later lines go nowhere.
    const int null_fd = open("/dev/null", O_WRONLY);
    if (null_fd >= 0) {
        dup2(null_fd, STDOUT_FILENO);
        close(null_fd);
    }
    clearerr(stream);
}

qfs_result format_stdout_failure() {
    format_flush(stdout);
    return stdout_failure;
}
