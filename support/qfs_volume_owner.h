// An owner of an open volume of either engine.
#pragma once

#include "support/qfs_error.h"
#include "support/qfs_logging.h"
#include "support/qfs_scope.h"

// Closes the volume, which settles what the open changed (an exFAT volume's
// dirty flag), and destroys it, at the latest when the owner goes; a failure
// is logged, and the first one answered.
template <typename Volume, auto close, auto destroy> class qfs_volume_owner {
public:
    qfs_volume_owner() = default;
    ~qfs_volume_owner() {
        // Both failures are logged there; a destructor has no caller to answer.
        (void)close_and_destroy();
    }
    qfs_volume_owner(const qfs_volume_owner &) = delete;
    qfs_volume_owner &operator=(const qfs_volume_owner &) = delete;

    // Where the engine's `_create` puts the new volume.
    Volume **receive() { return &volume_; }
    Volume *get() const { return volume_; }
    operator Volume *() const { return volume_; }

    // Closes and destroys now; an owner without a volume answers QFS_OK.
    [[nodiscard]] qfs_result close_and_destroy() {
        if (volume_ == nullptr) {
            return QFS_OK;
        }
        qfs_first_error result;
        qfs_result r = close(volume_);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Error while closing volume: %lu (%s)", QFS_ERR_ARGS(r));
            result.keep(r);
        }
        r = destroy(&volume_);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Error while destroying volume: %lu (%s)", QFS_ERR_ARGS(r));
            result.keep(r);
        }
        volume_ = nullptr;
        return result.result;
    }

private:
    Volume *volume_ = nullptr;
};
