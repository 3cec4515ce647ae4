// Placeholder until the UTF-8 conversion lands; drop this file then.
#include "support/qfs_unistr.h"

qfs_result qfs_unistr_from_utf8(const char *, size_t, uint16_t **, size_t *) {
    return QFS_ERR_NOT_IMPLEMENTED;
}
