#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "harness/trace_capture.h"
#include "support/qfs_codepage_tables.h"
#include "support/qfs_logging.h"
#include "support/qfs_memory.h"
#include "support/qfs_unistr.h"

namespace {

class CodepageTest : public testing::Test {
protected:
    void SetUp() override { qfs_log_set_kmsg_enabled(false); }
};

constexpr uint32_t all_pages[] = {437, 737, 775, 850, 852, 855, 857, 860, 861, 862,
                                  863, 864, 865, 866, 869, 874, 932, 936, 949, 950};

// Decodes bytes; `mapped` tells whether every byte had a value.
std::vector<uint16_t> decode(uint32_t cp, std::vector<uint8_t> bytes, bool graphics = false, bool *mapped = nullptr) {
    std::vector<uint16_t> out(bytes.size() + 1, 0xAAAA);
    size_t count = 0;
    const uint16_t *r =
        qfs_unistr_from_codepage_internal(cp, graphics, bytes.data(), bytes.size(), nullptr, out.data(), &count);
    if (mapped != nullptr) *mapped = r != nullptr;
    EXPECT_EQ(out[count], 0);
    out.resize(count);
    return out;
}

// Encodes units; `mapped` tells whether every unit had bytes.
std::vector<uint8_t> encode(uint32_t cp, std::vector<uint16_t> units, bool graphics = false, bool *mapped = nullptr) {
    std::vector<uint8_t> out(units.size() * 2 + 1, 0xAA);
    size_t count = 0;
    const uint8_t *r =
        qfs_unistr_to_codepage(cp, units.data(), units.size(), nullptr, out.data(), out.size(), &count, graphics);
    if (mapped != nullptr) *mapped = r != nullptr;
    EXPECT_EQ(out[count], 0);
    out.resize(count);
    return out;
}

TEST_F(CodepageTest, SupportsExactlyTheTwentyPages) {
    for (uint32_t cp : all_pages) EXPECT_TRUE(qfs_unistr_codepage_supported(cp)) << cp;
    for (uint32_t cp : {0u, 1u, 436u, 720u, 858u, 1252u, 65001u}) EXPECT_FALSE(qfs_unistr_codepage_supported(cp)) << cp;
}

struct spot_case {
    uint32_t cp;
    std::vector<uint8_t> bytes;
    uint16_t unit;
};

// Published mappings (the code pages' charts; Python's codecs agree).
const spot_case spot_cases[] = {
    {437, {0x9B}, 0x00A2},       {437, {0x81}, 0x00FC},       {737, {0x80}, 0x0391},
    {775, {0x80}, 0x0106},       {850, {0xD5}, 0x0131},       {852, {0x85}, 0x016F},
    {855, {0x80}, 0x0452},       {857, {0xD5}, 0x20AC},       {860, {0x84}, 0x00E3},
    {861, {0x8B}, 0x00D0},       {862, {0x80}, 0x05D0},       {863, {0x84}, 0x00C2},
    {864, {0x25}, 0x066A},       {865, {0x9B}, 0x00F8},       {866, {0x80}, 0x0410},
    {869, {0x86}, 0x0386},       {874, {0xA1}, 0x0E01},       {932, {0xB1}, 0xFF71},
    {932, {0x82, 0xA0}, 0x3042}, {932, {0x93, 0xFA}, 0x65E5}, {936, {0x80}, 0x20AC},
    {936, {0xB0, 0xA1}, 0x554A}, {936, {0xD6, 0xD0}, 0x4E2D}, {949, {0xB0, 0xA1}, 0xAC00},
    {949, {0xC7, 0xD1}, 0xD55C}, {950, {0xA4, 0x40}, 0x4E00}, {950, {0xA4, 0xA4}, 0x4E2D},
};

TEST_F(CodepageTest, SpotValuesBothWays) {
    for (const auto &c : spot_cases) {
        SCOPED_TRACE(testing::Message() << c.cp << " U+" << std::hex << c.unit);
        bool mapped = false;
        EXPECT_EQ(decode(c.cp, c.bytes, false, &mapped), std::vector<uint16_t>{c.unit});
        EXPECT_TRUE(mapped);
        EXPECT_EQ(encode(c.cp, {c.unit}, false, &mapped), c.bytes);
        EXPECT_TRUE(mapped);
    }
}

struct size_case {
    uint32_t cp;
    size_t reverse;
    size_t multibyte;
};

const size_case size_cases[] = {
    {437, 256, 0}, {737, 256, 0}, {775, 256, 0}, {850, 256, 0}, {852, 256, 0},
    {855, 256, 0}, {857, 254, 0}, {860, 256, 0}, {861, 256, 0}, {862, 256, 0},
    {863, 256, 0}, {864, 250, 0}, {865, 256, 0}, {866, 256, 0}, {869, 247, 0},
    {874, 225, 0}, {932, 7517, 7724}, {936, 21920, 21791}, {949, 17176, 17048}, {950, 13621, 13503},
};

// Sequences in 932 whose character has a preferred sequence elsewhere: 396
// characters with two or three sequences, two of them with three (U+2235 and
// U+FFE2), so 396 + 2 sequences come back different. 950: 10 characters with two.
const std::map<uint32_t, size_t> redirected_sequences = {{932, 398}, {950, 10}};

// The one sequence kept for a character with several. 932: lowest outside
// NEC's copy of the IBM extensions (lead bytes ED, EE). 950: lowest outside
// the ETEN box-drawing row F9 and the radical-area copies A2CC, A2CE.
uint16_t preferred(uint32_t cp, const std::vector<uint16_t> &sequences) {
    std::vector<uint16_t> candidates;
    for (uint16_t s : sequences) {
        const uint8_t lead = s >> 8;
        const bool excluded = cp == 932 ? (lead == 0xED || lead == 0xEE)
                                        : (lead == 0xF9 || s == 0xA2CC || s == 0xA2CE);
        if (!excluded) candidates.push_back(s);
    }
    return candidates.empty() ? 0 : *std::min_element(candidates.begin(), candidates.end());
}

// Every byte and two-byte sequence that maps survives bytes -> UTF-16 -> bytes;
// the counts of what maps are the table sizes each page must have.
TEST_F(CodepageTest, EveryMappedSequenceRoundTrips) {
    for (const auto &c : size_cases) {
        SCOPED_TRACE(c.cp);
        std::set<uint16_t> units = {0};
        for (int b = 1; b < 256; ++b) {
            bool mapped = false;
            const auto u = decode(c.cp, {static_cast<uint8_t>(b)}, false, &mapped);
            if (!mapped) continue;
            ASSERT_EQ(u.size(), 1u);
            units.insert(u[0]);
            EXPECT_EQ(encode(c.cp, u), std::vector<uint8_t>{static_cast<uint8_t>(b)}) << b;
        }
        std::map<uint16_t, std::vector<uint16_t>> sequences_of;
        size_t pairs = 0;
        for (int lead = 0x80; lead < 256 && c.multibyte != 0; ++lead) {
            for (int trail = 0; trail < 256; ++trail) {
                bool mapped = false;
                const auto u = decode(c.cp, {static_cast<uint8_t>(lead), static_cast<uint8_t>(trail)}, false, &mapped);
                if (!mapped || u.size() != 1) continue;
                ++pairs;
                units.insert(u[0]);
                sequences_of[u[0]].push_back(static_cast<uint16_t>(lead << 8 | trail));
            }
        }
        EXPECT_EQ(pairs, c.multibyte);
        EXPECT_EQ(units.size(), c.reverse);

        size_t redirected = 0;
        for (const auto &[unit, sequences] : sequences_of) {
            const auto back = encode(c.cp, {unit});
            ASSERT_EQ(back.size(), 2u);
            const uint16_t written = static_cast<uint16_t>(back[0] << 8 | back[1]);
            if (sequences.size() == 1) {
                EXPECT_EQ(written, sequences[0]);
                continue;
            }
            EXPECT_EQ(written, preferred(c.cp, sequences)) << std::hex << unit;
            redirected += sequences.size() - 1;
        }
        const auto expected = redirected_sequences.find(c.cp);
        EXPECT_EQ(redirected, expected == redirected_sequences.end() ? 0 : expected->second);
    }
}

TEST_F(CodepageTest, TableSizes) {
    ASSERT_EQ(qfs_codepage_tables_count, std::size(size_cases));
    for (size_t i = 0; i < qfs_codepage_tables_count; ++i) {
        const auto &t = qfs_codepage_tables[i];
        SCOPED_TRACE(t.codepage);
        EXPECT_EQ(t.codepage, size_cases[i].cp);
        EXPECT_EQ(t.reverse_count, size_cases[i].reverse);
        EXPECT_EQ(t.multibyte_count, size_cases[i].multibyte);
        EXPECT_EQ(t.graphics_count, 128u);
        EXPECT_EQ(t.main_count, 256u);
        EXPECT_EQ(t.graphics_reverse_count, 33u);
    }
}

struct preferred_case {
    uint32_t cp;
    uint16_t unit;
    std::vector<uint8_t> bytes;
};

// What Windows writes for characters with several sequences.
const preferred_case preferred_cases[] = {
    {932, 0x2252, {0x81, 0xE0}}, // JIS X 0208 before NEC row 13 (8790)
    {932, 0x2235, {0x81, 0xE6}}, // before 879A and FA5B
    {932, 0xFFE2, {0x81, 0xCA}}, // before EEF9 and FA54
    {932, 0x2160, {0x87, 0x54}}, // NEC row 13 before IBM FA4A
    {932, 0x2116, {0x87, 0x82}}, // before FA59
    {932, 0x2170, {0xFA, 0x40}}, // IBM before NEC's copy EEEF
    {932, 0xFF07, {0xFA, 0x56}}, // before EEFB
    {932, 0x7E8A, {0xFA, 0x5C}}, // before ED40
    {932, 0x9ED1, {0xFC, 0x4B}}, // before EEEC
    {950, 0x2550, {0xA2, 0xA4}}, // before ETEN F9F9
    {950, 0x5341, {0xA4, 0x51}}, // before A2CC
    {950, 0x5345, {0xA4, 0xCA}}, // before A2CE
};

TEST_F(CodepageTest, CharactersWithSeveralSequencesTakeThePreferredOne) {
    for (const auto &c : preferred_cases) {
        SCOPED_TRACE(testing::Message() << c.cp << " U+" << std::hex << c.unit);
        EXPECT_EQ(encode(c.cp, {c.unit}), c.bytes);
    }
}

// IBM PC graphics characters of 0x01-0x1F and 0x7F.
constexpr uint16_t ibm_pc_graphics[32] = {
    0x263A, 0x263B, 0x2665, 0x2666, 0x2663, 0x2660, 0x2022, 0x25D8, 0x25CB, 0x25D9, 0x2642,
    0x2640, 0x266A, 0x266B, 0x263C, 0x25BA, 0x25C4, 0x2195, 0x203C, 0x00B6, 0x00A7, 0x25AC,
    0x21A8, 0x2191, 0x2193, 0x2192, 0x2190, 0x221F, 0x2194, 0x25B2, 0x25BC, 0x2302};
// Code page 864 differs at 0x01-0x0F: its double-line box drawing lives there.
constexpr uint16_t cp864_graphics_head[15] = {0x263A, 0x266A, 0x266B, 0x263C, 0x2550, 0x2551, 0x256C, 0x2563,
                                               0x2566, 0x2560, 0x2569, 0x2557, 0x2554, 0x255A, 0x255D};

TEST_F(CodepageTest, GraphicsCharactersOnlyWithTheFlag) {
    for (uint32_t cp : all_pages) {
        SCOPED_TRACE(cp);
        for (int i = 0; i < 32; ++i) {
            const uint8_t byte = i == 31 ? 0x7F : static_cast<uint8_t>(i + 1);
            const uint16_t glyph = cp == 864 && byte <= 0x0F ? cp864_graphics_head[byte - 1] : ibm_pc_graphics[i];
            EXPECT_EQ(decode(cp, {byte}, true), std::vector<uint16_t>{glyph}) << int(byte);
            EXPECT_EQ(decode(cp, {byte}, false), std::vector<uint16_t>{byte}) << int(byte);
            EXPECT_EQ(encode(cp, {glyph}, true), std::vector<uint8_t>{byte}) << int(byte);
        }
        EXPECT_EQ(decode(cp, {0x00, 0x41}, true), (std::vector<uint16_t>{0x0000, 0x0041}));
    }
    bool mapped = true;
    EXPECT_TRUE(encode(437, {0x263A}, false, &mapped).empty());
    EXPECT_FALSE(mapped);
    // With the flag the graphics position wins over the page's own byte.
    EXPECT_EQ(encode(850, {0x00A7}, true), std::vector<uint8_t>{0x15});
    EXPECT_EQ(encode(850, {0x00A7}, false), std::vector<uint8_t>{0xF5});
    // A character that is a glyph only in 864 goes to 437's own byte.
    EXPECT_EQ(encode(437, {0x2550}, true), std::vector<uint8_t>{0xCD});
}

TEST_F(CodepageTest, UnmappableBytesTravelAsRawBytes) {
    const struct {
        uint32_t cp;
        std::vector<uint8_t> bytes;
        std::vector<uint16_t> units;
        const char *trace;
    } cases[] = {
        // E7 is unassigned in 857.
        {857, {0x41, 0xE7}, {0x0041, 0xF3E7}, "No matching Unicode value for code page value: 0xE7"},
        // A lead byte without its trail.
        {936, {0x41, 0xA5}, {0x0041, 0xF3A5}, "No matching Unicode value for code page value: 0xA5"},
        // No such sequence: the lead alone fails, the trail stands for itself.
        {932, {0x81, 0x20}, {0xF381, 0x0020}, "No matching Unicode value for code page value: 0x81"},
        // 950 keeps its C1 control out of the tables.
        {950, {0x80}, {0xF380}, "No matching Unicode value for code page value: 0x80"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.cp);
        qfs_test::trace_capture trace;
        bool mapped = true;
        EXPECT_EQ(decode(c.cp, c.bytes, false, &mapped), c.units);
        EXPECT_FALSE(mapped);
        EXPECT_EQ(encode(c.cp, c.units, false, &mapped), c.bytes);
        EXPECT_TRUE(mapped);
        if (qfs_test::trace_compiled_in) {
            EXPECT_TRUE(trace.contains(c.trace));
            EXPECT_TRUE(trace.contains("Found special broken codepage sequence 0xF3"));
        }
    }
    const uint16_t question = '?';
    uint16_t out[3];
    size_t count = 0;
    const uint8_t bytes[] = {0xE7, 0x41};
    EXPECT_EQ(qfs_unistr_from_codepage_internal(857, 0, bytes, 2, &question, out, &count), nullptr);
    EXPECT_EQ(std::vector<uint16_t>(out, out + count), (std::vector<uint16_t>{'?', 'A'}));
}

TEST_F(CodepageTest, UnmappableUnitsAndShortOutput) {
    const uint16_t text[] = {'A', 0x4E00, 'B'};
    const uint8_t question = '?';
    uint8_t out[8];
    size_t count = 99;
    EXPECT_EQ(qfs_unistr_to_codepage(437, text, 3, &question, out, sizeof out, &count, 0), nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(out)), "A?B");
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(qfs_unistr_to_codepage(437, text, 3, nullptr, out, sizeof out, &count, 0), nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(out)), "AB");

    // The terminator needs a byte too; a two-byte sequence is never split.
    const uint16_t label[] = {'A', 'B', 'C'};
    EXPECT_EQ(qfs_unistr_to_codepage(437, label, 3, nullptr, out, 4, &count, 0), out);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(out)), "ABC");
    EXPECT_EQ(qfs_unistr_to_codepage(437, label, 3, nullptr, out, 3, &count, 0), nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(out)), "AB");
    const uint16_t hiragana_a[] = {'A', 0x3042};
    EXPECT_EQ(qfs_unistr_to_codepage(932, hiragana_a, 2, nullptr, out, 3, &count, 0), nullptr);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(out)), "A");
}

