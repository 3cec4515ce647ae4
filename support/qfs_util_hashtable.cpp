#include "support/qfs_util_hashtable.h"

#include <cstdlib>
#include <cstring>
#include <limits>

#include "support/qfs_hash.h"
#include "support/qfs_logging.h"
#include "support/qfs_memory.h"

namespace {

// Key and value items are at least this large so that a slot can hold a bucket pointer.
constexpr size_t item_alignment = 8;
static_assert(sizeof(void *) <= item_alignment, "a bucket pointer must fit in an item");
// A bucket starts with its 64-bit item count.
constexpr size_t bucket_header_size = sizeof(uint64_t);

// Saturates so that an impossible size fails in the allocator like any other.
size_t array_bytes(uint64_t count, size_t item_size) {
    size_t bytes;
    if (__builtin_mul_overflow(count, item_size, &bytes)) {
        return std::numeric_limits<size_t>::max();
    }
    return bytes;
}

uint64_t slot_of(const qfs_util_hashtable *t, const void *key) {
    return qfs_one_at_a_time<uint64_t>(static_cast<const uint8_t *>(key), t->key_size) % t->capacity;
}

bool holds_single_item(const qfs_util_hashtable *t, uint64_t slot) {
    return (t->single_item_bitmap[slot / 8] >> (slot % 8)) & 1;
}

void set_single_item(qfs_util_hashtable *t, uint64_t slot, bool single) {
    const uint8_t bit = static_cast<uint8_t>(1u << (slot % 8));
    uint8_t &byte = t->single_item_bitmap[slot / 8];
    byte = static_cast<uint8_t>(single ? (byte | bit) : (byte & ~bit));
}

uint8_t *key_item(const qfs_util_hashtable *t, uint64_t slot) { return t->keys + slot * t->key_item_size; }

uint8_t *value_item(const qfs_util_hashtable *t, uint64_t slot) {
    return t->values == nullptr ? nullptr : t->values + slot * t->value_item_size;
}

uint8_t *bucket_in(const uint8_t *item) {
    void *bucket;
    std::memcpy(&bucket, item, sizeof bucket);
    return static_cast<uint8_t *>(bucket);
}

void put_bucket(uint8_t *item, size_t item_size, void *bucket) {
    std::memset(item, 0, item_size);
    std::memcpy(item, &bucket, sizeof bucket);
}

uint64_t bucket_count(const uint8_t *bucket) {
    uint64_t count;
    std::memcpy(&count, bucket, sizeof count);
    return count;
}

void set_bucket_count(uint8_t *bucket, uint64_t count) { std::memcpy(bucket, &count, sizeof count); }

uint8_t *bucket_entry(uint8_t *bucket, size_t entry_size, uint64_t index) {
    return bucket + bucket_header_size + index * entry_size;
}

size_t bucket_bytes(uint64_t count, size_t entry_size) { return bucket_header_size + count * entry_size; }

void copy_or_zero(uint8_t *destination, const void *source, size_t size) {
    if (source != nullptr) {
        std::memcpy(destination, source, size);
    } else {
        std::memset(destination, 0, size);
    }
}

// Calls visit(key, value) for every item, inline and in buckets, until it answers non-zero.
template <typename Visit> int visit_items(const qfs_util_hashtable *t, Visit &&visit) {
    for (uint64_t slot = 0; slot < t->capacity; ++slot) {
        uint8_t *key = key_item(t, slot);
        uint8_t *value = value_item(t, slot);
        if (holds_single_item(t, slot)) {
            const int answer = visit(key, value);
            if (answer != 0) {
                return answer;
            }
            continue;
        }
        uint8_t *key_bucket = bucket_in(key);
        if (key_bucket == nullptr) {
            continue;
        }
        uint8_t *value_bucket = value != nullptr ? bucket_in(value) : nullptr;
        const uint64_t n = bucket_count(key_bucket);
        for (uint64_t i = 0; i < n; ++i) {
            const int answer = visit(bucket_entry(key_bucket, t->key_size, i),
                                     value_bucket != nullptr ? bucket_entry(value_bucket, t->value_size, i)
                                                             : nullptr);
            if (answer != 0) {
                return answer;
            }
        }
    }
    return 0;
}

// Frees every bucket, leaving the values they hold to whoever copied them.
void free_buckets(qfs_util_hashtable *t) {
    for (uint64_t slot = 0; slot < t->capacity; ++slot) {
        if (holds_single_item(t, slot)) {
            continue;
        }
        std::free(bucket_in(key_item(t, slot)));
        if (t->values != nullptr) {
            std::free(bucket_in(value_item(t, slot)));
        }
    }
}

// Finds the key; copies its value out when asked. Answers 1 or 0.
int qfs_util_hashtable_contains_internal(const qfs_util_hashtable *t, const void *key, void *out_value) {
    if (out_value != nullptr && t->values == nullptr) {
        QFS_LOG_CRITICAL("Value requested for hash table with no values.");
        return 0;
    }
    const uint64_t slot = slot_of(t, key);
    const uint8_t *item = key_item(t, slot);
    if (holds_single_item(t, slot)) {
        if (std::memcmp(item, key, t->key_size) != 0) {
            return 0;
        }
        if (out_value != nullptr) {
            std::memcpy(out_value, value_item(t, slot), t->value_size);
        }
        return 1;
    }
    uint8_t *key_bucket = bucket_in(item);
    if (key_bucket == nullptr) {
        return 0;
    }
    const uint64_t n = bucket_count(key_bucket);
    for (uint64_t i = 0; i < n; ++i) {
        if (std::memcmp(bucket_entry(key_bucket, t->key_size, i), key, t->key_size) == 0) {
            if (out_value != nullptr) {
                std::memcpy(out_value, bucket_entry(bucket_in(value_item(t, slot)), t->value_size, i),
                            t->value_size);
            }
            return 1;
        }
    }
    return 0;
}

} // namespace

