#include "fat/upcase.h"

qfs_result fat_upcase_get_default_table(fat_upcase_table **out_table) {
    return qfs_upcase_get_default_table(out_table);
}

qfs_result fat_upcase_destroy_table(fat_upcase_table **table) { return qfs_upcase_destroy_table(table); }

qfs_result fat_upcase_convert_name(const fat_upcase_table *table, uint16_t *name, size_t length) {
    if (table == nullptr || (name == nullptr && length != 0)) return QFS_ERR_INVALID_PARAMETER;
    if (length == 0) return QFS_OK;
    return qfs_upcase_convert_case(table, name, length, 0, &name);
}
