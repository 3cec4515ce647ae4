// String, bit-length, random and clock helpers.
#include <gtest/gtest.h>

#include "support/qfs_memory.h"
#include "support/qfs_random.h"
#include "support/qfs_support.h"

namespace {

TEST(Strings, DuplicateAppendAndBaseName) {
    char *copy = nullptr;
    ASSERT_EQ(qfs_strndup("formatter", 4, &copy), QFS_OK);
    EXPECT_STREQ(copy, "form");
    qfs_free(copy);
    EXPECT_EQ(copy, nullptr);
    char *text = nullptr;
    ASSERT_EQ(qfs_strappend(&text, "Tarn"), QFS_OK);
    ASSERT_EQ(qfs_strappend(&text, " card"), QFS_OK);
    EXPECT_STREQ(text, "Tarn card");
    qfs_free(text);
    EXPECT_STREQ(qfs_basename("/dev/mmcblk0"), "mmcblk0");
    EXPECT_STREQ(qfs_basename("card.img"), "card.img");
}

TEST(BitLength, SignificantBits) {
    constexpr std::pair<uint64_t, unsigned> cases[] = {{0, 0}, {1, 1}, {2, 2}, {3, 2}, {4, 3},
                                                       {8, 4}, {UINT64_MAX, 64}, {1ull << 63, 64}};
    for (const auto &[value, bits] : cases) EXPECT_EQ(qfs_bit_length(value), bits) << value;
}

TEST(Random, EveryValueUpToTheMaximumAndNoMore) {
    uint64_t value = 99;
    ASSERT_EQ(qfs_random_at_most(0, &value), QFS_OK);
    EXPECT_EQ(value, 0u);
    bool seen[6] = {};
    for (int i = 0; i < 2000; ++i) {
        ASSERT_EQ(qfs_random_at_most(5, &value), QFS_OK);
        ASSERT_LE(value, 5u);
        seen[value] = true;
    }
    for (bool s : seen) EXPECT_TRUE(s);
}

TEST(Time, ClockAndCalendar) {
    struct tm t {};
    t.tm_year = 2000 - 1900;
    t.tm_mon = 1;
    t.tm_mday = 29;
    t.tm_hour = 23;
    t.tm_min = 59;
    t.tm_sec = 59;
    EXPECT_EQ(qfs_time_to_seconds(&t), 951868799); // 30 years of days, 7 of them leap, plus 59 days
    qfs_time now{};
    ASSERT_EQ(qfs_get_current_time(&now), QFS_OK);
    EXPECT_GE(now.seconds, 1795000000);
}

} // namespace