qfs_result qfs_util_hashtable_create(uint64_t capacity, size_t key_size, size_t value_size,
                                     void (*destructor)(void *value), qfs_util_hashtable **out) {
    if (key_size > item_alignment && key_size % item_alignment != 0) {
        QFS_LOG_ERROR("Unsupported key size: %zu (must be aligned to the pointer size, %zu)", key_size,
                      item_alignment);
        return QFS_ERR_INVALID_PARAMETER;
    }
    // Slots are chosen modulo the capacity.
    if (capacity == 0) {
        QFS_LOG_ERROR("Unsupported capacity: %llu (must be at least 1)", 0ULL);
        return QFS_ERR_INVALID_PARAMETER;
    }
    qfs_unique<qfs_util_hashtable> table;
    qfs_result r = qfs_object_alloc(table);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while allocating memory for qfs_util_hashtable: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    table->capacity = capacity;
    table->key_size = key_size;
    table->key_item_size = key_size < item_alignment ? item_alignment : key_size;
    table->value_size = value_size;
    table->value_item_size = value_size == 0 ? 0 : (value_size < item_alignment ? item_alignment : value_size);
    table->destructor = destructor;

    qfs_buffer keys;
    r = qfs_buffer_alloc(array_bytes(capacity, table->key_item_size), keys);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while allocating memory for initial key items array: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    qfs_buffer values;
    if (value_size != 0) {
        r = qfs_buffer_alloc(array_bytes(capacity, table->value_item_size), values);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Error while allocating memory for initial value items array: %lu (%s)",
                          QFS_ERR_ARGS(r));
            return r;
        }
    }
    qfs_buffer bitmap;
    r = qfs_buffer_alloc(capacity / 8 + (capacity % 8 != 0), bitmap);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while allocation memory for initial hash set bitmap: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    table->keys = keys.release();
    table->values = values.release();
    table->single_item_bitmap = bitmap.release();
    *out = table.release();
    return QFS_OK;
}

