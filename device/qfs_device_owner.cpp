#include "device/qfs_device_owner.h"

#include "support/qfs_logging.h"
#include "support/qfs_scope.h"

qfs_device_owner::~qfs_device_owner() {
    // Both failures are logged there; a destructor has no caller to answer.
    (void)close_and_destroy();
}

qfs_result qfs_device_owner::close_and_destroy() {
    if (device_ == nullptr) {
        return QFS_OK;
    }
    qfs_first_error result;
    if (device_->flags & QFS_DEVICE_FLAG_OPEN) {
        const qfs_result r = qfs_device_close(device_);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Error while attempting to close open device at cleanup: %lu (%s)", QFS_ERR_ARGS(r));
            result.keep(r);
        }
    }
    const qfs_result r = qfs_device_destroy(&device_);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while attempting to destroy device handle at cleanup: %lu (%s)", QFS_ERR_ARGS(r));
        result.keep(r);
    }
    // A device that would not go is not tried again.
    device_ = nullptr;
    return result.result;
}
