#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <vector>

#include "support/qfs_memory.h"
#include "support/qfs_upcase.h"

namespace {

// The recommended up-case table as the exFAT format publishes it, kept next to its generator.
std::vector<uint8_t> published_table() {
    std::ifstream in(QFS_SOURCE_DIR "/tools/data/exfat-upcase-compressed.bin", std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

struct table_holder {
    qfs_upcase_table *table = nullptr;
    ~table_holder() { EXPECT_EQ(qfs_upcase_destroy_table(&table), QFS_OK); }
};

// The table a format writes is the published one, with the checksum its
// record carries: rotate the 32-bit sum right by one, add the byte.
TEST(UpcaseTable, BuiltInTableIsThePublishedOne) {
    const uint8_t *bytes = nullptr;
    size_t size = 0;
    ASSERT_EQ(qfs_upcase_get_default_compressed_table(&bytes, &size), QFS_OK);
    EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + size), published_table());
    uint32_t sum = 0;
    for (size_t i = 0; i < size; ++i) sum = ((sum >> 1) | (sum << 31)) + bytes[i];
    EXPECT_EQ(sum, 0xE619D30Du);
    EXPECT_EQ(qfs_upcase_table_checksum(bytes, size), sum);
}

// Decompression as a reader of the card does it: FFFF n stands for n
// characters that are their own capitals, any other entry is the capital of
// the next character.
TEST(UpcaseTable, DecompressedMapGivesEveryCharactersCapital) {
    const std::vector<uint8_t> bytes = published_table();
    std::vector<uint16_t> capitals;
    for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
        const uint16_t entry = uint16_t(bytes[i] | bytes[i + 1] << 8);
        if (entry == 0xFFFF && i + 3 < bytes.size()) {
            i += 2;
            const uint16_t run = uint16_t(bytes[i] | bytes[i + 1] << 8);
            for (uint16_t n = 0; n < run; ++n) capitals.push_back(uint16_t(capitals.size()));
        } else {
            capitals.push_back(entry);
        }
    }
    ASSERT_EQ(capitals.size(), 65536u);
    table_holder h;
    ASSERT_EQ(qfs_upcase_decompress_table(bytes.data(), bytes.size() / 2, &h.table), QFS_OK);
    for (uint32_t c = 0; c < 65536; ++c) ASSERT_EQ(qfs_upcase_char(h.table, uint16_t(c)), capitals[c]) << c;

    // A trailing FFFF has no count after it: it is the capital of the next character.
    const uint8_t entries[] = {0xFF, 0xFF, 0x02, 0x00, 0xFF, 0xFF};
    table_holder small;
    ASSERT_EQ(qfs_upcase_decompress_table(entries, 3, &small.table), QFS_OK);
    EXPECT_EQ(qfs_upcase_char(small.table, 1), 1);
    EXPECT_EQ(qfs_upcase_char(small.table, 2), 0xFFFF);
}

// FAT labels are upper-cased with the built-in table before they are stored.
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

} // namespace