qfs_result qfs_util_hashtable_insert(qfs_util_hashtable *table, const void *key, size_t key_size,
                                     const void *value, size_t value_size) {
    QFS_TRACE("Entering: table=%p key=%p key_size=%zu value=%p value_size=%zu", static_cast<void *>(table), key,
              key_size, value, value_size);
    if (key_size != table->key_size) {
        QFS_LOG_ERROR("Invalid key size: %zu (expected %zu)", key_size, table->key_size);
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (value_size != table->value_size) {
        QFS_LOG_ERROR("Invalid value size: %zu (expected %zu)", value_size, table->value_size);
        return QFS_ERR_INVALID_PARAMETER;
    }
    const qfs_result r = qfs_util_hashtable_autoexpand(table);
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while expanding hash set: %lu (%s)", QFS_ERR_ARGS(r));
        return r;
    }
    return qfs_util_hashtable_insert_raw(table, key, value);
}

qfs_result qfs_util_hashtable_insert_raw(qfs_util_hashtable *table, const void *key, const void *value) {
    const size_t ks = table->key_size;
    const size_t vs = table->value_size;
    const uint64_t slot = slot_of(table, key);
    uint8_t *k_item = key_item(table, slot);
    uint8_t *v_item = value_item(table, slot);
    void *block = nullptr;

    if (holds_single_item(table, slot)) {
        // A second item turns the slot into a bucket holding both.
        qfs_result r = _qfs_malloc(0, bucket_bytes(2, ks), &block);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Error when allocating memory for new key bucket: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
        qfs_buffer key_bucket(static_cast<uint8_t *>(block));
        qfs_buffer value_bucket;
        if (v_item != nullptr) {
            r = _qfs_malloc(0, bucket_bytes(2, vs), &block);
            if (r != QFS_OK) {
                QFS_LOG_ERROR("Error when allocating memory for new value bucket: %lu (%s)", QFS_ERR_ARGS(r));
                return r;
            }
            value_bucket.reset(static_cast<uint8_t *>(block));
            set_bucket_count(value_bucket.get(), 2);
            std::memcpy(bucket_entry(value_bucket.get(), vs, 0), v_item, vs);
            copy_or_zero(bucket_entry(value_bucket.get(), vs, 1), value, vs);
            put_bucket(v_item, table->value_item_size, value_bucket.release());
        }
        set_bucket_count(key_bucket.get(), 2);
        std::memcpy(bucket_entry(key_bucket.get(), ks, 0), k_item, ks);
        std::memcpy(bucket_entry(key_bucket.get(), ks, 1), key, ks);
        put_bucket(k_item, table->key_item_size, key_bucket.release());
        set_single_item(table, slot, false);
    } else if (uint8_t *key_bucket = bucket_in(k_item); key_bucket != nullptr) {
        const uint64_t n = bucket_count(key_bucket);
        qfs_result r = _qfs_realloc(0, key_bucket, bucket_bytes(n, ks), bucket_bytes(n + 1, ks), &block);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Error when reallocating memory for expanded bucket: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
        // The larger block replaces the old one at once; its count still says n.
        key_bucket = static_cast<uint8_t *>(block);
        put_bucket(k_item, table->key_item_size, key_bucket);
        if (v_item != nullptr) {
            uint8_t *value_bucket = bucket_in(v_item);
            r = _qfs_realloc(0, value_bucket, bucket_bytes(n, vs), bucket_bytes(n + 1, vs), &block);
            if (r != QFS_OK) {
                QFS_LOG_ERROR("Error when reallocating memory for expanded value bucket: %lu (%s)",
                              QFS_ERR_ARGS(r));
                return r;
            }
            value_bucket = static_cast<uint8_t *>(block);
            put_bucket(v_item, table->value_item_size, value_bucket);
            copy_or_zero(bucket_entry(value_bucket, vs, n), value, vs);
            set_bucket_count(value_bucket, n + 1);
        }
        std::memcpy(bucket_entry(key_bucket, ks, n), key, ks);
        set_bucket_count(key_bucket, n + 1);
    } else {
        set_single_item(table, slot, true);
        std::memcpy(k_item, key, ks);
        if (v_item != nullptr) {
            copy_or_zero(v_item, value, vs);
        }
    }
    ++table->count;
    return QFS_OK;
}

