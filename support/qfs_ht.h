// Compact open-addressing hash table: fixed-size keys and values stored
// inline, two state bits per slot, growth and shrinking before inserts.
// Small maps (the up-case map, per-volume lookups) live in it.
#pragma once

#include <cstdint>

#include "support/qfs_error.h"

// Slot states, two bits each, four slots to a byte.
enum qfs_ht_slot : uint8_t {
    QFS_HT_SLOT_EMPTY = 0,
    // Occupied, and no probe sequence has continued past it yet.
    QFS_HT_SLOT_OCCUPIED = 1,
    // Removed from a slot that a probe sequence passes through.
    QFS_HT_SLOT_TOMBSTONE = 2,
    // Occupied, and some probe sequence continues past it.
    QFS_HT_SLOT_OCCUPIED_PASSED = 3,
};

struct qfs_ht {
    uint8_t bits;             // log2 of the slot count, 5..31
    uint8_t key_size;         // bytes
    uint8_t hash_word_offset; // offset of the 32-bit word that hashes keys of 4n bytes
    uint8_t value_size;       // bytes; 0 for a set
    uint32_t size;            // 2^bits slots
    uint32_t mask;            // size - 1
    uint32_t used;            // occupied slots plus tombstones since the last rebuild
    uint32_t deleted;         // tombstones
    uint32_t usable;          // load limit, size * 2 / 3
    // One allocation holds the state array, the keys and the values, each
    // part rounded up to 8 bytes; `states` owns it.
    uint8_t *states;
    uint8_t *keys;
    uint8_t *values; // null for a set
};

// Bits below 5 become 5; above 31 fail with QFS_ERR_OVERFLOW.
[[nodiscard]] qfs_result qfs_ht_create(uint8_t bits, uint8_t key_size, uint8_t hash_word_offset, uint8_t value_size,
                                       qfs_ht **out);
// The stored value (the stored key for a set), or null.
void *qfs_ht_get(const qfs_ht *table, const void *key);
// QFS_ERR_INTERNAL_ERROR when the key is already present.
[[nodiscard]] qfs_result qfs_ht_insert(qfs_ht *table, const void *key, const void *value);
// QFS_ERR_INTERNAL_ERROR when the key is absent. Never resizes.
[[nodiscard]] qfs_result qfs_ht_remove(qfs_ht *table, const void *key);
// Calls back for every occupied slot in slot order (value null for a set);
// stops at and returns the first non-zero answer.
[[nodiscard]] qfs_result qfs_ht_for_each(qfs_ht *table, void *context,
                                         int (*callback)(void *context, const void *key, void *value));
// The used counter: occupied slots plus tombstones.
uint32_t qfs_ht_count(const qfs_ht *table);
[[nodiscard]] qfs_result qfs_ht_destroy(qfs_ht **table);

// State of one slot (a qfs_ht_slot value); lets callers and tests see chains.
uint8_t qfs_ht_slot_state(const qfs_ht *table, uint32_t slot);
