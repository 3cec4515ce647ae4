// Capitals for FAT labels and short names. FAT volumes carry no table of
// their own; the map is the recommended Unicode up-case table that exFAT
// volumes store, so both engines upper-case a label the same way.
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/qfs_upcase.h"
#include "support/qfs_error.h"

using fat_upcase_table = qfs_upcase_table;

[[nodiscard]] qfs_result fat_upcase_get_default_table(fat_upcase_table **out_table);
qfs_result fat_upcase_destroy_table(fat_upcase_table **table);

// Replaces each of the `length` UTF-16 units of `name` by its capital, in place.
[[nodiscard]] qfs_result fat_upcase_convert_name(const fat_upcase_table *table, uint16_t *name, size_t length);
