// The option parser over an argument vector from the input: the arguments
// are the input's pieces between zero bytes. They go through the tool's own
// table, and through a table with one option of every value kind, so that
// the number and list readers see them too.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "cli/format_tarn_args.h"
#include "support/qfs_memory.h"
#include "support/qfs_options.h"

namespace {

// More arguments than any use of the tool needs; longer vectors only slow the search.
constexpr size_t max_arguments = 64;

struct every_kind_values {
    uint32_t flag, flag_given;
    uint64_t number, hex, octal;
    qfs_uint_list list;
    const char *text, *first, *second;
};

void parse_every_kind(int argc, char **argv) {
    every_kind_values v{};
    const qfs_option table[] = {
        {1, 'f', "flag", QFS_OPTION_FLAG, &v.flag_given, &v.flag, nullptr, 1},
        {1, 'n', "number", QFS_OPTION_UINT, nullptr, &v.number, nullptr, 1},
        {1, 'x', "hex", QFS_OPTION_UINT_HEX, nullptr, &v.hex, nullptr, 1},
        {1, 'o', "octal", QFS_OPTION_UINT_OCT, nullptr, &v.octal, nullptr, 1},
        {1, 'l', "list", QFS_OPTION_UINT_LIST, nullptr, &v.list, "numbers", 1},
        {1, 's', "string", QFS_OPTION_STRING, nullptr, &v.text, nullptr, 0},
        {1, 0, nullptr, QFS_OPTION_STRING, nullptr, &v.first, "first", 1},
        {1, 0, nullptr, QFS_OPTION_STRING, nullptr, &v.second, "second", 1},
    };
    (void)qfs_options_parse(argc, argv, table, sizeof(table) / sizeof(table[0]));
    qfs_free(v.list.elements);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::vector<std::string> pieces{"format_tarn"};
    std::string piece;
    for (size_t i = 0; i < size && pieces.size() < max_arguments; ++i) {
        if (data[i] != 0) {
            piece.push_back(char(data[i]));
            continue;
        }
        pieces.push_back(piece);
        piece.clear();
    }
    if (!piece.empty() && pieces.size() < max_arguments) pieces.push_back(piece);
    std::vector<char *> argv;
    for (std::string &p : pieces) argv.push_back(p.data());
    argv.push_back(nullptr);
    const int argc = int(pieces.size());
    (void)format_parse_args(argc, argv.data());
    parse_every_kind(argc, argv.data());
    return 0;
}
