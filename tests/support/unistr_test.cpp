// UTF-8 and UTF-16 as labels travel: typed text in, the echo out.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/qfs_logging.h"
#include "support/qfs_memory.h"
#include "support/qfs_unistr.h"

namespace {

using Utf8Test = testing::Test;

// Expected units worked out by hand from the code points.
TEST_F(Utf8Test, DecodesValidTextAndRoundTrips) {
    const struct {
        std::string utf8;
        std::vector<uint16_t> utf16;
    } cases[] = {
        {"AZ", {0x0041, 0x005A}},
        {"\xC2\x80", {0x0080}},
        {"\xE2\x82\xAC", {0x20AC}},
        {"\xED\x9F\xBF", {0xD7FF}},
        {"\xEE\x80\x80", {0xE000}},
        {"\xEF\xBF\xBF", {0xFFFF}},
        // 0x1F600 - 0x10000 = 0xF600: high 0xD800 + 0x3D, low 0xDC00 + 0x200.
        {"\xF0\x9F\x98\x80", {0xD83D, 0xDE00}},
        {"\xF4\x8F\xBF\xBF", {0xDBFF, 0xDFFF}},
        {std::string("A\0B", 3), {0x0041}}, // stops at a zero byte
        {"", {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.utf16));
        uint16_t *units = nullptr;
        size_t count = 0;
        ASSERT_EQ(qfs_unistr_from_utf8(c.utf8.data(), c.utf8.size(), &units, &count), QFS_OK);
        EXPECT_EQ(std::vector<uint16_t>(units, units + count + 1), [&] {
            auto terminated = c.utf16;
            terminated.push_back(0);
            return terminated;
        }());
        char *back = nullptr;
        size_t back_length = 0;
        ASSERT_EQ(qfs_unistr_to_utf8(units, count, &back, &back_length), QFS_OK);
        EXPECT_EQ(std::string(back, back_length + 1), c.utf8.substr(0, c.utf8.find('\0')) + '\0');
        qfs_free(back);
        qfs_free(units);
    }
}

TEST_F(Utf8Test, InvalidSequencesAreRefusedBothWays) {
    const std::string invalid[] = {
        "\xC0\x80",         "\xC1\xBF",         "A\x80",            "\xC3",     "\xC3\x41",
        "\xE2\x82",         "\xE2\x28\xA1",     "\xE0\x80\x80",     "\xED\xA0\x80", // overlong, a surrogate
        "\xF0\x9F\x98",     "\xF0\x9F\x98\x41", "\xF0\x80\x80\x80", "\xF4\x90\x80\x80",
        "\xF5\x80\x80\x80", "\xFF\x80\x80\x80", "\xF5",
    };
    for (const auto &text : invalid) {
        SCOPED_TRACE(testing::PrintToString(text));
        uint16_t *units = nullptr;
        size_t count = 77;
        testing::internal::CaptureStderr();
        EXPECT_EQ(qfs_unistr_from_utf8(text.data(), text.size(), &units, &count), QFS_ERR_INVALID_DATA);
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(units, nullptr);
        EXPECT_EQ(count, 77u);
    }
    const std::vector<std::vector<uint16_t>> unpaired = {
        {0xD800}, {0xDC00}, {0xD83D, 0x0041}, {0x0041, 0xDE00, 0xD83D}};
    for (const auto &units : unpaired) {
        char *text = nullptr;
        EXPECT_EQ(qfs_unistr_to_utf8(units.data(), units.size(), &text, nullptr), QFS_ERR_INVALID_DATA);
        EXPECT_EQ(text, nullptr);
    }
}

TEST_F(Utf8Test, PreallocatedBufferMustHoldTheText) {
    const char *text = "A\xF0\x9F\x98\x80"; // three units
    uint16_t buffer[4] = {0xAAAA, 0xAAAA, 0xAAAA, 0xAAAA};
    uint16_t *units = buffer;
    size_t capacity = 4;
    ASSERT_EQ(qfs_unistr_from_utf8(text, 5, &units, &capacity), QFS_OK);
    EXPECT_EQ(units, buffer);
    EXPECT_EQ(capacity, 3u);
    EXPECT_EQ(std::vector<uint16_t>(buffer, buffer + 4), (std::vector<uint16_t>{0x0041, 0xD83D, 0xDE00, 0}));
    capacity = 2;
    testing::internal::CaptureStderr();
    EXPECT_EQ(qfs_unistr_from_utf8(text, 5, &units, &capacity), QFS_ERR_OVERFLOW);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(capacity, 2u);
}

} // namespace
