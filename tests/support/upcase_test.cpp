#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/qfs_upcase.h"
#include "support/upcase_unicode_capitals.h"
#include "harness/trace_capture.h"
#include "support/qfs_memory.h"

namespace {

// The recommended up-case table as the exFAT format publishes it, kept next to its generator.
std::vector<uint8_t> published_table() {
    std::ifstream in(QFS_SOURCE_DIR "/tools/data/exfat-upcase-compressed.bin", std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Every character's capital, decoded straight from the compressed bytes.
std::vector<uint16_t> decode_capitals(const std::vector<uint8_t> &bytes) {
    std::vector<uint16_t> entries;
    for (size_t i = 0; i + 1 < bytes.size(); i += 2) entries.push_back(uint16_t(bytes[i] | bytes[i + 1] << 8));
    std::vector<uint16_t> capitals;
    for (size_t i = 0; i < entries.size(); ++i) {
        if (entries[i] == 0xFFFF && i + 1 < entries.size()) {
            for (uint16_t n = entries[++i]; n > 0; --n) capitals.push_back(uint16_t(capitals.size()));
        } else {
            capitals.push_back(entries[i]);
        }
    }
    return capitals;
}

struct table_holder {
    qfs_upcase_table *table = nullptr;
    ~table_holder() { EXPECT_EQ(qfs_upcase_destroy_table(&table), QFS_OK); }
};

TEST(UpcaseTable, BuiltInTableIsThePublishedOne) {
    const uint8_t *bytes = nullptr;
    size_t size = 0;
    ASSERT_EQ(qfs_upcase_get_default_compressed_table(&bytes, &size), QFS_OK);
    ASSERT_EQ(size, 5836u);
    // The up-case checksum: rotate the 32-bit sum right by one, add the byte.
    uint32_t sum = 0;
    for (size_t i = 0; i < size; ++i) sum = ((sum >> 1) | (sum << 31)) + bytes[i];
    EXPECT_EQ(sum, 0xE619D30Du);
    EXPECT_EQ(qfs_upcase_table_checksum(bytes, size), 0xE619D30Du);
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + size), published_table());
    size_t markers = 0;
    for (size_t i = 0; i < size; i += 2) markers += bytes[i] == 0xFF && bytes[i + 1] == 0xFF;
    EXPECT_EQ(markers, 5u);
}

TEST(UpcaseTable, ChecksumOfTwoBytes) {
    // 0 + 0x01 = 1; then 1 rotated right is 0x80000000, + 0x02.
    const uint8_t bytes[] = {0x01, 0x02};
    EXPECT_EQ(qfs_upcase_table_checksum(bytes, 2), 0x80000002u);
}

TEST(UpcaseTable, BuiltInMapHoldsExactlyTheCharactersThatChange) {
    table_holder h;
    ASSERT_EQ(qfs_upcase_get_default_table(&h.table), QFS_OK);
    const std::vector<uint16_t> capitals = decode_capitals(published_table());
    ASSERT_EQ(capitals.size(), 65536u);
    uint32_t changing = 0;
    for (uint32_t c = 0; c < 65536; ++c) {
        changing += capitals[c] != c;
        ASSERT_EQ(qfs_upcase_char(h.table, uint16_t(c)), capitals[c]) << std::hex << "U+" << c;
    }
    EXPECT_EQ(changing, 874u);
    EXPECT_EQ(qfs_ht_count(h.table->map), changing);
    const auto identity = [](void *, const void *key, void *value) -> int { return std::memcmp(key, value, 2) == 0; };
    EXPECT_EQ(qfs_ht_for_each(h.table->map, nullptr, identity), QFS_OK) << "no character maps to itself";

    const uint16_t small_a = 'a', capital_a = 'A';
    EXPECT_EQ(qfs_upcase_char(h.table, small_a), capital_a);
    EXPECT_EQ(qfs_ht_get(h.table->map, &capital_a), nullptr);
}

TEST(UpcaseTable, CapitalsAgreeWithUnicodeForEuropeanScripts) {
    table_holder h;
    ASSERT_EQ(qfs_upcase_get_default_table(&h.table), QFS_OK);
    std::vector<uint16_t> expected(65536);
    for (uint32_t c = 0; c < 65536; ++c) expected[c] = uint16_t(c);
    for (const auto &pair : upcase_expectation::capitals) expected[pair.character] = pair.capital;
    for (const auto &block : upcase_expectation::blocks) {
        for (uint32_t c = block.first; c <= block.last; ++c) {
            EXPECT_EQ(qfs_upcase_char(h.table, uint16_t(c)), expected[c]) << std::hex << "U+" << c;
        }
    }
}

TEST(UpcaseTable, RunMarkerThenOneMapping) {
    QFS_SKIP_WITHOUT_TRACE();
    // {0xFFFF, 0x0061, 0x0041}: U+0000..U+0060 stay, U+0061 becomes U+0041.
    const uint8_t entries[] = {0xFF, 0xFF, 0x61, 0x00, 0x41, 0x00};
    table_holder h;
    qfs_test::trace_capture trace;
    ASSERT_EQ(qfs_upcase_decompress_table(entries, 3, &h.table), QFS_OK);
    EXPECT_EQ(qfs_ht_count(h.table->map), 1u);
    EXPECT_EQ(qfs_upcase_char(h.table, 0x61), 0x41);
    EXPECT_EQ(qfs_upcase_char(h.table, 0x41), 0x41);
    EXPECT_EQ(qfs_upcase_char(h.table, 0x62), 0x62);
    ASSERT_GE(trace.lines().size(), 5u);
    const std::vector<std::string> decompress_lines(trace.lines().begin(), trace.lines().begin() + 5);
    EXPECT_EQ(decompress_lines, (std::vector<std::string>{
                                    "qfs_upcase_decompress_table entering with 3 bytes of input",
                                    "Calculated table_length: 98",
                                    "Encountered identity compression of range 0x0 - 0x61. Filling...",
                                    "table_ptr=98",
                                    "Generated table length=98",
                                }));
}

TEST(UpcaseTable, TrailingFFFFIsACapitalNotAMarker) {
    // Run of 2 (U+0000, U+0001), then 0xFFFF as the capital of U+0002.
    const uint8_t entries[] = {0xFF, 0xFF, 0x02, 0x00, 0xFF, 0xFF};
    table_holder h;
    ASSERT_EQ(qfs_upcase_decompress_table(entries, 3, &h.table), QFS_OK);
    EXPECT_EQ(qfs_ht_count(h.table->map), 1u);
    EXPECT_EQ(qfs_upcase_char(h.table, 2), 0xFFFF);
}

// The exFAT name hash, folding each capital's low then high byte.
uint16_t name_hash(uint16_t hash, const std::vector<uint16_t> &capitals) {
    for (uint16_t c : capitals) {
        for (uint8_t byte : {uint8_t(c), uint8_t(c >> 8)}) hash = uint16_t(((hash >> 1) | (hash << 15)) + byte);
    }
    return hash;
}

TEST(UpcaseTable, NameHashFoldsTheCapitals) {
    table_holder h;
    ASSERT_EQ(qfs_upcase_get_default_table(&h.table), QFS_OK);
    // "a": 0 + 0x41 = 0x41; 0x41 rotated right is 0x8020, + 0x00.
    const uint16_t a[] = {'a'};
    EXPECT_EQ(qfs_upcase_name_hash(h.table, a, 1), 0x8020);

    const uint16_t name[] = {'R', 'e', 0x00E9, 'z', 0x0436, '.', 't', 'x', 't'}; // "Reézж.txt"
    const std::vector<uint16_t> capitals = {'R', 'E', 0x00C9, 'Z', 0x0416, '.', 'T', 'X', 'T'};
    EXPECT_EQ(qfs_upcase_name_hash(h.table, name, 9), name_hash(0, capitals));
    EXPECT_EQ(qfs_upcase_name_hash_seeded(h.table, 0x1234, name, 9), name_hash(0x1234, capitals));
    EXPECT_EQ(qfs_upcase_path_hash(h.table, name, 9), name_hash(0, capitals));
    EXPECT_EQ(qfs_upcase_name_hash_seeded(h.table, 0xBEEF, name, 0), 0xBEEF) << "empty name";
}

TEST(UpcaseTable, ConvertCaseInPlaceAndIntoANewBuffer) {
    table_holder h;
    ASSERT_EQ(qfs_upcase_get_default_table(&h.table), QFS_OK);
    const std::vector<uint16_t> capitals = {'H', 'E', 'L', 'L', 'O', ' ', 'W', 0x00D6, 'R', 'L', 'D', 0x0394};
    uint16_t name[] = {'h', 'e', 'l', 'l', 'o', ' ', 'W', 0x00F6, 'r', 'l', 'd', 0x03B4}; // "hello Wörldδ"
    uint16_t *fresh = nullptr;
    ASSERT_EQ(qfs_upcase_convert_case(h.table, name, 12, 1, &fresh), QFS_OK);
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(std::vector<uint16_t>(fresh, fresh + 12), capitals);
    qfs_free(fresh);

    uint16_t *in_place = name;
    ASSERT_EQ(qfs_upcase_convert_case(h.table, name, 12, 1, &in_place), QFS_OK);
    EXPECT_EQ(in_place, name);
    EXPECT_EQ(std::vector<uint16_t>(name, name + 12), capitals);
}

TEST(UpcaseTable, CompareNamesOnTheirCapitals) {
    table_holder h;
    ASSERT_EQ(qfs_upcase_get_default_table(&h.table), QFS_OK);
    const uint16_t readme_lower[] = {'r', 'e', 'a', 'd', 'm', 'e'};
    const uint16_t readme_upper[] = {'R', 'E', 'A', 'D', 'M', 'E'};
    const uint16_t small_a[] = {'a'}, capital_b[] = {'B'}, capital_a[] = {'A'};
    const uint16_t keep_small_a = 'a';
    EXPECT_EQ(qfs_upcase_compare_names(h.table, readme_lower, readme_upper, 6, nullptr), 0);
    EXPECT_EQ(qfs_upcase_compare_names(h.table, small_a, capital_b, 1, nullptr), -1);
    EXPECT_EQ(qfs_upcase_compare_names(h.table, capital_b, small_a, 1, nullptr), 1);
    // 'a' taken as it is (0x61) against 'A' (0x41).
    EXPECT_EQ(qfs_upcase_compare_names(h.table, small_a, capital_a, 1, &keep_small_a), 1);
    // Without a table the raw values differ.
    EXPECT_EQ(qfs_upcase_compare_names(nullptr, small_a, capital_a, 1, nullptr), 1);
}

} // namespace
