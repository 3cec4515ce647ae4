#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "support/qfs_logging.h"
#include "support/qfs_util_hashtable.h"

namespace {

struct table_holder {
    qfs_util_hashtable *table = nullptr;
    ~table_holder() { EXPECT_EQ(qfs_util_hashtable_destroy(&table), QFS_OK); }
};

class ChainedTable : public testing::Test {
protected:
    // Messages stay off the kernel log of the machine running the tests.
    void SetUp() override { qfs_log_set_kmsg_enabled(false); }
};

uint64_t value_of(const qfs_util_hashtable *t, uint64_t key) {
    uint64_t value = 0;
    return qfs_util_hashtable_get(t, &key, 8, &value, 8) == 1 ? value : ~uint64_t{0};
}

struct key_size_case {
    size_t key_size;
    qfs_result result;
};

// Keys above 8 bytes must be whole multiples of 8.
constexpr key_size_case key_size_cases[] = {
    {1, QFS_OK}, {8, QFS_OK}, {9, QFS_ERR_INVALID_PARAMETER}, {12, QFS_ERR_INVALID_PARAMETER}, {16, QFS_OK},
};

TEST_F(ChainedTable, KeysAboveEightBytesMustBeMultiplesOfEight) {
    for (const auto &c : key_size_cases) {
        SCOPED_TRACE(testing::Message() << "key size " << c.key_size);
        table_holder h;
        testing::internal::CaptureStderr();
        EXPECT_EQ(qfs_util_hashtable_create(16, c.key_size, 8, nullptr, &h.table), c.result);
        const std::string err = testing::internal::GetCapturedStderr();
        if (c.result == QFS_OK) {
            EXPECT_EQ(err, "");
            ASSERT_NE(h.table, nullptr);
            EXPECT_EQ(h.table->key_item_size, std::max<size_t>(c.key_size, 8));
        } else {
            EXPECT_EQ(err, "[ERROR] Unsupported key size: " + std::to_string(c.key_size) +
                               " (must be aligned to the pointer size, 8)\n");
            EXPECT_EQ(h.table, nullptr);
        }
    }
}

TEST_F(ChainedTable, SameKeyTwiceIsStoredTwice) {
    table_holder h;
    ASSERT_EQ(qfs_util_hashtable_create(16, 8, 8, nullptr, &h.table), QFS_OK);
    const uint64_t key = 42;
    for (const uint64_t value : {1u, 2u}) ASSERT_EQ(qfs_util_hashtable_insert(h.table, &key, 8, &value, 8), QFS_OK);
    EXPECT_EQ(qfs_util_hashtable_count(h.table), 2u);
    EXPECT_EQ(value_of(h.table, key), 1u) << "the first stored item wins";
    EXPECT_EQ(qfs_util_hashtable_remove(h.table, &key, 8), 1);
    EXPECT_EQ(value_of(h.table, key), 2u);
    EXPECT_EQ(qfs_util_hashtable_remove(h.table, &key, 8), 1);
    EXPECT_EQ(qfs_util_hashtable_contains(h.table, &key, 8), 0);
    EXPECT_EQ(qfs_util_hashtable_remove(h.table, &key, 8), 0);
}

TEST_F(ChainedTable, DoublesOnTheInsertThatFindsHalfTheCapacityUsed) {
    table_holder h;
    ASSERT_EQ(qfs_util_hashtable_create(16, 8, 8, nullptr, &h.table), QFS_OK);
    for (uint64_t key = 0; key < 8; ++key) {
        const uint64_t value = key * 10;
        ASSERT_EQ(qfs_util_hashtable_insert(h.table, &key, 8, &value, 8), QFS_OK);
    }
    EXPECT_EQ(h.table->capacity, 16u);
    const uint64_t key = 8, value = 80;
    ASSERT_EQ(qfs_util_hashtable_insert(h.table, &key, 8, &value, 8), QFS_OK);
    EXPECT_EQ(h.table->capacity, 32u);
    EXPECT_EQ(qfs_util_hashtable_count(h.table), 9u);
    for (uint64_t k = 0; k <= 8; ++k) EXPECT_EQ(value_of(h.table, k), k * 10);
}

TEST_F(ChainedTable, BucketShrinksAndCollapsesBackInline) {
    table_holder h;
    // One slot: every key lands in slot 0. The raw insert does not expand.
    ASSERT_EQ(qfs_util_hashtable_create(1, 8, 8, nullptr, &h.table), QFS_OK);
    for (uint64_t key = 1; key <= 3; ++key) {
        const uint64_t value = key + 100;
        ASSERT_EQ(qfs_util_hashtable_insert_raw(h.table, &key, &value), QFS_OK);
    }
    EXPECT_EQ(h.table->single_item_bitmap[0] & 1, 0) << "three items make a bucket";
    const uint64_t two = 2, one = 1;
    EXPECT_EQ(qfs_util_hashtable_remove_raw(h.table, &two), 1);
    EXPECT_EQ(value_of(h.table, 1), 101u);
    EXPECT_EQ(value_of(h.table, 3), 103u);
    EXPECT_EQ(h.table->single_item_bitmap[0] & 1, 0);

    EXPECT_EQ(qfs_util_hashtable_remove_raw(h.table, &one), 1);
    EXPECT_EQ(h.table->single_item_bitmap[0] & 1, 1) << "the last item moves back inline";
    uint64_t inline_key, inline_value;
    std::memcpy(&inline_key, h.table->keys, 8);
    std::memcpy(&inline_value, h.table->values, 8);
    EXPECT_EQ(inline_key, 3u);
    EXPECT_EQ(inline_value, 103u);

    EXPECT_EQ(qfs_util_hashtable_remove_raw(h.table, &inline_key), 1);
    EXPECT_EQ(h.table->single_item_bitmap[0], 0);
    EXPECT_EQ(std::count(h.table->keys, h.table->keys + 8, 0), 8) << "an empty slot holds a null pointer";
    EXPECT_EQ(qfs_util_hashtable_count(h.table), 0u);
}

struct message_case {
    const char *what;
    std::function<int(qfs_util_hashtable *)> call;
    int result;
    const char *message;
};

TEST_F(ChainedTable, SizeMismatchesAreReported) {
    table_holder h, set;
    ASSERT_EQ(qfs_util_hashtable_create(16, 8, 8, nullptr, &h.table), QFS_OK);
    ASSERT_EQ(qfs_util_hashtable_create(16, 8, 0, nullptr, &set.table), QFS_OK);
    const uint64_t key = 1;
    uint64_t value = 0;
    const message_case cases[] = {
        {"insert key size", [&](auto *t) { return qfs_util_hashtable_insert(t, &key, 4, &value, 8); },
         QFS_ERR_INVALID_PARAMETER, "[ERROR] Invalid key size: 4 (expected 8)\n"},
        {"insert value size", [&](auto *t) { return qfs_util_hashtable_insert(t, &key, 8, &value, 2); },
         QFS_ERR_INVALID_PARAMETER, "[ERROR] Invalid value size: 2 (expected 8)\n"},
        {"get key size", [&](auto *t) { return qfs_util_hashtable_get(t, &key, 4, &value, 8); }, 0,
         "[WARNING] Incorrect key size: 4 (expected 8)\n"},
        {"get value size", [&](auto *t) { return qfs_util_hashtable_get(t, &key, 8, &value, 4); }, 0,
         "[WARNING] Incorrect value size: 4 (expected 8)\n"},
        {"get from a set", [&](auto *) { return qfs_util_hashtable_get(set.table, &key, 8, &value, 0); }, 0,
         "[WARNING] Unable to get value for key: No values in hashtable.\n"},
        {"contains key size", [&](auto *t) { return qfs_util_hashtable_contains(t, &key, 16); }, 0,
         "[WARNING] Incorrect key size: 16 (expected 8)\n"},
        {"remove key size", [&](auto *t) { return qfs_util_hashtable_remove(t, &key, 2); }, 0,
         "[ERROR] Invalid key size: 2\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        testing::internal::CaptureStderr();
        EXPECT_EQ(c.call(h.table), c.result);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.message);
    }
    EXPECT_EQ(qfs_util_hashtable_count(h.table), 0u);
}

std::vector<uint64_t> destroyed;
void record_destroyed(void *value) {
    uint64_t v;
    std::memcpy(&v, value, sizeof v);
    destroyed.push_back(v);
}

TEST_F(ChainedTable, DestroyCallsTheDestructorOnceForEveryValue) {
    destroyed.clear();
    table_holder h;
    ASSERT_EQ(qfs_util_hashtable_create(4, 8, 8, record_destroyed, &h.table), QFS_OK);
    std::vector<uint64_t> expected;
    // Twenty keys through several expansions, and one key twice so that a
    // bucket surely holds values.
    for (uint64_t key = 0; key < 21; ++key) {
        const uint64_t stored_key = key == 20 ? 7 : key;
        const uint64_t value = 500 + key;
        ASSERT_EQ(qfs_util_hashtable_insert(h.table, &stored_key, 8, &value, 8), QFS_OK);
        expected.push_back(value);
    }
    EXPECT_TRUE(destroyed.empty()) << "expansion moves values without destroying them";
    testing::internal::CaptureStderr();
    EXPECT_EQ(qfs_util_hashtable_destroy(&h.table), QFS_OK);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(h.table, nullptr);
    std::sort(destroyed.begin(), destroyed.end());
    EXPECT_EQ(destroyed, expected);
}

} // namespace
