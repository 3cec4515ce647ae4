#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "harness/trace_capture.h"
#include "support/qfs_logging.h"
#include "support/qfs_memory.h"
#include "support/qfs_unistr.h"

namespace {

class Utf8Test : public testing::Test {
protected:
    void SetUp() override { qfs_log_set_kmsg_enabled(false); }
};

std::vector<uint16_t> to_vector(const uint16_t *units, size_t count) { return {units, units + count}; }

struct valid_case {
    const char *name;
    std::string utf8;
    std::vector<uint16_t> utf16;
};

// Expected units worked out by hand from the code points.
const valid_case valid_cases[] = {
    {"ascii", "AZ", {0x0041, 0x005A}},
    {"two-byte e acute", "\xC3\xA9", {0x00E9}},
    {"smallest two-byte", "\xC2\x80", {0x0080}},
    {"euro sign", "\xE2\x82\xAC", {0x20AC}},
    {"last before surrogates", "\xED\x9F\xBF", {0xD7FF}},
    {"first after surrogates", "\xEE\x80\x80", {0xE000}},
    {"U+FFFF", "\xEF\xBF\xBF", {0xFFFF}},
    // 0x1F600 - 0x10000 = 0xF600: high 0xD800 + 0x3D, low 0xDC00 + 0x200.
    {"grinning face", "\xF0\x9F\x98\x80", {0xD83D, 0xDE00}},
    {"first supplementary", "\xF0\x90\x80\x80", {0xD800, 0xDC00}},
    {"last code point", "\xF4\x8F\xBF\xBF", {0xDBFF, 0xDFFF}},
    {"stops at a zero byte", std::string("A\0B", 3), {0x0041}},
    {"empty", "", {}},
};

TEST_F(Utf8Test, DecodesValidTextAndRoundTrips) {
    for (const auto &c : valid_cases) {
        SCOPED_TRACE(c.name);
        uint16_t *units = nullptr;
        size_t count = 0;
        ASSERT_EQ(qfs_unistr_from_utf8(c.utf8.data(), c.utf8.size(), &units, &count), QFS_OK);
        EXPECT_EQ(to_vector(units, count), c.utf16);
        EXPECT_EQ(units[count], 0); // allocated with room for the terminator

        char *back = nullptr;
        size_t back_length = 0;
        ASSERT_EQ(qfs_unistr_to_utf8(units, count, &back, &back_length), QFS_OK);
        EXPECT_EQ(std::string(back, back_length), c.utf8.substr(0, c.utf8.find('\0')));
        EXPECT_EQ(back[back_length], '\0');
        qfs_free(back);
        qfs_free(units);
    }
}

struct invalid_case {
    const char *name;
    std::string utf8;
    const char *refusal;
};

const invalid_case invalid_cases[] = {
    {"overlong zero", "\xC0\x80", "Invalid sequence: byte < 0xC2"},
    {"overlong lead C1", "\xC1\xBF", "Invalid sequence: byte < 0xC2"},
    {"stray continuation", "A\x80", "Invalid sequence: byte < 0xC2"},
    {"truncated two-byte", "\xC3", "Invalid sequence: s_len < 2"},
    {"two-byte without continuation", "\xC3\x41", "Invalid sequence: (s[1] & 0xC0) != 0x80"},
    {"truncated three-byte", "\xE2\x82", "Invalid sequence: s_len < 3"},
    {"three-byte without continuation", "\xE2\x28\xA1",
     "Invalid sequence: !(((s[1] & 0xC0) == 0x80) && ((s[2] & 0xC0) == 0x80))"},
    {"overlong three-byte", "\xE0\x80\x80",
     "Invalid sequence: !(((*wc >= 0x800) && (*wc <= 0xD7FF)) || ((*wc >= 0xE000) && (*wc <= 0xFFFF)))"},
    {"encoded surrogate", "\xED\xA0\x80",
     "Invalid sequence: !(((*wc >= 0x800) && (*wc <= 0xD7FF)) || ((*wc >= 0xE000) && (*wc <= 0xFFFF)))"},
    {"truncated four-byte", "\xF0\x9F\x98", "Invalid sequence: s_len < 4"},
    {"four-byte without continuation", "\xF0\x9F\x98\x41",
     "Invalid sequence: !(((s[1] & 0xC0) == 0x80) && ((s[2] & 0xC0) == 0x80) && ((s[3] & 0xC0) == 0x80))"},
    {"overlong four-byte", "\xF0\x80\x80\x80", "Invalid sequence: !((*wc <= 0x10FFFF) && (*wc >= 0x10000))"},
    {"above U+10FFFF", "\xF4\x90\x80\x80", "Invalid sequence: !((*wc <= 0x10FFFF) && (*wc >= 0x10000))"},
    {"lead F5", "\xF5\x80\x80\x80", "Invalid sequence: !((*wc <= 0x10FFFF) && (*wc >= 0x10000))"},
    {"lead F8", "\xF8\x88\x80\x80", "Invalid sequence: !((*wc <= 0x10FFFF) && (*wc >= 0x10000))"},
    {"lead FF", "\xFF\x80\x80\x80", "Invalid sequence: !((*wc <= 0x10FFFF) && (*wc >= 0x10000))"},
    {"lone F5", "\xF5", "Invalid sequence: s_len < 4"},
};

TEST_F(Utf8Test, RefusesInvalidSequences) {
    for (const auto &c : invalid_cases) {
        SCOPED_TRACE(c.name);
        qfs_test::trace_capture trace;
        uint16_t *units = nullptr;
        size_t count = 77;
        testing::internal::CaptureStderr();
        EXPECT_EQ(qfs_unistr_from_utf8(c.utf8.data(), c.utf8.size(), &units, &count), QFS_ERR_INVALID_DATA);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_NE(err.find("Error while getting UTF-16 size for " + std::to_string(c.utf8.size()) +
                           "-byte UTF-8 string \""),
                  std::string::npos)
            << err;
        EXPECT_NE(err.find("\": 15 (QFS_ERR_INVALID_DATA)"), std::string::npos) << err;
        EXPECT_EQ(units, nullptr);
        EXPECT_EQ(count, 77u);
        if (qfs_test::trace_compiled_in) {
            EXPECT_TRUE(trace.contains(c.refusal));
        }
    }
}

TEST_F(Utf8Test, RefusalTraceNamesTheOffendingByte) {
    QFS_SKIP_WITHOUT_TRACE();
    qfs_test::trace_capture trace;
    uint16_t *units = nullptr;
    size_t count = 0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(qfs_unistr_from_utf8("\xC0\x80", 2, &units, &count), QFS_ERR_INVALID_DATA);
    testing::internal::GetCapturedStderr();
    EXPECT_TRUE(trace.contains("byte = 192 (0xC0)"));
}

TEST_F(Utf8Test, PreallocatedBufferIsCheckedAndTerminatedWhenRoomAllows) {
    const char *text = "A\xF0\x9F\x98\x80"; // three units
    uint16_t buffer[4] = {0xAAAA, 0xAAAA, 0xAAAA, 0xAAAA};
    uint16_t *units = buffer;

    size_t capacity = 3;
    ASSERT_EQ(qfs_unistr_from_utf8(text, 5, &units, &capacity), QFS_OK);
    EXPECT_EQ(units, buffer);
    EXPECT_EQ(capacity, 3u);
    EXPECT_EQ(to_vector(buffer, 4), (std::vector<uint16_t>{0x0041, 0xD83D, 0xDE00, 0xAAAA}));

    capacity = 4;
    ASSERT_EQ(qfs_unistr_from_utf8(text, 5, &units, &capacity), QFS_OK);
    EXPECT_EQ(buffer[3], 0);

    capacity = 2;
    testing::internal::CaptureStderr();
    EXPECT_EQ(qfs_unistr_from_utf8(text, 5, &units, &capacity), QFS_ERR_OVERFLOW);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[ERROR] Preallocated buffer is too small to hold the UTF-16 result. *outs_len (2) < shorts (3)\n");
    EXPECT_EQ(capacity, 2u);

    testing::internal::CaptureStderr();
    EXPECT_EQ(qfs_unistr_from_utf8(text, 5, &units, nullptr), QFS_ERR_INVALID_PARAMETER);
    EXPECT_NE(testing::internal::GetCapturedStderr().find(
                  "[ERROR] Preallocated 'outs', but no 'outs_len' specified. *outs="),
              std::string::npos);
}

TEST_F(Utf8Test, ToUtf8RefusesUnpairedSurrogates) {
    const std::vector<std::vector<uint16_t>> cases = {
        {0xD800}, {0xDC00}, {0xD83D, 0x0041}, {0x0041, 0xDE00, 0xD83D}};
    for (const auto &units : cases) {
        SCOPED_TRACE(testing::PrintToString(units));
        char *text = nullptr;
        EXPECT_EQ(qfs_unistr_to_utf8(units.data(), units.size(), &text, nullptr), QFS_ERR_INVALID_DATA);
        EXPECT_EQ(text, nullptr);
    }
}

} // namespace
