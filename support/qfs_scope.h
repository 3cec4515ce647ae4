// Scope guards for cleanup that must run on every path.
#pragma once

#include <utility>

#include "support/qfs_error.h"

// Runs a callable when the scope ends, unless dismissed.
template <typename F> class qfs_cleanup {
public:
    explicit qfs_cleanup(F action) : action_(std::move(action)) {}
    ~qfs_cleanup() {
        if (active_) {
            action_();
        }
    }
    qfs_cleanup(const qfs_cleanup &) = delete;
    qfs_cleanup &operator=(const qfs_cleanup &) = delete;
    void dismiss() { active_ = false; }

private:
    F action_;
    bool active_ = true;
};

// Keeps the first failure of a sequence; later failures (typically during
// cleanup) are logged by their callers but do not replace it.
struct qfs_first_error {
    qfs_result result = QFS_OK;
    void keep(qfs_result r) {
        if (result == QFS_OK) {
            result = r;
        }
    }
    bool failed() const { return result != QFS_OK; }
};
