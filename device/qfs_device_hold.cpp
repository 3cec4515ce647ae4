#include "device/qfs_device_hold.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <new>

#include "support/qfs_fd.h"

struct qfs_device_hold {
    qfs_unique_fd fd;       // closing it drops the lock and the exclusive claim
    dev_t claimed_device;   // the block device claimed exclusively, or 0
};

namespace {

// The tool holds one card at a time.
const qfs_device_hold *claim_of_this_process = nullptr;

// File systems without BSD locks leave an image to its record lock.
bool lock_unsupported(int error) { return error == ENOLCK || error == EOPNOTSUPP || error == EINVAL; }

} // namespace

qfs_result qfs_device_hold_create(const char *path, bool exclusive, qfs_device_hold **out_hold) {
    if (path == nullptr || out_hold == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    struct stat info {};
    if (stat(path, &info) != 0) {
        return qfs_errno_result();
    }
    // O_EXCL on a block device claims it as a mount would; on a file it means nothing.
    const bool claim = exclusive && S_ISBLK(info.st_mode);
    const int flags = O_RDONLY | O_CLOEXEC | (claim ? O_EXCL : 0);
    qfs_unique_fd fd(open(path, flags));
    if (!fd.valid()) {
        return qfs_errno_result();
    }
    if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        if (error == EWOULDBLOCK) return QFS_ERR_SYS_BUSY;
        if (!lock_unsupported(error)) return qfs_errno_result(error);
    }
    qfs_device_hold *hold = new (std::nothrow) qfs_device_hold{std::move(fd), claim ? info.st_rdev : 0};
    if (hold == nullptr) {
        return QFS_ERR_OUT_OF_MEMORY;
    }
    if (claim) claim_of_this_process = hold;
    *out_hold = hold;
    return QFS_OK;
}

void qfs_device_hold_destroy(qfs_device_hold **hold) {
    if (hold == nullptr || *hold == nullptr) return;
    if (*hold == claim_of_this_process) {
        claim_of_this_process = nullptr;
    }
    delete *hold;
    *hold = nullptr;
}

bool qfs_device_hold_is_ours(dev_t device_number) { return qfs_device_hold_fd(device_number) >= 0; }

int qfs_device_hold_fd(dev_t device_number) {
    if (claim_of_this_process == nullptr || claim_of_this_process->claimed_device != device_number) {
        return -1;
    }
    return claim_of_this_process->fd.get();
}
