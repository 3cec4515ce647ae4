// Chained hash table: a fixed array of slots, each holding one item inline
// or a pointer to a growable bucket, doubled on request. Volume access keeps
// its open objects in one per volume.
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/qfs_error.h"

// A slot is empty when its bitmap bit is clear and its key item, read as a
// pointer, is null; holds one item inline when its bit is set; and otherwise
// points to a key bucket (a 64-bit count, then that many keys) whose value
// bucket, with the same layout, sits in the slot's value item.
struct qfs_util_hashtable {
    uint64_t count;
    uint64_t capacity;
    size_t key_size;
    size_t key_item_size; // key size, but at least a pointer
    size_t value_size;
    size_t value_item_size; // at least a pointer; 0 without values
    uint8_t *keys;
    uint8_t *values; // null without values
    uint8_t *single_item_bitmap;
    void (*destructor)(void *value);
};

// Keys above 8 bytes must be a multiple of 8 bytes. A value size of 0 makes a set.
[[nodiscard]] qfs_result qfs_util_hashtable_create(uint64_t capacity, size_t key_size, size_t value_size,
                                                   void (*destructor)(void *value), qfs_util_hashtable **out);
// Expands first when half full. Does not look for an equal key: inserting a
// key twice stores it twice.
[[nodiscard]] qfs_result qfs_util_hashtable_insert(qfs_util_hashtable *table, const void *key, size_t key_size,
                                                   const void *value, size_t value_size);
// 1 with the value copied out, or 0 (also for sizes that do not match the table).
int qfs_util_hashtable_get(const qfs_util_hashtable *table, const void *key, size_t key_size, void *out_value,
                           size_t value_size);
int qfs_util_hashtable_contains(const qfs_util_hashtable *table, const void *key, size_t key_size);
// 1 when removed, 0 when absent. The destructor is not called.
int qfs_util_hashtable_remove(qfs_util_hashtable *table, const void *key, size_t key_size);
uint64_t qfs_util_hashtable_count(const qfs_util_hashtable *table);
// Visits every item, inline and in buckets (value null without values);
// stops at and returns the first non-zero answer.
[[nodiscard]] qfs_result qfs_util_hashtable_for_each(qfs_util_hashtable *table, void *context,
                                                     int (*callback)(void *context, const void *key, void *value));
// Calls the destructor on every value, then frees the table.
[[nodiscard]] qfs_result qfs_util_hashtable_destroy(qfs_util_hashtable **table);

// Doubles the capacity when count >= capacity / 2; otherwise does nothing.
[[nodiscard]] qfs_result qfs_util_hashtable_autoexpand(qfs_util_hashtable *table);
// Inserts with the table's own key and value sizes, without expanding.
[[nodiscard]] qfs_result qfs_util_hashtable_insert_raw(qfs_util_hashtable *table, const void *key, const void *value);
// 1 when removed, 0 when absent.
int qfs_util_hashtable_remove_raw(qfs_util_hashtable *table, const void *key);
