#include "support/qfs_ht.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "support/qfs_hash.h"
#include "support/qfs_logging.h"
#include "support/qfs_memory.h"

namespace {

// Fewer slots than this would make the state array shorter than its 8-byte rounding.
constexpr int min_bits = 5;
constexpr int max_bits = 31;

enum class probe_answer { keep_going, found, stop, inserted };

size_t round_up_to_8(size_t bytes) { return (bytes + 7) & ~size_t{7}; }

// Keys live in memory in host order; their words are read the same way.
uint32_t key_word(const uint8_t *key, size_t offset) {
    uint32_t word;
    std::memcpy(&word, key + offset, sizeof word);
    return word;
}

bool key_is_whole_words(const qfs_ht *t) { return t->key_size % 4 == 0; }

uint8_t state_at(const qfs_ht *t, uint32_t slot) {
    return static_cast<uint8_t>((t->states[slot / 4] >> (2 * (slot % 4))) & 3);
}

void set_state(qfs_ht *t, uint32_t slot, uint8_t state) {
    const unsigned shift = 2 * (slot % 4);
    uint8_t &byte = t->states[slot / 4];
    byte = static_cast<uint8_t>((byte & ~(3u << shift)) | (static_cast<unsigned>(state) << shift));
}

uint8_t *key_at(const qfs_ht *t, uint32_t slot) { return t->keys + size_t{slot} * t->key_size; }

uint8_t *value_at(const qfs_ht *t, uint32_t slot) {
    return t->values == nullptr ? nullptr : t->values + size_t{slot} * t->value_size;
}

bool key_equals(const qfs_ht *t, uint32_t slot, const uint8_t *key) {
    return std::memcmp(key_at(t, slot), key, t->key_size) == 0;
}

// Walks the key's probe sequence until the visitor answers anything but keep_going.
// Once the key's words are used up, slot * 5 + 1 modulo a power of two visits
// every slot, and the load limit keeps at least one slot empty.
template <typename Visitor> probe_answer probe(const qfs_ht *t, const uint8_t *key, Visitor &&visit) {
    uint32_t slot;
    uint32_t word_index;
    if (key_is_whole_words(t)) {
        slot = key_word(key, t->hash_word_offset) & t->mask;
        word_index = 0;
    } else {
        slot = qfs_one_at_a_time<uint32_t>(key, t->key_size) & t->mask;
        word_index = t->key_size; // past the key: no perturbation
    }
    uint32_t perturbation = 0;
    for (;;) {
        const probe_answer answer = visit(slot, state_at(t, slot));
        if (answer != probe_answer::keep_going) {
            return answer;
        }
        uint32_t next = slot * 5 + 1;
        if (word_index * 4 < t->key_size) {
            perturbation += key_word(key, size_t{word_index} * 4);
            next += perturbation;
            ++word_index;
        }
        slot = next & t->mask;
    }
}

void store(qfs_ht *t, uint32_t slot, const uint8_t *key, const void *value) {
    std::memcpy(key_at(t, slot), key, t->key_size);
    if (t->values != nullptr) {
        if (value != nullptr) {
            std::memcpy(value_at(t, slot), value, t->value_size);
        } else {
            std::memset(value_at(t, slot), 0, t->value_size);
        }
    }
}

// Inserts without the resize check; answers inserted, or found for a key already present.
probe_answer insert_slot(qfs_ht *t, const uint8_t *key, const void *value) {
    return probe(t, key, [&](uint32_t slot, uint8_t state) {
        switch (state) {
        case QFS_HT_SLOT_EMPTY:
            set_state(t, slot, QFS_HT_SLOT_OCCUPIED);
            ++t->used;
            store(t, slot, key, value);
            return probe_answer::inserted;
        case QFS_HT_SLOT_TOMBSTONE:
            // The slot sits inside a chain, so it stays marked as passed.
            set_state(t, slot, QFS_HT_SLOT_OCCUPIED_PASSED);
            --t->deleted;
            store(t, slot, key, value);
            return probe_answer::inserted;
        case QFS_HT_SLOT_OCCUPIED:
            if (key_equals(t, slot, key)) {
                return probe_answer::found;
            }
            set_state(t, slot, QFS_HT_SLOT_OCCUPIED_PASSED);
            return probe_answer::keep_going;
        default:
            return key_equals(t, slot, key) ? probe_answer::found : probe_answer::keep_going;
        }
    });
}

// Builds fresh arrays for 2^bits slots and moves every stored item into them.
// On failure the table is left as it was.
qfs_result rebuild(qfs_ht *t, int bits) {
    if (bits < min_bits) {
        bits = min_bits;
    }
    if (bits > max_bits) {
        return QFS_ERR_OVERFLOW;
    }
    qfs_ht fresh = *t;
    fresh.bits = static_cast<uint8_t>(bits);
    fresh.size = uint32_t{1} << bits;
    fresh.mask = fresh.size - 1;
    fresh.used = 0;
    fresh.deleted = 0;
    fresh.usable = static_cast<uint32_t>(uint64_t{fresh.size} * 2 / 3);

    const size_t state_bytes = round_up_to_8(fresh.size / 4);
    const size_t key_bytes = round_up_to_8(size_t{fresh.size} * t->key_size);
    const size_t value_bytes = round_up_to_8(size_t{fresh.size} * t->value_size);
    void *block = nullptr;
    const qfs_result r = _qfs_calloc(0, state_bytes + key_bytes + value_bytes, &block);
    if (r != QFS_OK) {
        return r;
    }
    fresh.states = static_cast<uint8_t *>(block);
    fresh.keys = fresh.states + state_bytes;
    fresh.values = t->value_size == 0 ? nullptr : fresh.keys + key_bytes;

    for (uint32_t slot = 0; slot < t->size; ++slot) {
        if ((state_at(t, slot) & QFS_HT_SLOT_OCCUPIED) != 0) {
            insert_slot(&fresh, key_at(t, slot), value_at(t, slot));
        }
    }
    std::free(t->states);
    *t = fresh;
    return QFS_OK;
}

// Grows when the table is over its load limit, shrinks when it is sparse,
// and rebuilds in place when tombstones make up much of it.
qfs_result resize_check(qfs_ht *t) {
    const uint32_t threshold = (t->size - t->usable) >> 1;
    if (t->used <= t->usable && (t->used > threshold || t->bits < 6)) {
        return QFS_OK;
    }
    int bits = t->bits;
    if (t->used - t->deleted < threshold) {
        --bits;
    } else if (t->deleted < threshold) {
        ++bits;
    }
    QFS_TRACE("Hash table resize: old size=%u used=%u usable=%u threshold=%u new size=%u", t->size, t->used,
              t->usable, threshold, static_cast<uint32_t>(uint64_t{1} << bits));
    return rebuild(t, bits);
}

} // namespace