int qfs_util_hashtable_get(const qfs_util_hashtable *table, const void *key, size_t key_size, void *out_value,
                           size_t value_size) {
    QFS_TRACE("Entering: table=%p key=%p key_size=%zu out_value=%p out_value_size=%zu",
              static_cast<const void *>(table), key, key_size, out_value, value_size);
    if (key_size != table->key_size) {
        QFS_LOG_WARNING("Incorrect key size: %zu (expected %zu)", key_size, table->key_size);
        return 0;
    }
    if (table->values == nullptr) {
        QFS_LOG_WARNING("Unable to get value for key: No values in hashtable.");
        return 0;
    }
    if (value_size != table->value_size) {
        QFS_LOG_WARNING("Incorrect value size: %zu (expected %zu)", value_size, table->value_size);
        return 0;
    }
    return qfs_util_hashtable_contains_internal(table, key, out_value);
}

int qfs_util_hashtable_contains(const qfs_util_hashtable *table, const void *key, size_t key_size) {
    if (key_size != table->key_size) {
        QFS_LOG_WARNING("Incorrect key size: %zu (expected %zu)", key_size, table->key_size);
        return 0;
    }
    return qfs_util_hashtable_contains_internal(table, key, nullptr);
}

int qfs_util_hashtable_remove(qfs_util_hashtable *table, const void *key, size_t key_size) {
    if (key_size != table->key_size) {
        QFS_LOG_ERROR("Invalid key size: %zu", key_size);
        return 0;
    }
    return qfs_util_hashtable_remove_raw(table, key);
}

int qfs_util_hashtable_remove_raw(qfs_util_hashtable *table, const void *key) {
    const size_t ks = table->key_size;
    const size_t vs = table->value_size;
    const uint64_t slot = slot_of(table, key);
    uint8_t *k_item = key_item(table, slot);
    uint8_t *v_item = value_item(table, slot);

    if (holds_single_item(table, slot)) {
        if (std::memcmp(k_item, key, ks) != 0) {
            return 0;
        }
        std::memset(k_item, 0, table->key_item_size);
        if (v_item != nullptr) {
            std::memset(v_item, 0, table->value_item_size);
        }
        set_single_item(table, slot, false);
        --table->count;
        return 1;
    }
    uint8_t *key_bucket = bucket_in(k_item);
    if (key_bucket == nullptr) {
        return 0;
    }
    const uint64_t n = bucket_count(key_bucket);
    uint64_t index = 0;
    while (index < n && std::memcmp(bucket_entry(key_bucket, ks, index), key, ks) != 0) {
        ++index;
    }
    if (index == n) {
        return 0;
    }
    uint8_t *value_bucket = v_item != nullptr ? bucket_in(v_item) : nullptr;

    if (n > 2) {
        const uint64_t later = n - index - 1;
        std::memmove(bucket_entry(key_bucket, ks, index), bucket_entry(key_bucket, ks, index + 1), later * ks);
        set_bucket_count(key_bucket, n - 1);
        if (value_bucket != nullptr) {
            std::memmove(bucket_entry(value_bucket, vs, index), bucket_entry(value_bucket, vs, index + 1),
                         later * vs);
            set_bucket_count(value_bucket, n - 1);
        }
        // A bucket that cannot shrink is merely larger than it needs to be.
        void *block = nullptr;
        qfs_result r = _qfs_realloc(0, key_bucket, bucket_bytes(n, ks), bucket_bytes(n - 1, ks), &block);
        if (r == QFS_OK) {
            put_bucket(k_item, table->key_item_size, block);
        } else {
            QFS_LOG_WARNING("Error when reallocating memory for shrunk key bucket: %lu (%s)", QFS_ERR_ARGS(r));
        }
        if (value_bucket != nullptr) {
            r = _qfs_realloc(0, value_bucket, bucket_bytes(n, vs), bucket_bytes(n - 1, vs), &block);
            if (r == QFS_OK) {
                put_bucket(v_item, table->value_item_size, block);
            } else {
                QFS_LOG_WARNING("Error when reallocating memory for shrunk value bucket: %lu (%s)",
                                QFS_ERR_ARGS(r));
            }
        }
    } else {
        // The one item left moves back inline.
        const uint64_t other = index == 0 ? 1 : 0;
        std::memset(k_item, 0, table->key_item_size);
        std::memcpy(k_item, bucket_entry(key_bucket, ks, other), ks);
        std::free(key_bucket);
        if (value_bucket != nullptr) {
            std::memset(v_item, 0, table->value_item_size);
            std::memcpy(v_item, bucket_entry(value_bucket, vs, other), vs);
            std::free(value_bucket);
        }
        set_single_item(table, slot, true);
    }
    --table->count;
    return 1;
}

