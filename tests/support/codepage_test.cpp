// Code pages as FAT labels use them: typed text to the page's bytes, and the
// bytes back to text for the echo.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "support/qfs_logging.h"
#include "support/qfs_memory.h"
#include "support/qfs_unistr.h"

namespace {

using CodepageTest = testing::Test;

constexpr uint32_t all_pages[] = {437, 737, 775, 850, 852, 855, 857, 860, 861, 862,
                                  863, 864, 865, 866, 869, 874, 932, 936, 949, 950};

// The units of `bytes`, or nothing when some byte has no character.
std::vector<uint16_t> decode(uint32_t cp, const std::vector<uint8_t> &bytes) {
    std::vector<uint16_t> out(bytes.size() + 1);
    size_t count = 0;
    if (qfs_unistr_from_codepage_internal(cp, 0, bytes.data(), bytes.size(), nullptr, out.data(), &count) ==
        nullptr) {
        return {};
    }
    out.resize(count);
    return out;
}

// The bytes of `units` in a buffer of `room` bytes, or nothing when refused.
std::vector<uint8_t> encode(uint32_t cp, const std::vector<uint16_t> &units, size_t room = 16) {
    std::vector<uint8_t> out(room);
    size_t count = 0;
    if (qfs_unistr_to_codepage(cp, units.data(), units.size(), nullptr, out.data(), room, &count, 0) == nullptr) {
        return {};
    }
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

// Published mappings (the code pages' charts; Python's codecs agree), and for
// characters with several sequences the one Windows writes.
const spot_case spot_cases[] = {
    {437, {0x9B}, 0x00A2}, {437, {0x81}, 0x00FC}, {737, {0x80}, 0x0391}, {775, {0x80}, 0x0106},
    {850, {0xD5}, 0x0131}, {852, {0x85}, 0x016F}, {855, {0x80}, 0x0452}, {857, {0xD5}, 0x20AC},
    {860, {0x84}, 0x00E3}, {861, {0x8B}, 0x00D0}, {862, {0x80}, 0x05D0}, {863, {0x84}, 0x00C2},
    {864, {0x25}, 0x066A}, {865, {0x9B}, 0x00F8}, {866, {0x80}, 0x0410}, {869, {0x86}, 0x0386},
    {874, {0xA1}, 0x0E01}, {932, {0xB1}, 0xFF71}, {932, {0x82, 0xA0}, 0x3042}, {932, {0x93, 0xFA}, 0x65E5},
    {936, {0x80}, 0x20AC}, {936, {0xB0, 0xA1}, 0x554A}, {936, {0xD6, 0xD0}, 0x4E2D}, {949, {0xB0, 0xA1}, 0xAC00},
    {949, {0xC7, 0xD1}, 0xD55C}, {950, {0xA4, 0x40}, 0x4E00}, {950, {0xA4, 0xA4}, 0x4E2D},
    {932, {0x81, 0xE0}, 0x2252}, // JIS X 0208 before NEC row 13 (8790)
    {932, {0x87, 0x54}, 0x2160}, // NEC row 13 before IBM FA4A
    {932, {0xFA, 0x40}, 0x2170}, // IBM before NEC's copy EEEF
    {950, {0xA2, 0xA4}, 0x2550}, // before ETEN F9F9
    {950, {0xA4, 0x51}, 0x5341}, // before A2CC
};

TEST_F(CodepageTest, SpotValuesBothWays) {
    for (const auto &c : spot_cases) {
        SCOPED_TRACE(testing::Message() << c.cp << " U+" << std::hex << c.unit);
        EXPECT_EQ(decode(c.cp, c.bytes), std::vector<uint16_t>{c.unit});
        EXPECT_EQ(encode(c.cp, {c.unit}), c.bytes);
    }
}

// The one sequence Windows writes for a character with several. 932: the
// lowest outside NEC's copy of the IBM extensions (lead bytes ED, EE). 950:
// the lowest outside the ETEN box-drawing row F9 and the radical copies A2CC, A2CE.
uint16_t preferred(uint32_t cp, const std::vector<uint16_t> &sequences) {
    uint16_t best = 0xFFFF;
    for (uint16_t s : sequences) {
        const uint8_t lead = s >> 8;
        const bool excluded =
            cp == 932 ? (lead == 0xED || lead == 0xEE) : (lead == 0xF9 || s == 0xA2CC || s == 0xA2CE);
        if (!excluded && s < best) best = s;
    }
    return best;
}

// Whatever a label's bytes read as, writing that text again gives the same
// bytes, or for a character with several sequences the preferred one: every
// byte, and every lead and trail pair of the double-byte pages.
TEST_F(CodepageTest, EveryReadableSequenceSurvivesARoundTrip) {
    for (uint32_t cp : all_pages) {
        SCOPED_TRACE(cp);
        std::map<uint16_t, std::vector<uint16_t>> sequences_of;
        for (int lead = 1; lead < 256; ++lead) {
            for (int trail = -1; trail < (cp >= 932 && lead >= 0x80 ? 256 : 0); ++trail) {
                std::vector<uint8_t> bytes = {static_cast<uint8_t>(lead)};
                if (trail >= 0) bytes.push_back(static_cast<uint8_t>(trail));
                const std::vector<uint16_t> units = decode(cp, bytes);
                if (units.size() == 1) sequences_of[units[0]].push_back(uint16_t(trail < 0 ? lead : lead << 8 | trail));
            }
        }
        EXPECT_GE(sequences_of.size(), cp >= 932 ? 7000u : 200u);
        for (const auto &[unit, sequences] : sequences_of) {
            const std::vector<uint8_t> back = encode(cp, {unit});
            const uint16_t written = back.size() == 1 ? back[0] : uint16_t(back.at(0) << 8 | back.at(1));
            EXPECT_EQ(written, sequences.size() == 1 ? sequences[0] : preferred(cp, sequences)) << std::hex << unit;
        }
    }
}

TEST_F(CodepageTest, UnmappableTextAndShortOutputAreRefused) {
    EXPECT_EQ(encode(437, {'A', 0x4E00, 'B'}), std::vector<uint8_t>{});
    const uint16_t text[] = {'A', 0x4E00, 'B'};
    const uint8_t question = '?';
    uint8_t out[8];
    size_t count = 0;
    EXPECT_EQ(qfs_unistr_to_codepage(437, text, 3, &question, out, sizeof out, &count, 0), nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(out)), "A?B");
    // The terminator needs a byte too; a two-byte sequence is never split.
    EXPECT_EQ(encode(437, {'A', 'B', 'C'}, 4), (std::vector<uint8_t>{'A', 'B', 'C'}));
    EXPECT_EQ(encode(437, {'A', 'B', 'C'}, 3), std::vector<uint8_t>{});
    EXPECT_EQ(encode(932, {'A', 0x3042}, 3), std::vector<uint8_t>{});
    testing::internal::CaptureStderr();
    EXPECT_EQ(encode(720, {'A'}), std::vector<uint8_t>{});
    testing::internal::GetCapturedStderr();
}

TEST_F(CodepageTest, AllocatingWrappers) {
    // "Aあ" in 932 is 41 82A0.
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
    // E7 is unassigned in 857; 1252 is no supported page.
    const uint8_t unassigned[] = {0xE7};
    EXPECT_EQ(qfs_unistr_from_codepage(857, 0, unassigned, 1, nullptr, &text, &count), QFS_ERR_INVALID_DATA);
    testing::internal::CaptureStderr();
    EXPECT_EQ(qfs_unistr_from_codepage(1252, 0, unassigned, 1, nullptr, &text, &count), QFS_ERR_INVALID_PARAMETER);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(text, nullptr);
}

} // namespace
