// Writes the seed corpora of the fuzz targets: volumes formatted by the
// tool's own engines onto an in-memory card, in the targets' input
// encoding, and argument vectors and label texts like those of the tests.
// Usage: fuzz_make_seeds <corpus directory>; it writes one folder per target.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "device/qfs_device_owner.h"
#include "exfat/format.h"
#include "fat/format.h"
#include "fuzz/fuzz_cards.h"
#include "fuzz/memory_device.h"
#include "fuzz/zero_runs.h"
#include "support/qfs_codepage_tables.h"
#include "support/qfs_logging.h"

namespace {

namespace fs = std::filesystem;

constexpr uint32_t seed_serial = 0x1234ABCD;

// An empty seed stands for a card the engine could not format.
bool write_seed(const fs::path &folder, const std::string &name, const std::vector<uint8_t> &bytes) {
    if (bytes.empty()) {
        fprintf(stderr, "No bytes for %s/%s\n", folder.c_str(), name.c_str());
        return false;
    }
    fs::create_directories(folder);
    std::ofstream out(folder / name, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(bytes.data()), std::streamsize(bytes.size()));
    return bool(out);
}

std::vector<uint8_t> bytes_of(const std::string &text) { return {text.begin(), text.end()}; }

// Runs `format` on a fresh card of `size` bytes and answers the card's encoding, or nothing.
template <typename Format> std::vector<uint8_t> formatted_card(uint64_t size, Format format) {
    fuzz_memory_card card;
    card.device_bytes = size;
    qfs_device_owner device;
    if (fuzz_memory_device_create(&card, 0, device.receive()) != QFS_OK) return {};
    if (format(device.get()) != QFS_OK || device.close_and_destroy() != QFS_OK) return {};
    return fuzz_zero_runs_encode(fuzz_memory_card_bytes(card));
}

format_monitor quiet_monitor() {
    format_monitor monitor{};
    monitor.progress = [](void *, uint32_t, const char *) {};
    return monitor;
}

std::vector<uint8_t> exfat_card(const std::u16string &label) {
    return formatted_card(fuzz_exfat_card_bytes, [&](qfs_device *device) {
        const uint16_t sector_size = 512;
        const uint64_t sector_count = fuzz_exfat_card_bytes / sector_size;
        const uint32_t cluster_size = fuzz_exfat_cluster_size;
        const uint64_t partition_start = 0;
        const format_monitor monitor = quiet_monitor();
        return exfat_format_volume(device, false, false, false, false, false, EXFAT_DISCARD_NONE, &sector_size,
                                   &sector_count, &cluster_size, &partition_start, nullptr,
                                   reinterpret_cast<const uint16_t *>(label.data()), uint8_t(label.size()),
                                   &seed_serial, nullptr, nullptr, false, false, false, false, &monitor);
    });
}

std::vector<uint8_t> fat_card(const fuzz_fat_card &shape, uint32_t code_page, const std::string &label) {
    return formatted_card(shape.bytes, [&](qfs_device *device) {
        const uint16_t sector_size = 512;
        const uint64_t sector_count = shape.bytes / sector_size;
        const uint32_t sectors_per_cluster = 1;
        const uint64_t partition_start = 0;
        const format_monitor monitor = quiet_monitor();
        return fat_format_volume(device, false, false, false, false, false, FAT_DISCARD_NONE, &shape.fat_type,
                                 nullptr, nullptr, nullptr, &sector_size, &sector_count, nullptr,
                                 &sectors_per_cluster, &partition_start, nullptr, code_page,
                                 reinterpret_cast<const uint8_t *>(label.data()), uint8_t(label.size()),
                                 &seed_serial, false, false, false, false, false, &monitor);
    });
}

// Argument vectors of the tool's table and of the every-kind table, pieces split by zero bytes.
const std::vector<std::vector<std::string>> argument_vectors = {
    {"--help"},
    {"--about"},
    {"-v"},
    {"--list", "--all", "--json"},
    {"-l", "PHOTOS", "--cp", "0x1B5", "card.img"},
    {"--volume-label", "-x", "--overwrite", "--discard", "card.img"},
    {"--cp", "0665", "--tca-relax", "--tca-align-to-cylinder", "-f", "card.img"},
    {"--progress-bar", "--tca-formatter-progress", "card.img"},
    {"--dry-run", "--secure-discard", "--zero", "--allow-fixed-disk", "/dev/sdb"},
    {"--", "-", "card.img"},
    {"--number", "18446744073709551615", "--hex", "ff", "--octal", "17", "a", "b"},
    {"-l", "1,0x10,010,4294967295", "-s", "text", "a", "b"},
    {"--list", "7,,4294967296", "a"},
};

// Label texts: valid and broken UTF-8, and text outside every code page.
const std::vector<std::string> label_texts = {
    "PHOTOS",
    "\xC3\x84\xC3\x96\xC3\x9C caf\xC3\xA9",
    "\xE2\x98\xBA\xE2\x8C\x82\xE2\x82\xAC",
    "\xE5\x86\x99\xE7\x9C\x9F \xED\x95\x9C\xEA\xB8\x80",
    "\xF0\x9F\x98\x80 x",
    "\xEF\x8E\xA5 raw",
    "\xC0\x80\xED\xA0\x80\xF4\x90\x80\x80",
};

} // namespace

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s <corpus directory>\n", argv[0]);
        return 2;
    }
    qfs_log_set_kmsg_enabled(false);
    const fs::path corpus = argv[1];
    bool ok = true;
    ok &= write_seed(corpus / "exfat_volume", "labelled", exfat_card(u"SEED CARD"));
    ok &= write_seed(corpus / "exfat_volume", "unlabelled", exfat_card(u""));
    for (const fuzz_fat_card &shape : {fuzz_fat12_card, fuzz_fat16_card, fuzz_fat32_card}) {
        const fs::path folder = corpus / ("fat" + std::to_string(shape.fat_type) + "_volume");
        ok &= write_seed(folder, "labelled", fat_card(shape, 437, "SEED CARD"));
        ok &= write_seed(folder, "code_page_850", fat_card(shape, 850, "CAF\x90"));
    }
    for (size_t i = 0; i < argument_vectors.size(); ++i) {
        std::string joined;
        for (const std::string &argument : argument_vectors[i]) joined += argument + '\0';
        ok &= write_seed(corpus / "options", "vector_" + std::to_string(i), bytes_of(joined));
    }
    // Each text in each code page (the first byte picks it), graphics characters on for every other one.
    for (size_t i = 0; i < label_texts.size(); ++i) {
        for (size_t page = 0; page < qfs_codepage_tables_count; ++page) {
            const char selector = char(page + (i % 2) * qfs_codepage_tables_count);
            ok &= write_seed(corpus / "codepage", "text_" + std::to_string(i) + "_" + std::to_string(page),
                             bytes_of(selector + label_texts[i]));
        }
    }
    return ok ? 0 : 1;
}