uint64_t qfs_util_hashtable_count(const qfs_util_hashtable *table) { return table->count; }

qfs_result qfs_util_hashtable_for_each(qfs_util_hashtable *table, void *context,
                                       int (*callback)(void *context, const void *key, void *value)) {
    return visit_items(table, [&](const uint8_t *key, uint8_t *value) { return callback(context, key, value); });
}

qfs_result qfs_util_hashtable_autoexpand(qfs_util_hashtable *table) {
    if (table->count < table->capacity / 2) {
        return QFS_OK;
    }
    qfs_util_hashtable *bigger = nullptr;
    qfs_result r = qfs_util_hashtable_create(table->capacity * 2, table->key_size, table->value_size, nullptr,
                                             &bigger);
    if (r != QFS_OK) {
        return r;
    }
    r = visit_items(table, [&](const uint8_t *key, const uint8_t *value) {
        return qfs_util_hashtable_insert_raw(bigger, key, value);
    });
    if (r != QFS_OK) {
        // The half-filled copy only holds memory; the insert's failure is what the caller hears.
        (void)qfs_util_hashtable_destroy(&bigger);
        return r;
    }
    // The items now live in the bigger arrays; only the old containers go.
    free_buckets(table);
    std::free(table->single_item_bitmap);
    std::free(table->values);
    std::free(table->keys);
    table->capacity = bigger->capacity;
    table->keys = bigger->keys;
    table->values = bigger->values;
    table->single_item_bitmap = bigger->single_item_bitmap;
    qfs_free(bigger);
    return QFS_OK;
}

qfs_result qfs_util_hashtable_destroy(qfs_util_hashtable **table) {
    if (table == nullptr || *table == nullptr) {
        return QFS_OK;
    }
    qfs_util_hashtable *t = *table;
    const uint64_t before = t->count;
    for (uint64_t slot = 0; slot < t->capacity; ++slot) {
        uint8_t *v_item = value_item(t, slot);
        if (holds_single_item(t, slot)) {
            if (t->destructor != nullptr && v_item != nullptr) {
                t->destructor(v_item);
            }
            --t->count;
            continue;
        }
        uint8_t *key_bucket = bucket_in(key_item(t, slot));
        if (key_bucket == nullptr) {
            continue;
        }
        const uint64_t n = bucket_count(key_bucket);
        t->count -= n;
        std::free(key_bucket);
        if (v_item != nullptr) {
            uint8_t *value_bucket = bucket_in(v_item);
            if (t->destructor != nullptr) {
                for (uint64_t i = 0; i < n; ++i) {
                    t->destructor(bucket_entry(value_bucket, t->value_size, i));
                }
            }
            std::free(value_bucket);
        }
    }
    if (t->count != 0) {
        QFS_LOG_WARNING("Non-zero hash set item count after destroy: %zu (before: %zu)",
                        static_cast<size_t>(t->count), static_cast<size_t>(before));
    }
    std::free(t->single_item_bitmap);
    std::free(t->values);
    std::free(t->keys);
    qfs_free(*table);
    return QFS_OK;
}