qfs_result qfs_ht_create(uint8_t bits, uint8_t key_size, uint8_t hash_word_offset, uint8_t value_size,
                         qfs_ht **out) {
    // The hashed word must lie inside the key; a key of no bytes cannot be told apart.
    if (key_size == 0 || (key_size % 4 == 0 && hash_word_offset > key_size - 4)) {
        QFS_LOG_ERROR("Invalid hash table key layout: key size %u, hash word offset %u: %lu (%s)", key_size,
                      hash_word_offset, QFS_ERR_ARGS(QFS_ERR_INVALID_PARAMETER));
        return QFS_ERR_INVALID_PARAMETER;
    }
    void *block = nullptr;
    qfs_result r = _qfs_calloc(0, sizeof(qfs_ht), &block);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while allocating hash table header: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    qfs_unique<qfs_ht> table(static_cast<qfs_ht *>(block));
    table->key_size = key_size;
    table->hash_word_offset = hash_word_offset;
    table->value_size = value_size;
    r = rebuild(table.get(), bits);
    if (r != QFS_OK) {
        return r;
    }
    *out = table.release();
    return QFS_OK;
}

void *qfs_ht_get(const qfs_ht *table, const void *key) {
    const auto *k = static_cast<const uint8_t *>(key);
    void *result = nullptr;
    probe(table, k, [&](uint32_t slot, uint8_t state) {
        switch (state) {
        case QFS_HT_SLOT_EMPTY:
            return probe_answer::stop;
        case QFS_HT_SLOT_TOMBSTONE:
            return probe_answer::keep_going;
        default:
            if (key_equals(table, slot, k)) {
                result = table->values != nullptr ? value_at(table, slot) : key_at(table, slot);
                return probe_answer::found;
            }
            // No chain passes a slot that was never passed.
            return state == QFS_HT_SLOT_OCCUPIED ? probe_answer::stop : probe_answer::keep_going;
        }
    });
    return result;
}

qfs_result qfs_ht_insert(qfs_ht *table, const void *key, const void *value) {
    const qfs_result r = resize_check(table);
    if (r != QFS_OK) {
        return r;
    }
    if (insert_slot(table, static_cast<const uint8_t *>(key), value) == probe_answer::found) {
        return QFS_ERR_INTERNAL_ERROR;
    }
    return QFS_OK;
}

qfs_result qfs_ht_remove(qfs_ht *table, const void *key) {
    const auto *k = static_cast<const uint8_t *>(key);
    const probe_answer answer = probe(table, k, [&](uint32_t slot, uint8_t state) {
        switch (state) {
        case QFS_HT_SLOT_EMPTY:
            return probe_answer::stop;
        case QFS_HT_SLOT_OCCUPIED:
            if (!key_equals(table, slot, k)) {
                return probe_answer::stop;
            }
            // No chain runs through it, so it can become truly empty.
            set_state(table, slot, QFS_HT_SLOT_EMPTY);
            --table->used;
            return probe_answer::found;
        case QFS_HT_SLOT_TOMBSTONE:
            return probe_answer::keep_going;
        default:
            if (!key_equals(table, slot, k)) {
                return probe_answer::keep_going;
            }
            set_state(table, slot, QFS_HT_SLOT_TOMBSTONE);
            ++table->deleted;
            return probe_answer::found;
        }
    });
    return answer == probe_answer::found ? QFS_OK : QFS_ERR_INTERNAL_ERROR;
}

qfs_result qfs_ht_for_each(qfs_ht *table, void *context,
                           int (*callback)(void *context, const void *key, void *value)) {
    for (uint32_t slot = 0; slot < table->size; ++slot) {
        if ((state_at(table, slot) & QFS_HT_SLOT_OCCUPIED) == 0) {
            continue;
        }
        const int answer = callback(context, key_at(table, slot), value_at(table, slot));
        if (answer != 0) {
            return answer;
        }
    }
    return QFS_OK;
}

uint32_t qfs_ht_count(const qfs_ht *table) { return table->used; }

qfs_result qfs_ht_destroy(qfs_ht **table) {
    if (table == nullptr || *table == nullptr) {
        return QFS_OK;
    }
    std::free((*table)->states);
    qfs_free(*table);
    return QFS_OK;
}

uint8_t qfs_ht_slot_state(const qfs_ht *table, uint32_t slot) { return state_at(table, slot & table->mask); }
