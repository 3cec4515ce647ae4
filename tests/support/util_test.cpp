#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "harness/trace_capture.h"
#include "support/qfs_logging.h"
#include "support/qfs_util.h"

namespace {

using xuid = std::array<uint8_t, QFS_XUID_SIZE>;

constexpr xuid text_order = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                             0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
// The same text in GUID order: the 4-, 2- and 2-byte groups reversed.
constexpr xuid guid_order = {0x33, 0x22, 0x11, 0x00, 0x55, 0x44, 0x77, 0x66,
                             0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};

struct parse_case {
    const char *text;
    int guid;
    const xuid *want; // null: refused
};

const parse_case parse_cases[] = {
    {"00112233-4455-6677-8899-aabbccddeeff", 0, &text_order},
    {"00112233-4455-6677-8899-aabbccddeeff", 1, &guid_order},
    {"00112233-4455-6677-8899-AABBCCDDEEFF", 0, &text_order},
    // The separators are not examined.
    {"00112233x4455x6677x8899xaabbccddeeff", 0, &text_order},
    {"00112233x4455x6677x8899xaabbccddeeff", 1, &guid_order},
    {"00112233-4455-6677-8899-aabbccddeef", 0, nullptr},
    {"00112233-4455-6677-8899-aabbccddeeff0", 1, nullptr},
    {"", 0, nullptr},
    {"00112233-4455-6677-8899-aabbccddeefg", 0, nullptr},
    {"0011223 -4455-6677-8899-aabbccddeeff", 1, nullptr},
    {"-0112233-4455-6677-8899-aabbccddeeff", 1, nullptr},
};

TEST(UtilXuid, ParsesTheTextForm) {
    for (const auto &c : parse_cases) {
        SCOPED_TRACE(testing::Message() << c.text << (c.guid ? " as GUID" : " as UUID"));
        xuid untouched;
        untouched.fill(0x5A);
        xuid got = untouched;
        const qfs_result r = qfs_util_parse_xuid(c.text, c.guid, got.data());
        if (c.want == nullptr) {
            EXPECT_EQ(r, QFS_ERR_INVALID_PARAMETER);
            EXPECT_EQ(got, untouched);
        } else {
            ASSERT_EQ(r, QFS_OK);
            EXPECT_EQ(got, *c.want);
        }
    }
}

TEST(UtilXuid, RefusalsAreTraced) {
    QFS_SKIP_WITHOUT_TRACE();
    qfs_test::trace_capture trace;
    xuid got;
    EXPECT_EQ(qfs_util_parse_xuid("00112233-4455-6677-8899-aabbccddeef", 1, got.data()), QFS_ERR_INVALID_PARAMETER);
    EXPECT_EQ(qfs_util_parse_xuid("00112233-4455-6677-8899-aabbccddeeff0", 0, got.data()),
              QFS_ERR_INVALID_PARAMETER);
    EXPECT_EQ(qfs_util_parse_xuid("00112233-4455-6677-8899-aabbccddeefg", 0, got.data()),
              QFS_ERR_INVALID_PARAMETER);
    const std::vector<std::string> want = {"Invalid GUID string length: 35", "Invalid UUID string length: 37",
                                           "Invalid character 'g'."};
    EXPECT_EQ(trace.lines(), want);
}

TEST(UtilXuid, FormatsWithUpperCaseDigits) {
    char text[QFS_XUID_TEXT_SIZE];
    ASSERT_EQ(qfs_util_format_uuid(text_order.data(), text), QFS_OK);
    EXPECT_STREQ(text, "00112233-4455-6677-8899-AABBCCDDEEFF");
    ASSERT_EQ(qfs_util_format_guid(guid_order.data(), text), QFS_OK);
    EXPECT_STREQ(text, "00112233-4455-6677-8899-AABBCCDDEEFF");
}

struct variant_case {
    int variant;
    uint8_t mask;  // top bits of byte 8 that the variant fixes
    uint8_t value; // and what they must be
};

constexpr variant_case variant_cases[] = {
    {0, 0x80, 0x00}, // 0xxxxxxx
    {1, 0xC0, 0x80}, // 10xxxxxx
    {2, 0xE0, 0xC0}, // 110xxxxx
};

TEST(UtilXuid, GeneratedIdentifiersCarryVersionAndVariant) {
    for (const auto &c : variant_cases) {
        SCOPED_TRACE(c.variant);
        uint8_t seen_low_bits = 0; // the free bits of byte 8 do vary
        for (int i = 0; i < 64; ++i) {
            xuid id{};
            ASSERT_EQ(qfs_util_generate_xuid(c.variant, id.data()), QFS_OK);
            EXPECT_EQ(id[6] >> 4, 4);
            EXPECT_EQ(id[8] & c.mask, c.value);
            seen_low_bits |= static_cast<uint8_t>(id[8] & ~c.mask);

            // Round trip through both text forms.
            char text[QFS_XUID_TEXT_SIZE];
            xuid back{};
            ASSERT_EQ(qfs_util_format_guid(id.data(), text), QFS_OK);
            ASSERT_EQ(qfs_util_parse_xuid(text, 1, back.data()), QFS_OK);
            EXPECT_EQ(back, id);
            ASSERT_EQ(qfs_util_format_uuid(id.data(), text), QFS_OK);
            ASSERT_EQ(qfs_util_parse_xuid(text, 0, back.data()), QFS_OK);
            EXPECT_EQ(back, id);
        }
        EXPECT_EQ(seen_low_bits, static_cast<uint8_t>(~c.mask));
    }

    xuid guid{};
    xuid uuid{};
    ASSERT_EQ(qfs_util_generate_guid(guid.data()), QFS_OK);
    ASSERT_EQ(qfs_util_generate_uuid(uuid.data()), QFS_OK);
    EXPECT_EQ(guid[8] & 0xE0, 0xC0);
    EXPECT_EQ(uuid[8] & 0xC0, 0x80);
    EXPECT_NE(guid, uuid);
}

TEST(UtilXuid, UnknownVariantIsAnInternalError) {
    qfs_log_set_kmsg_enabled(false);
    xuid id;
    id.fill(0x5A);
    testing::internal::CaptureStderr();
    EXPECT_EQ(qfs_util_generate_xuid(3, id.data()), QFS_ERR_INTERNAL_ERROR);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(err.starts_with("[CRITICAL <qfs_util.cpp:")) << err;
    EXPECT_TRUE(err.ends_with(" qfs_util_generate_xuid] Unknown variant: 0x3\n")) << err;
    EXPECT_EQ(id[0], 0x5A);
    EXPECT_EQ(id[15], 0x5A);
    qfs_log_set_kmsg_enabled(true);
}

// ------------------------------------------------------------- paths

// Walks a whole path the way a directory lookup does.
std::vector<std::string> elements_of(const std::string &path) {
    std::vector<std::string> out;
    const char *cursor = path.data();
    size_t remaining = path.size();
    while (remaining > 0) {
        char element[16];
        size_t length = sizeof(element);
        EXPECT_EQ(qfs_util_next_posix_path_element(&cursor, &remaining, 0, element, &length), QFS_OK);
        out.emplace_back(element, length);
    }
    return out;
}

TEST(UtilPath, SplitsAtEverySlash) {
    struct split_case {
        std::string path;
        std::vector<std::string> elements;
    };
    const split_case cases[] = {
        {"a//b", {"a", "", "b"}},
        {"/dir/file.txt", {"", "dir", "file.txt"}},
        {"a/", {"a"}},
        {"name", {"name"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.path);
        EXPECT_EQ(elements_of(c.path), c.elements);
    }
}

TEST(UtilPath, StaysWithinTheRemainingSize) {
    const char *path = "abc/def";
    const char *cursor = path;
    size_t remaining = 2;
    char element[8];
    size_t length = sizeof(element);
    ASSERT_EQ(qfs_util_next_posix_path_element(&cursor, &remaining, 0, element, &length), QFS_OK);
    EXPECT_EQ(std::string(element, length), "ab");
    EXPECT_EQ(cursor, path + 2);
    EXPECT_EQ(remaining, 0u);

    // Without a length the element is skipped.
    cursor = path;
    remaining = strlen(path);
    ASSERT_EQ(qfs_util_next_posix_path_element(&cursor, &remaining, 0, nullptr, nullptr), QFS_OK);
    EXPECT_EQ(cursor, path + 4);
    EXPECT_EQ(remaining, 3u);
}

TEST(UtilPath, RefusalsLeaveTheCursorAlone) {
    qfs_log_set_kmsg_enabled(false);
    struct refusal_case {
        const char *path;
        int encode;
        bool buffer;
        size_t capacity;
        qfs_result result;
        const char *log_start; // what standard error begins with ("" for nothing)
    };
    const refusal_case cases[] = {
        {"", 0, true, 8, QFS_ERR_INVALID_PARAMETER,
         "[ERROR] Got empty subpath when getting next POSIX path element.\n"},
        {"abcd/e", 0, true, 3, QFS_ERR_OVERFLOW, ""},
        {"abcd/e", 0, true, 0, QFS_ERR_OVERFLOW, ""},
        {"abcd/e", 1, true, 0, QFS_ERR_OVERFLOW, ""},
        {"abcd/e", 0, false, 8, QFS_ERR_INTERNAL_ERROR, "[CRITICAL <qfs_util_path.cpp:"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.path << " capacity " << c.capacity);
        const char *cursor = c.path;
        size_t remaining = strlen(c.path);
        uint16_t buffer[8] = {};
        size_t length = c.capacity;
        testing::internal::CaptureStderr();
        const qfs_result r = qfs_util_next_posix_path_element(&cursor, &remaining, c.encode,
                                                              c.buffer ? buffer : nullptr, &length);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(r, c.result);
        EXPECT_TRUE(err.starts_with(c.log_start)) << err;
        EXPECT_EQ(err.empty(), *c.log_start == '\0') << err;
        EXPECT_EQ(cursor, c.path);
        EXPECT_EQ(remaining, strlen(c.path));
        EXPECT_EQ(length, c.capacity);
    }
    qfs_log_set_kmsg_enabled(true);
}

TEST(UtilPath, EmptyElementNeedsNoConversion) {
    const char *path = "//x";
    const char *cursor = path;
    size_t remaining = 3;
    size_t length = 0; // no room needed for nothing
    ASSERT_EQ(qfs_util_next_posix_path_element(&cursor, &remaining, 1, nullptr, &length), QFS_OK);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(cursor, path + 1);
    EXPECT_EQ(remaining, 2u);
}

} // namespace

namespace {

TEST(UtilPath, EncodedElementsAreUtf16) {
    // "Ä" is C3 84 in UTF-8 and one unit U+00C4; U+1F600 takes a surrogate pair.
    const char *path = "\xC3\x84x/\xF0\x9F\x98\x80";
    const char *cursor = path;
    size_t remaining = strlen(path);
    uint16_t element[4] = {};
    size_t length = 4;
    ASSERT_EQ(qfs_util_next_posix_path_element(&cursor, &remaining, 1, element, &length), QFS_OK);
    EXPECT_EQ(length, 2u);
    EXPECT_EQ(element[0], 0x00C4);
    EXPECT_EQ(element[1], u'x');
    length = 4;
    ASSERT_EQ(qfs_util_next_posix_path_element(&cursor, &remaining, 1, element, &length), QFS_OK);
    EXPECT_EQ(length, 2u);
    EXPECT_EQ(element[0], 0xD83D);
    EXPECT_EQ(element[1], 0xDE00);
    EXPECT_EQ(remaining, 0u);

    // Two units do not fit in one; invalid UTF-8 is refused.
    qfs_log_set_kmsg_enabled(false);
    cursor = "ab";
    remaining = 2;
    length = 1;
    testing::internal::CaptureStderr();
    EXPECT_EQ(qfs_util_next_posix_path_element(&cursor, &remaining, 1, element, &length), QFS_ERR_OVERFLOW);
    EXPECT_NE(testing::internal::GetCapturedStderr().find(
                  "Preallocated buffer is too small to hold the UTF-16 result. *outs_len (1) < shorts (2)"),
              std::string::npos);
    cursor = "\xC0\x80";
    remaining = 2;
    length = 4;
    testing::internal::CaptureStderr();
    EXPECT_EQ(qfs_util_next_posix_path_element(&cursor, &remaining, 1, element, &length), QFS_ERR_INVALID_DATA);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("Error while encoding pathname element string: 15"),
              std::string::npos);
    qfs_log_set_kmsg_enabled(true);
}

} // namespace
