// String, bit-length, random, time and logging helpers.
#include <gtest/gtest.h>
#include <syslog.h>

#include <cstring>
#include <ctime>

#include "support/qfs_logging.h"
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
    ASSERT_EQ(qfs_strappend(&text, nullptr), QFS_OK);
    ASSERT_EQ(qfs_strappend(&text, " card"), QFS_OK);
    EXPECT_STREQ(text, "Tarn card");
    const std::string huge(8193, 'x');
    testing::internal::CaptureStderr();
    EXPECT_EQ(qfs_strappend(&text, huge.c_str()), QFS_ERR_OVERFLOW);
    EXPECT_EQ(qfs_strappend(nullptr, "x"), QFS_ERR_INVALID_PARAMETER);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[ERROR] Too large input buffer\n[ERROR] No destination for strappend.\n");
    EXPECT_STREQ(text, "Tarn card") << "unchanged after a refusal";
    qfs_free(text);

    EXPECT_STREQ(qfs_basename("/dev/mmcblk0"), "mmcblk0");
    EXPECT_STREQ(qfs_basename("card.img"), "card.img");
    EXPECT_STREQ(qfs_basename("dir/"), "");
}

TEST(BitLength, SignificantBits) {
    constexpr std::pair<uint64_t, unsigned> cases[] = {{0, 0}, {1, 1}, {2, 2}, {3, 2}, {4, 3}, {7, 3}, {8, 4},
                                                       {UINT64_MAX, 64}, {1ull << 63, 64}};
    for (const auto &[value, bits] : cases) EXPECT_EQ(qfs_bit_length(value), bits) << value;
}

TEST(Random, StaysWithinTheMaximum) {
    uint64_t value = 99;
    ASSERT_EQ(qfs_random_at_most(0, &value), QFS_OK);
    EXPECT_EQ(value, 0u);
    bool seen[6] = {};
    for (int i = 0; i < 2000; ++i) {
        ASSERT_EQ(qfs_random_at_most(5, &value), QFS_OK);
        ASSERT_LE(value, 5u);
        seen[value] = true;
    }
    for (bool s : seen) EXPECT_TRUE(s) << "every value of 0..5 is drawn";
}

TEST(Time, CalendarToSeconds) {
    struct time_case {
        int year, month, day, hour, minute, second;
        int64_t seconds;
    };
    constexpr time_case cases[] = {
        {1970, 1, 1, 0, 0, 0, 0},
        {2000, 3, 1, 0, 0, 0, 951868800},
        {2000, 2, 29, 23, 59, 59, 951868799},
        {2026, 11, 22, 12, 30, 15, 1795350615},
    };
    for (const auto &c : cases) {
        struct tm t {};
        t.tm_year = c.year - 1900;
        t.tm_mon = c.month - 1;
        t.tm_mday = c.day;
        t.tm_hour = c.hour;
        t.tm_min = c.minute;
        t.tm_sec = c.second;
        EXPECT_EQ(qfs_time_to_seconds(&t), c.seconds) << c.year << "-" << c.month << "-" << c.day;
        EXPECT_EQ(qfs_time_to_seconds(&t), static_cast<int64_t>(timegm(&t)));
    }
    qfs_time now{};
    ASSERT_EQ(qfs_get_current_time(&now), QFS_OK);
    EXPECT_GE(now.seconds, 1795000000);
    EXPECT_EQ(now.nanoseconds % 1000, 0) << "a microsecond clock";
    int interrupted = 7;
    ASSERT_EQ(qfs_sleep_ns(1000, &interrupted), QFS_OK);
    EXPECT_EQ(interrupted, 0);
}

TEST(Logging, SyslogEntryPointsAndLevels) {
    EXPECT_EQ(qfs_log_level_to_syslog_level(QFS_LOG_LEVEL_CRITICAL), LOG_CRIT);
    EXPECT_EQ(qfs_log_level_to_syslog_level(QFS_LOG_LEVEL_ERROR), LOG_ERR);
    EXPECT_EQ(qfs_log_level_to_syslog_level(QFS_LOG_LEVEL_NOTICE), LOG_NOTICE);
    EXPECT_EQ(qfs_log_level_to_syslog_level(QFS_LOG_LEVEL_INFO), LOG_INFO);
    EXPECT_EQ(qfs_log_level_to_syslog_level(QFS_LOG_LEVEL_WARNING), LOG_WARNING);
    EXPECT_EQ(qfs_log_level_to_syslog_level(QFS_LOG_LEVEL_DEBUG), LOG_DEBUG);
    EXPECT_EQ(qfs_log_level_to_syslog_level(QFS_LOG_LEVEL_TRACE), LOG_DEBUG);
    qfs_log_set_kmsg_enabled(false);
    testing::internal::CaptureStderr();
    EXPECT_EQ(qfs_log_level_to_syslog_level(9), 0);
    qfs_log_close_syslog();
    qfs_log_open_syslog("qfs-test", 0);
    qfs_log_open_syslog("qfs-test", 0);
    qfs_log_close_syslog();
    qfs_log_plain(QFS_LOG_LEVEL_ERROR, "plain %d", 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[ERROR] Unrecognized log level passed to qfs_log_level_to_syslog_level: 9\n"
              "[WARNING] Tried to close not opened syslog.\n[WARNING] Tried to reopen syslog.\nplain 1\n");
    qfs_log_set_kmsg_enabled(true);
}

} // namespace
