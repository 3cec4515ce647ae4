#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "support/qfs_util.h"

namespace {

using xuid = std::array<uint8_t, QFS_XUID_SIZE>;

constexpr xuid text_order = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                             0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
// The same text in GUID order: the 4-, 2- and 2-byte groups reversed.
constexpr xuid guid_order = {0x33, 0x22, 0x11, 0x00, 0x55, 0x44, 0x77, 0x66,
                             0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};

TEST(UtilXuid, TextFormsParseAndPrintInTheirByteOrders) {
    const struct {
        const char *text;
        int guid;
        const xuid *want; // null: refused, the output untouched
    } cases[] = {
        {"00112233-4455-6677-8899-aabbccddeeff", 0, &text_order},
        {"00112233-4455-6677-8899-AABBCCDDEEFF", 1, &guid_order},
        {"00112233x4455x6677x8899xaabbccddeeff", 1, &guid_order}, // the separators are not examined
        {"00112233-4455-6677-8899-aabbccddeef", 0, nullptr},
        {"00112233-4455-6677-8899-aabbccddeeff0", 1, nullptr},
        {"00112233-4455-6677-8899-aabbccddeefg", 0, nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        xuid untouched, got;
        untouched.fill(0x5A);
        got = untouched;
        EXPECT_EQ(qfs_util_parse_xuid(c.text, c.guid, got.data()), c.want ? QFS_OK : QFS_ERR_INVALID_PARAMETER);
        EXPECT_EQ(got, c.want ? *c.want : untouched);
    }
    char text[QFS_XUID_TEXT_SIZE];
    ASSERT_EQ(qfs_util_format_uuid(text_order.data(), text), QFS_OK);
    EXPECT_STREQ(text, "00112233-4455-6677-8899-AABBCCDDEEFF");
    ASSERT_EQ(qfs_util_format_guid(guid_order.data(), text), QFS_OK);
    EXPECT_STREQ(text, "00112233-4455-6677-8899-AABBCCDDEEFF");
}

// The GPT writer takes its disk and partition GUIDs from here: random
// version 4 in the high nibble of byte 6, the GUID variant 110 in the top
// bits of byte 8, never twice the same.
TEST(UtilXuid, GeneratedGuidsAreRandomVersionFour) {
    std::vector<xuid> seen;
    for (int i = 0; i < 32; ++i) {
        xuid id{};
        ASSERT_EQ(qfs_util_generate_guid(id.data()), QFS_OK);
        EXPECT_EQ(id[6] >> 4, 4);
        EXPECT_EQ(id[8] & 0xE0, 0xC0);
        for (const xuid &other : seen) EXPECT_NE(id, other);
        seen.push_back(id);
    }
    xuid uuid{};
    ASSERT_EQ(qfs_util_generate_uuid(uuid.data()), QFS_OK);
    EXPECT_EQ(uuid[6] >> 4, 4);
    EXPECT_EQ(uuid[8] & 0xC0, 0x80);
}

TEST(UtilPath, ElementsSplitAtEverySlashAndEncodeAsUtf16) {
    // "Ä" is C3 84 in UTF-8 and one unit U+00C4; U+1F600 takes a surrogate pair.
    const std::string path = "/\xC3\x84x//\xF0\x9F\x98\x80/";
    const std::vector<std::vector<uint16_t>> want = {{}, {0x00C4, u'x'}, {}, {0xD83D, 0xDE00}};
    const char *cursor = path.data();
    size_t remaining = path.size();
    std::vector<std::vector<uint16_t>> got;
    while (remaining > 0) {
        uint16_t element[4] = {};
        size_t length = 4;
        ASSERT_EQ(qfs_util_next_posix_path_element(&cursor, &remaining, 1, element, &length), QFS_OK);
        got.emplace_back(element, element + length);
    }
    EXPECT_EQ(got, want);
    // Too little room leaves the cursor where it was.
    cursor = "abcd/e";
    remaining = 6;
    char small[3];
    size_t length = sizeof small;
    EXPECT_EQ(qfs_util_next_posix_path_element(&cursor, &remaining, 0, small, &length), QFS_ERR_OVERFLOW);
    EXPECT_STREQ(cursor, "abcd/e");
    EXPECT_EQ(remaining, 6u);
}

} // namespace