TEST_F(CodepageTest, UnknownCodePage) {
    const uint8_t bytes[] = {0x41};
    const uint16_t units[] = {0x41};
    uint16_t text[2];
    uint8_t out[4];
    size_t count = 99;
    testing::internal::CaptureStderr();
    EXPECT_EQ(qfs_unistr_from_codepage_internal(720, 0, bytes, 1, nullptr, text, &count), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "[ERROR] Unsupported code page: 720\n");
    EXPECT_EQ(count, 0u);
    testing::internal::CaptureStderr();
    EXPECT_EQ(qfs_unistr_to_codepage(0, units, 1, nullptr, out, sizeof out, &count, 0), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "[ERROR] Unsupported code page: 0\n");

    uint16_t *allocated_text = nullptr;
    uint8_t *allocated_bytes = nullptr;
    testing::internal::CaptureStderr();
    EXPECT_EQ(qfs_unistr_from_codepage(1252, 0, bytes, 1, nullptr, &allocated_text, &count),
              QFS_ERR_INVALID_PARAMETER);
    EXPECT_EQ(qfs_unistr_to_codepage_alloc(1252, units, 1, nullptr, 0, &allocated_bytes, &count),
              QFS_ERR_INVALID_PARAMETER);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(allocated_text, nullptr);
    EXPECT_EQ(allocated_bytes, nullptr);
}

