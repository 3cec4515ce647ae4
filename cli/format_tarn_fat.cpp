#include "cli/format_runs.h"

#include <cstdio>

#include "support/qfs_logging.h"

qfs_result format_tarn_fat(const char *, uint64_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, const char *,
                           uint32_t, uint32_t, const char **, format_monitor *) {
    // The FAT engine is not part of this build yet; refuse before touching the card.
    const qfs_result r = QFS_ERR_NOT_IMPLEMENTED;
    QFS_LOG_ERROR("FAT formatting (cards of up to 66945024 sectors) is not available in this version: %lu (%s)",
                  QFS_ERR_ARGS(r));
    return r;
}
