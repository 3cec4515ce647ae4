// The two hash tables as their callers use them: every key put in is found
// with its value until removed, whatever growing, shrinking and collisions
// happen underneath.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <vector>

#include "support/qfs_ht.h"
#include "support/qfs_util_hashtable.h"

namespace {

// Word keys that are multiples of 32 collide in a table of 32 slots; the
// removals and re-inserts below run the table through growth, shrinking and
// tombstone rebuilds.
TEST(CompactTable, AgreesWithAMapThroughGrowthShrinkingAndCollisions) {
    qfs_ht *table = nullptr;
    ASSERT_EQ(qfs_ht_create(0, 4, 0, 4, &table), QFS_OK);
    std::map<uint32_t, uint32_t> model;
    const auto insert = [&](uint32_t key) {
        const uint32_t value = key ^ 0xA5A5A5A5;
        ASSERT_EQ(qfs_ht_insert(table, &key, &value), QFS_OK) << key;
        model[key] = value;
    };
    const auto remove = [&](uint32_t key) {
        ASSERT_EQ(qfs_ht_remove(table, &key), QFS_OK) << key;
        model.erase(key);
    };
    for (uint32_t i = 0; i < 30; ++i) insert(32 * i);
    for (uint32_t i = 0; i < 100; ++i) insert(7 + 64 * i);
    for (uint32_t i = 0; i < 30; i += 2) remove(32 * i);
    for (uint32_t i = 0; i < 100; ++i) remove(7 + 64 * i);
    for (uint32_t i = 100; i < 110; ++i) insert(32 * i);

    for (uint32_t key = 0; key < 32 * 120; ++key) {
        const void *stored = qfs_ht_get(table, &key);
        const auto expected = model.find(key);
        ASSERT_EQ(stored != nullptr, expected != model.end()) << key;
        if (stored != nullptr) {
            EXPECT_EQ(std::memcmp(stored, &expected->second, 4), 0) << key;
        }
    }
    const uint32_t present = 32, absent = 0, other = 1;
    EXPECT_EQ(qfs_ht_insert(table, &present, &other), QFS_ERR_INTERNAL_ERROR) << "a key is stored once";
    EXPECT_EQ(qfs_ht_remove(table, &absent), QFS_ERR_INTERNAL_ERROR);

    // A visit sees every key once and stops at the first non-zero answer.
    std::map<uint32_t, int> visits;
    const auto count = [](void *context, const void *key, void *) {
        uint32_t k;
        std::memcpy(&k, key, 4);
        return ++(*static_cast<std::map<uint32_t, int> *>(context))[k] == 2 ? 9 : 0;
    };
    EXPECT_EQ(qfs_ht_for_each(table, &visits, count), QFS_OK);
    EXPECT_EQ(visits.size(), model.size());
    EXPECT_EQ(qfs_ht_for_each(table, &visits, count), 9);
    EXPECT_EQ(qfs_ht_destroy(&table), QFS_OK);
    EXPECT_EQ(table, nullptr);
}

std::vector<uint64_t> destroyed;
void record_destroyed(void *value) {
    uint64_t v;
    std::memcpy(&v, value, sizeof v);
    destroyed.push_back(v);
}

// A key stored twice is stored twice (callers rely on removal taking the
// first), and destroying the table hands every value to the destructor once.
TEST(ChainedTable, KeepsEveryItemThroughExpansionAndDestroysEachValueOnce) {
    destroyed.clear();
    qfs_util_hashtable *table = nullptr;
    ASSERT_EQ(qfs_util_hashtable_create(4, 8, 8, record_destroyed, &table), QFS_OK);
    std::vector<uint64_t> values;
    for (uint64_t key = 0; key < 40; ++key) {
        const uint64_t stored_key = key % 30, value = 1000 + key;
        ASSERT_EQ(qfs_util_hashtable_insert(table, &stored_key, 8, &value, 8), QFS_OK);
        values.push_back(value);
    }
    EXPECT_EQ(qfs_util_hashtable_count(table), 40u);
    for (uint64_t key = 0; key < 30; ++key) {
        uint64_t value = 0;
        ASSERT_EQ(qfs_util_hashtable_get(table, &key, 8, &value, 8), 1) << key;
        EXPECT_TRUE(value == 1000 + key || value == 1030 + key) << key;
    }
    const uint64_t twice = 3, absent = 77;
    EXPECT_EQ(qfs_util_hashtable_remove(table, &twice, 8), 1);
    EXPECT_EQ(qfs_util_hashtable_contains(table, &twice, 8), 1) << "the second copy stays";
    EXPECT_EQ(qfs_util_hashtable_remove(table, &twice, 8), 1);
    EXPECT_EQ(qfs_util_hashtable_contains(table, &twice, 8), 0);
    EXPECT_EQ(qfs_util_hashtable_remove(table, &absent, 8), 0);
    EXPECT_TRUE(destroyed.empty()) << "expansion and removal keep the values alive";

    EXPECT_EQ(qfs_util_hashtable_destroy(&table), QFS_OK);
    EXPECT_EQ(table, nullptr);
    EXPECT_EQ(destroyed.size(), 38u);
}

} // namespace