TEST_F(CodepageTest, AllocatingWrappers) {
    // "Aあ" in 932 is 41 82A0; the page has no euro sign.
    const uint8_t bytes[] = {0x41, 0x82, 0xA0};
    uint16_t *text = nullptr;
    size_t count = 0;
    ASSERT_EQ(qfs_unistr_from_codepage(932, 0, bytes, 3, nullptr, &text, &count), QFS_OK);
    EXPECT_EQ(std::vector<uint16_t>(text, text + count + 1), (std::vector<uint16_t>{0x0041, 0x3042, 0}));

    uint8_t *back = nullptr;
    ASSERT_EQ(qfs_unistr_to_codepage_alloc(932, text, count, nullptr, 0, &back, &count), QFS_OK);
    EXPECT_EQ(std::vector<uint8_t>(back, back + count + 1), (std::vector<uint8_t>{0x41, 0x82, 0xA0, 0}));
    qfs_free(back);
    qfs_free(text);

    const uint16_t euro[] = {0x20AC};
    EXPECT_EQ(qfs_unistr_to_codepage_alloc(932, euro, 1, nullptr, 0, &back, &count), QFS_ERR_INVALID_DATA);
    EXPECT_EQ(back, nullptr);
    const uint8_t unassigned[] = {0xE7};
    EXPECT_EQ(qfs_unistr_from_codepage(857, 0, unassigned, 1, nullptr, &text, &count), QFS_ERR_INVALID_DATA);
    EXPECT_EQ(text, nullptr);
}

} // namespace
