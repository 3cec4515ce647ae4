// The label conversions over text from the input: UTF-8 to UTF-16 and back,
// then UTF-16 to a supported code page and back, with or without the IBM PC
// graphics characters, and the input's raw bytes read in that code page. Besides the sanitizers, it checks the round trips the conversions
// promise: valid UTF-8 comes back unchanged, and text that a code page
// holds comes back from it unchanged.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "support/qfs_codepage_tables.h"
#include "support/qfs_memory.h"
#include "support/qfs_unistr.h"

namespace {

// A broken promise is a crash, so that the input is kept.
void require(bool holds) {
    if (!holds) abort();
}

bool has_raw_byte_units(const uint16_t *text, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        if (text[i] >= QFS_UNISTR_RAW_BYTE_BASE && text[i] <= QFS_UNISTR_RAW_BYTE_BASE + 0xFF) return true;
    }
    return false;
}

// Graphics characters go back to control positions, so a control character
// comes back as a graphics character: only text without them round-trips.
bool has_control_units(const uint16_t *text, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        if (text[i] < 0x20 || text[i] == 0x7F) return true;
    }
    return false;
}

void round_trip_code_page(uint32_t code_page, int graphics, const uint16_t *text, size_t count) {
    std::vector<uint8_t> bytes(count * 2 + 1);
    size_t byte_count = 0;
    const bool encoded =
        qfs_unistr_to_codepage(code_page, text, count, nullptr, bytes.data(), bytes.size(), &byte_count, graphics) !=
        nullptr;
    require(byte_count < bytes.size() && bytes[byte_count] == 0);
    std::vector<uint16_t> back(byte_count + 1);
    size_t back_count = 0;
    const bool decoded = qfs_unistr_from_codepage_internal(code_page, graphics, bytes.data(), byte_count, nullptr,
                                                           back.data(), &back_count) != nullptr;
    require(back_count <= byte_count);
    if (encoded && decoded && !has_raw_byte_units(text, count) && !(graphics && has_control_units(text, count))) {
        require(back_count == count && std::memcmp(back.data(), text, count * sizeof(uint16_t)) == 0);
    }
    // A buffer one byte short of the text takes the overflow path.
    if (byte_count != 0) {
        (void)qfs_unistr_to_codepage(code_page, text, count, nullptr, bytes.data(), byte_count, &byte_count,
                                     graphics);
    }
}

void read_raw_bytes(uint32_t code_page, int graphics, const uint8_t *data, size_t size) {
    const uint16_t replacement = '_';
    uint16_t *text = nullptr;
    size_t count = 0;
    if (qfs_unistr_from_codepage(code_page, graphics, data, size, &replacement, &text, &count) == QFS_OK) qfs_free(text);
}

void round_trip_utf8(uint32_t code_page, int graphics, const uint8_t *data, size_t size) {
    const char *utf8 = reinterpret_cast<const char *>(data);
    uint16_t *text = nullptr;
    size_t count = 0;
    if (qfs_unistr_from_utf8(utf8, size, &text, &count) != QFS_OK) return;
    char *again = nullptr;
    size_t again_length = 0;
    if (qfs_unistr_to_utf8(text, count, &again, &again_length) == QFS_OK) {
        // Decoding stops at a zero byte.
        require(again_length == strnlen(utf8, size) && std::memcmp(again, utf8, again_length) == 0);
        qfs_free(again);
    }
    round_trip_code_page(code_page, graphics, text, count);
    qfs_free(text);
}

} // namespace

// The first byte picks the code page and whether graphics characters are on;
// the rest is the text. One pair of conversions a run keeps the runs fast.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    const uint32_t code_page = qfs_codepage_tables[data[0] % qfs_codepage_tables_count].codepage;
    const int graphics = (data[0] / qfs_codepage_tables_count) & 1;
    round_trip_utf8(code_page, graphics, data + 1, size - 1);
    read_raw_bytes(code_page, graphics, data + 1, size - 1);
    return 0;
}
