#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "support/qfs_ht.h"

namespace {

// Owns a table for the length of a test.
struct table_holder {
    qfs_ht *table = nullptr;
    ~table_holder() { EXPECT_EQ(qfs_ht_destroy(&table), QFS_OK); }
};

// 4-byte keys hashed by their own word: the first slot of key k is k & mask,
// so colliding keys are easy to write down.
qfs_ht *word_keyed_table(table_holder &holder, uint8_t bits = 5) {
    EXPECT_EQ(qfs_ht_create(bits, 4, 0, 4, &holder.table), QFS_OK);
    return holder.table;
}

void insert_word(qfs_ht *t, uint32_t key) {
    const uint32_t value = key + 1000;
    ASSERT_EQ(qfs_ht_insert(t, &key, &value), QFS_OK) << "key " << key;
}

// The stored value of a word key, or 0 when absent (stored values are key + 1000).
uint32_t value_of(const qfs_ht *t, uint32_t key) {
    const void *stored = qfs_ht_get(t, &key);
    uint32_t value = 0;
    if (stored != nullptr) std::memcpy(&value, stored, sizeof value);
    return value;
}

struct create_case {
    uint8_t bits;
    qfs_result result;
    uint8_t bits_after;
    uint32_t size;
    uint32_t usable; // size * 2 / 3
};

constexpr create_case create_cases[] = {
    {0, QFS_OK, 5, 32, 21},  // raised to the minimum of 5 bits
    {4, QFS_OK, 5, 32, 21},  // the up-case map asks for 4
    {6, QFS_OK, 6, 64, 42},
    {32, QFS_ERR_OVERFLOW, 0, 0, 0},
};

TEST(CompactTable, CreateClampsBitsAndRefusesMoreThan31) {
    for (const auto &c : create_cases) {
        SCOPED_TRACE(testing::Message() << "bits " << int{c.bits});
        table_holder h;
        ASSERT_EQ(qfs_ht_create(c.bits, 4, 0, 4, &h.table), c.result);
        if (c.result != QFS_OK) {
            EXPECT_EQ(h.table, nullptr);
            continue;
        }
        EXPECT_EQ(h.table->bits, c.bits_after);
        EXPECT_EQ(h.table->size, c.size);
        EXPECT_EQ(h.table->mask, c.size - 1);
        EXPECT_EQ(h.table->usable, c.usable);
        EXPECT_EQ(h.table->used, 0u);
        EXPECT_EQ(h.table->deleted, 0u);
    }
}

TEST(CompactTable, CollisionChainLeavesTombstoneThatTheNextInsertReuses) {
    table_holder h;
    qfs_ht *t = word_keyed_table(h);
    insert_word(t, 3); // slot 3
    // 35 & 31 = 3 collides; slot 3 is now passed. Next slot: 3 * 5 + 1 plus
    // the key word 35 = 51, & 31 = 19.
    insert_word(t, 35);
    EXPECT_EQ(qfs_ht_slot_state(t, 3), QFS_HT_SLOT_OCCUPIED_PASSED);
    EXPECT_EQ(qfs_ht_slot_state(t, 19), QFS_HT_SLOT_OCCUPIED);
    EXPECT_EQ(value_of(t, 35), 1035u);

    // A chain runs through slot 3, so removing its key leaves a tombstone,
    // which the used count keeps counting.
    const uint32_t three = 3;
    ASSERT_EQ(qfs_ht_remove(t, &three), QFS_OK);
    EXPECT_EQ(qfs_ht_slot_state(t, 3), QFS_HT_SLOT_TOMBSTONE);
    EXPECT_EQ(t->deleted, 1u);
    EXPECT_EQ(qfs_ht_count(t), 2u);
    EXPECT_EQ(qfs_ht_get(t, &three), nullptr);
    EXPECT_EQ(value_of(t, 35), 1035u);

    // 67 & 31 = 3: the tombstone is the first slot of its probe.
    insert_word(t, 67);
    EXPECT_EQ(qfs_ht_slot_state(t, 3), QFS_HT_SLOT_OCCUPIED_PASSED);
    EXPECT_EQ(t->deleted, 0u);
    EXPECT_EQ(qfs_ht_count(t), 2u);
    EXPECT_EQ(value_of(t, 67), 1067u);

    // Nothing probed past slot 19: its key goes and the slot is truly empty.
    const uint32_t thirty_five = 35;
    ASSERT_EQ(qfs_ht_remove(t, &thirty_five), QFS_OK);
    EXPECT_EQ(qfs_ht_slot_state(t, 19), QFS_HT_SLOT_EMPTY);
    EXPECT_EQ(qfs_ht_count(t), 1u);
    EXPECT_EQ(qfs_ht_remove(t, &thirty_five), QFS_ERR_INTERNAL_ERROR);
}

TEST(CompactTable, DuplicateKeyIsRefusedAndChangesNothing) {
    table_holder h;
    qfs_ht *t = word_keyed_table(h);
    insert_word(t, 7);
    insert_word(t, 39); // passes slot 7
    for (const uint32_t key : {7u, 39u}) {
        const uint32_t other = 1;
        EXPECT_EQ(qfs_ht_insert(t, &key, &other), QFS_ERR_INTERNAL_ERROR);
        EXPECT_EQ(value_of(t, key), key + 1000);
    }
    EXPECT_EQ(qfs_ht_count(t), 2u);
}

TEST(CompactTable, GrowsOnTheInsertAfterTheLoadLimitAndShrinksWhenSparse) {
    table_holder h;
    qfs_ht *t = word_keyed_table(h);
    // Keys below 32 sit in their own slots. The check before each insert
    // grows only once used (22) exceeds usable (21).
    for (uint32_t key = 0; key < 22; ++key) insert_word(t, key);
    EXPECT_EQ(t->bits, 5);
    insert_word(t, 22);
    EXPECT_EQ(t->bits, 6);
    EXPECT_EQ(t->size, 64u);
    EXPECT_EQ(t->usable, 42u);
    EXPECT_EQ(t->used, 23u);

    // At 64 slots the threshold is (64 - 42) / 2 = 11; keys below 64 never
    // collide, so removals empty their slots and 10 stay in use.
    for (uint32_t key = 10; key < 23; ++key) ASSERT_EQ(qfs_ht_remove(t, &key), QFS_OK);
    EXPECT_EQ(t->bits, 6) << "removal never resizes";
    insert_word(t, 100);
    EXPECT_EQ(t->bits, 5);
    EXPECT_EQ(t->size, 32u);
    EXPECT_EQ(t->usable, 21u);
    EXPECT_EQ(t->used, 11u);
    for (uint32_t key = 0; key < 10; ++key) EXPECT_EQ(value_of(t, key), key + 1000);
    EXPECT_EQ(value_of(t, 100), 1100u);
    EXPECT_EQ(value_of(t, 15), 0u);
}

TEST(CompactTable, ManyTombstonesRebuildAtTheSameSize) {
    table_holder h;
    qfs_ht *t = word_keyed_table(h);
    // Every multiple of 32 starts at slot 0, so the keys form one long chain.
    std::vector<uint32_t> keys;
    for (uint32_t i = 0; i < 22; ++i) keys.push_back(32 * i);
    for (uint32_t key : keys) insert_word(t, key);

    // Remove five keys from passed slots: five tombstones.
    std::vector<uint32_t> removed;
    for (uint32_t slot = 0; slot < t->size && removed.size() < 5; ++slot) {
        if (qfs_ht_slot_state(t, slot) != QFS_HT_SLOT_OCCUPIED_PASSED) continue;
        uint32_t key;
        std::memcpy(&key, t->keys + 4 * slot, sizeof key);
        ASSERT_EQ(qfs_ht_remove(t, &key), QFS_OK);
        removed.push_back(key);
    }
    ASSERT_EQ(removed.size(), 5u);
    EXPECT_EQ(t->used, 22u);
    EXPECT_EQ(t->deleted, 5u);

    // used 22 > usable 21; live 17 and tombstones 5 both reach the threshold
    // (32 - 21) / 2 = 5, so the table keeps 32 slots and drops the tombstones.
    insert_word(t, 32 * 22);
    EXPECT_EQ(t->bits, 5);
    EXPECT_EQ(t->deleted, 0u);
    EXPECT_EQ(t->used, 18u);
    for (uint32_t slot = 0; slot < t->size; ++slot) EXPECT_NE(qfs_ht_slot_state(t, slot), QFS_HT_SLOT_TOMBSTONE);
    for (uint32_t key : keys) {
        const bool gone = std::find(removed.begin(), removed.end(), key) != removed.end();
        EXPECT_EQ(value_of(t, key), gone ? 0u : key + 1000) << "key " << key;
    }
    EXPECT_EQ(value_of(t, 32 * 22), 32u * 22 + 1000);
}

TEST(CompactTable, TwoByteKeysStartAtTheirOneAtATimeHash) {
    table_holder h;
    ASSERT_EQ(qfs_ht_create(5, 2, 0, 2, &h.table), QFS_OK);
    // One-at-a-time over the bytes 61 00 is 0x55F63E9C (worked out with a
    // few lines of Python), and 0x55F63E9C & 31 = 28.
    const uint8_t key[2] = {0x61, 0x00};
    const uint8_t value[2] = {0x41, 0x00};
    ASSERT_EQ(qfs_ht_insert(h.table, key, value), QFS_OK);
    for (uint32_t slot = 0; slot < 32; ++slot) {
        EXPECT_EQ(qfs_ht_slot_state(h.table, slot), slot == 28 ? QFS_HT_SLOT_OCCUPIED : QFS_HT_SLOT_EMPTY);
    }
    const auto *stored = static_cast<const uint8_t *>(qfs_ht_get(h.table, key));
    ASSERT_NE(stored, nullptr);
    EXPECT_EQ(stored[0], 0x41);
}

TEST(CompactTable, ForEachVisitsSlotOrderAndStopsAtNonZero) {
    table_holder h;
    ASSERT_EQ(qfs_ht_create(5, 4, 0, 0, &h.table), QFS_OK); // a set
    for (uint32_t key : {9u, 2u, 17u}) ASSERT_EQ(qfs_ht_insert(h.table, &key, nullptr), QFS_OK);
    const uint32_t nine = 9;
    EXPECT_EQ(std::memcmp(qfs_ht_get(h.table, &nine), &nine, 4), 0) << "a set answers with the stored key";

    struct visit {
        std::vector<uint32_t> keys;
        bool value_was_null = true;
        size_t stop_after = 99;
    };
    const auto collect = [](void *context, const void *key, void *value) {
        auto *v = static_cast<visit *>(context);
        uint32_t k;
        std::memcpy(&k, key, sizeof k);
        v->keys.push_back(k);
        v->value_was_null = v->value_was_null && value == nullptr;
        return v->keys.size() == v->stop_after ? 5 : 0;
    };
    visit all;
    EXPECT_EQ(qfs_ht_for_each(h.table, &all, collect), QFS_OK);
    EXPECT_EQ(all.keys, (std::vector<uint32_t>{2, 9, 17}));
    EXPECT_TRUE(all.value_was_null);
    visit stopped;
    stopped.stop_after = 2;
    EXPECT_EQ(qfs_ht_for_each(h.table, &stopped, collect), 5);
    EXPECT_EQ(stopped.keys, (std::vector<uint32_t>{2, 9}));
}

} // namespace
