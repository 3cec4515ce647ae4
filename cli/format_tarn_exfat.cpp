#include "cli/format_runs.h"

#include "support/qfs_logging.h"

qfs_result format_tarn_exfat(const char *, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, const char *, uint32_t,
                             format_monitor *) {
    const qfs_result r = QFS_ERR_NOT_IMPLEMENTED;
    QFS_LOG_ERROR("exFAT formatting is not available in this version: %lu (%s)", QFS_ERR_ARGS(r));
    return r;
}
