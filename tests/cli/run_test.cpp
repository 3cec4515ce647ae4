// The tool's runs from the command line: reports, labels, refusals,
// progress lines, the terminal bar and zero-filling.
//
// The smallest exFAT card, 67108864 sectors (32 GiB), has its partition at
// 32768 sectors, the cluster heap 32768 sectors into it and 128 KiB clusters.
// The FAT card has 259584 sectors (row 6 of the card tables): partition at
// 95, FAT16 in 16 KiB clusters, 1 reserved sector, 2 FATs of 32 sectors, 512
// root entries from sector 95 + 1 + 64 = 160, the data area from 192, 8106
// clusters.
#include <gtest/gtest.h>

#include <sys/statvfs.h>

#include <regex>

#include "cli/cli_texts.h"
#include "cli/progress_lines.h"
#include "harness/process.h"
#include "harness/temp_files.h"

namespace {

using qfs_test::banner;

constexpr uint64_t smallest_card_sectors = 67108864;
constexpr uint64_t fat_card_sectors = 259584;
constexpr uint64_t mib = 1048576;
constexpr uint64_t boot_sector = 95 * 512, root_directory = 160 * 512, data_area = 192 * 512;

std::string text_at(const std::string &image, uint64_t offset, size_t length) {
    const auto bytes = qfs_test::read_bytes(image, offset, length);
    return {bytes.begin(), bytes.end()};
}

class Run : public testing::Test {
protected:
    qfs_test::temp_dir dir;
    std::string card(uint64_t sectors = smallest_card_sectors, const std::string &name = "card.img") {
        const std::string path = dir.file(name);
        qfs_test::make_sparse_image(path, sectors * 512);
        return path;
    }
};

std::string success_report(const std::string &path, const std::string &label) {
    return "TNC formatting of \"" + path + "\" was successfully completed.\nVolume information:\n"
           "\tFile system: exFAT\n\tCapacity: 32.0 GiB (34342961152 bytes)\n\tFree space: 32.0 GiB (34325790720 "
           "bytes)\n\tCluster size: 128.0 kiB (131072 bytes)\n" + (label.empty() ? "" : "\tVolume label: " + label + "\n");
}

TEST_F(Run, ReportsQuietAndVerbose) {
    const std::string path = card();
    const std::string steps = "Sector size: 512 bytes\nVolume size: 67076096 sectors (34342961152 bytes)\n"
                              "Overwriting the beginning of the device with zeroed data...\n"
                              "Overwriting the end of the device with zeroed data...\n"
                              "Writing allocation bitmap...\nWriting upcase table...\nWriting root directory...\n"
                              "Writing file allocation table...\nWriting boot region...\nCreating partition table...\n"
                              "Creating Tarn-compatible partition table...\nSyncing device...\n";
    struct report_case {
        std::vector<std::string> args;
        std::string err; // after the banner
    };
    const report_case cases[] = {
        {{}, success_report(path, "")}, // no label line without a label; with one see exfat_cards_test.cpp
        {{"-v", "--volume-label", "Été"},
         "Device: \"" + path + "\"\nVolume label: \"Été\"\nVolume GUID: <none>\n" + steps + success_report(path, "Été")},
    };
    for (const auto &c : cases) {
        std::vector<std::string> args = c.args;
        args.push_back(card()); // fresh each time: a formatted card's flash parameters are reported
        const auto r = qfs_test::run_tool(args);
        EXPECT_EQ(r.exit_status, 0);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, banner + c.err);
    }
}

TEST_F(Run, RefusalsLeaveTheCardUntouched) {
    const std::string invalid = "Error: Invalid characters in volume label.\n";
    const std::string too_long = "Error: Invalid volume label length. (Was: 12 Maximum length allowed: 11)\n";
    const std::string gap = "ERROR: 'tca-whole' - Device with 67108863 sectors is too small for TNE and too large "
                            "for TNC recommendations to apply.\n";
    enum card_kind { exfat, fat, gap_card };
    struct refusal_case {
        card_kind card;
        std::vector<std::string> args;
        std::string err; // after the banner; % stands for the device, the last argument
    };
    const refusal_case cases[] = {
        {exfat, {"-l", "TWELVE CHARS"}, too_long},
        // Six characters outside the 16-bit range take two UTF-16 units each.
        {exfat, {"-l", "\xF0\x9F\x98\x80\xF0\x9F\x98\x80\xF0\x9F\x98\x80\xF0\x9F\x98\x80\xF0\x9F\x98\x80\xF0\x9F\x98\x80"},
         too_long},
        {exfat, {"-l", "A*B"}, invalid},
        {exfat, {"-l", "a:b"}, invalid},
        {exfat, {"-l", "tab\tstop"}, invalid},
        // An overlong encoding of '/' is no UTF-8.
        {exfat, {"-l", "x\xC0\xAF"}, "[ERROR] Error while getting UTF-16 size for 3-byte UTF-8 string \"x\xC0\xAF\": 15 "
                                     "(QFS_ERR_INVALID_DATA)\nError: Failed to encode volume label into UTF-16.\n"},
        {fat, {"-l", "日本"}, "Error: Non-CP437 characters in volume label.\n"},
        {fat, {"--cp", "850", "-l", "日本"}, "Error: Non-CP850 characters in volume label.\n"},
        // Six characters of code page 932 take 12 bytes: more than the label holds.
        {fat, {"--cp", "932", "-l", "カードカード"}, "Error: Non-CP932 characters in volume label.\n"},
        {fat, {"--cp", "2147483648", "-l", "X"}, "Error: Unsupported code page 2147483648.\n"},
        {fat, {"--cp", "1234"}, "Error: Unsupported code page 1234.\n"},
        {fat, {"-l", "A*B"}, invalid},
        // A card one sector short of the smallest exFAT class lies in the gap below it.
        {gap_card, {}, gap + "Formatting failed!\n"},
        {gap_card, {"-v"}, "Device: \"%\"\nVolume label: <none>\nVolume GUID: <none>\n" + gap +
                               "Formatting failed: Invalid argument\n"},
    };
    const std::string cards[] = {card(), card(fat_card_sectors, "fat.img"), card(smallest_card_sectors - 1, "gap.img")};
    std::vector<std::string> before;
    for (const std::string &path : cards) {
        qfs_test::write_bytes(path, 0, std::vector<uint8_t>(4096, 0xAA));
        before.push_back(qfs_test::image_fingerprint(path));
    }
    for (const auto &c : cases) {
        SCOPED_TRACE(c.err);
        std::vector<std::string> args = c.args;
        args.push_back(cards[c.card]);
        const auto r = qfs_test::run_tool(args);
        EXPECT_EQ(r.exit_status, 1);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, banner + std::regex_replace(c.err, std::regex("%"), cards[c.card]));
    }
    for (size_t i = 0; i < std::size(cards); ++i) EXPECT_EQ(qfs_test::image_fingerprint(cards[i]), before[i]) << i;

    // Relaxed, the gap card takes the smallest class's row: start 32768, 67108863 - 32768 sectors.
    ASSERT_EQ(qfs_test::run_tool({"--tca-relax", cards[gap_card]}).exit_status, 0);
    const std::string table = qfs_test::must_run({"sfdisk", "-d", cards[gap_card]});
    EXPECT_NE(table.find("start=       32768, size=    67076095, type=7"), std::string::npos) << table;
}

TEST_F(Run, ElevenCharactersFitEvenWhenTheirBytesDoNot) {
    const std::string path = card();
    // 11 characters, 22 bytes of UTF-8, 11 UTF-16 units.
    ASSERT_EQ(qfs_test::run_tool({"-l", "ÄÖÜäöüßéèêë", path}).exit_status, 0);
    // The label entry in the root directory, the heap's third cluster.
    const auto entry = qfs_test::read_bytes(path, (32768 + 32768) * 512ull + 2 * 131072ull, 2);
    EXPECT_EQ(entry[0], 0x83);
    EXPECT_EQ(entry[1], 11);
}

// Volume 259489 sectors of the FAT card; 8106 clusters of 16 KiB, one of them counted as used.
TEST_F(Run, MachineReadableProgress) {
    struct progress_case {
        uint64_t sectors;
        std::vector<std::string> options;
        std::string header;
    };
    const std::string exfat = "FSTYPE:exFAT\nFSCLUSTERSIZE:131072\nDEVICETOTALBYTES:34342961152\n"
                              "FSTOTALBYTES:34326183936\nFSBYTESFREE:34325790720\nFSLABEL:demo\n";
    // exFAT keeps the label's case; FAT stores it in capitals.
    const std::string fat = "FSTYPE:FAT16\nFSCLUSTERSIZE:16384\nDEVICETOTALBYTES:132858368\n"
                            "FSTOTALBYTES:132808704\nFSBYTESFREE:132792320\nFSLABEL:DEMO\n";
    const progress_case cases[] = {
        {smallest_card_sectors, {"--discard"}, exfat}, {smallest_card_sectors, {"--secure-discard"}, exfat},
        {fat_card_sectors, {}, fat},                   {fat_card_sectors, {"--discard"}, fat},
        {fat_card_sectors, {"--overwrite"}, fat},      {fat_card_sectors, {"--overwrite", "--discard"}, fat},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.options));
        std::vector<std::string> args = c.options;
        args.insert(args.end(), {"--tca-formatter-progress", "-l", "demo", card(c.sectors)});
        const auto r = qfs_test::run_tool(args);
        EXPECT_EQ(r.exit_status, 0) << r.err;
        EXPECT_EQ(r.out.substr(0, c.header.size()), c.header);
        qfs_test::expect_progress_completes(r);
        EXPECT_EQ(r.err.find("Done"), std::string::npos) << "no bar in machine-readable mode";
    }
}

// On a terminal the bar is on without asking: 8 columns go to its frame and
// percentage, each other one is a cell, '=' when full and one '-' for a part.
// A window change takes effect at the next update; a narrow terminal gets an
// empty bar. A 499 MiB card zero-filled gives the bar time to be resized.
TEST_F(Run, TerminalBar) {
    struct bar_case {
        unsigned short columns, resized_to;
    };
    for (const bar_case c : {bar_case{80, 100}, bar_case{5, 5}}) {
        SCOPED_TRACE(c.columns);
        const std::string path = card(1021952);
        bool resized = false;
        const auto r = qfs_test::run_in_pty({qfs_test::tool_path(), "--overwrite", path}, {24, c.columns},
                                            [&](const std::string &shown) -> std::optional<qfs_test::pty_size> {
                                                if (resized || shown.find("] ") == std::string::npos) return {};
                                                resized = true;
                                                return qfs_test::pty_size{24, c.resized_to};
                                            });
        EXPECT_EQ(r.exit_status, 0) << r.err;
        EXPECT_NE(r.err.find("Tarn formatting of"), std::string::npos);
        // The terminal turns each "\n" into "\r\n".
        const std::regex bar("\r\\[([=\\- ]*)\\] +([0-9]+) %");
        std::vector<size_t> widths;
        for (auto it = std::sregex_iterator(r.output.begin(), r.output.end(), bar); it != std::sregex_iterator(); ++it) {
            const std::string cells = (*it)[1];
            const size_t percent = std::stoul((*it)[2]);
            widths.push_back(cells.size());
            EXPECT_EQ(size_t(std::count(cells.begin(), cells.end(), '=')), cells.size() * percent / 100);
            EXPECT_EQ(std::count(cells.begin(), cells.end(), '-'), (cells.size() * percent) % 100 ? 1 : 0);
        }
        ASSERT_GT(widths.size(), 3u);
        EXPECT_EQ(widths.front(), c.columns > 8 ? c.columns - 8u : 0u);
        EXPECT_EQ(widths.back(), c.resized_to > 8 ? c.resized_to - 8u : 0u);
        const std::string last = "] 100 %\r\n";
        EXPECT_EQ(r.output.substr(r.output.size() - last.size()), last);
        EXPECT_NE(r.output.find("\rDone\x1b[0K\r\n"), std::string::npos);
        EXPECT_NE(r.output.find("\r\x1b[A"), std::string::npos) << "cursor up between updates";
    }
}

// Writes the whole smallest card for real: in the plain build only, and only where the disk has room for it.
TEST_F(Run, OverwriteZeroesEverythingButTheStructures) {
#if defined(QFS_SANITIZED)
    GTEST_SKIP() << "the full overwrite runs in the plain build; the sanitizers add nothing to this I/O path";
#endif
    struct statvfs fs {};
    ASSERT_EQ(statvfs(dir.path().c_str(), &fs), 0);
    const uint64_t card_bytes = smallest_card_sectors * 512, volume = 32768 * 512ull;
    if (uint64_t(fs.f_bavail) * fs.f_frsize < card_bytes + 8 * 1024 * mib)
        GTEST_SKIP() << "not enough free disk space for a 32 GiB overwrite";
    const std::string path = card();
    // Old bytes every 1 GiB, around the structures and at both ends.
    std::vector<uint64_t> windows = {0, volume + 16 * mib, volume + 64 * mib, card_bytes - mib};
    for (uint64_t at = 1024 * mib; at < card_bytes; at += 1024 * mib) windows.push_back(at);
    for (uint64_t at : windows) qfs_test::write_bytes(path, at, std::vector<uint8_t>(mib, 0xAA));
    const auto r = qfs_test::run_tool({"--overwrite", "--discard", "--tca-formatter-progress", path});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    qfs_test::expect_progress_completes(r);
    // Structures hold 0xAA bytes of their own, so old bytes are looked for only where none lies: the
    // alignment region, the heap past its first MiB, every gigabyte window and the tail.
    EXPECT_TRUE(qfs_test::all_zero(path, 512, volume - 512));
    EXPECT_TRUE(qfs_test::all_zero(path, volume + 17 * mib, 64 * mib));
    for (uint64_t at = 1024 * mib; at < card_bytes; at += 1024 * mib) EXPECT_TRUE(qfs_test::all_zero(path, at, mib)) << at;
}

TEST_F(Run, LabelsAreStoredUpperCasedInTheirCodePage) {
    struct label_case {
        std::vector<std::string> args;
        std::string stored; // in the boot sector; the root directory's label entry holds the same
        std::string shown;  // in the verbose echo and the success report
    };
    const label_case cases[] = {
        {{"-l", "data"}, "DATA       ", "DATA"},
        {{"--cp", "0", "-l", "Data"}, "DATA       ", "DATA"},
        // É is 0x90 in code page 850.
        {{"--cp", "850", "-l", "été"}, "\x90T\x90        ", "ÉTÉ"},
        // Shift-JIS: カ 83 4A, ー 81 5B, ド 83 68.
        {{"--cp", "932", "-l", "カード"}, "\x83\x4A\x81\x5B\x83\x68     ", "カード"},
        {{}, "NO NAME    ", ""},
    };
    for (const label_case &c : cases) {
        SCOPED_TRACE(c.shown);
        const std::string image = card(fat_card_sectors);
        std::vector<std::string> args = c.args;
        args.insert(args.begin(), "-v");
        args.push_back(image);
        const auto r = qfs_test::run_tool(args);
        ASSERT_EQ(r.exit_status, 0) << r.err;
        const bool labelled = !c.shown.empty();
        const std::string echo = labelled ? "Volume label: \"" + c.shown + "\"\n" : "Volume label: <none>\n";
        EXPECT_EQ(r.err.rfind(banner + "Device: \"" + image + "\"\n" + echo + "Sector size: 512 bytes\n", 0), 0u)
            << r.err;
        EXPECT_EQ(r.err.find("\tVolume label: " + c.shown + "\n") != std::string::npos, labelled);
        EXPECT_EQ(text_at(image, boot_sector + 43, 11), c.stored);
        // The label entry: name and the volume-label attribute; none without a label.
        EXPECT_EQ(text_at(image, root_directory, 12), labelled ? c.stored + "\x08" : std::string(12, '\0'));
    }
}

// Old bytes over the card's head (MBR, boot sector, FATs, root directory, the
// data area's start), two windows of the data area and its last MiB.
TEST_F(Run, OverwriteLeavesNoOldBytesAndAQuickFormatOnlyItsZeroAreas) {
    const uint64_t card_bytes = fat_card_sectors * 512, head_end = boot_sector + mib; // the head: start + 1 MiB
    for (const bool overwrite : {false, true}) {
        SCOPED_TRACE(overwrite);
        const std::string image = card(fat_card_sectors);
        for (const uint64_t at : {uint64_t{0}, mib, 8 * mib, 64 * mib, card_bytes - mib})
            qfs_test::write_bytes(image, at, std::vector<uint8_t>(mib, 0xAA));
        std::vector<std::string> args = {"-l", "DATA", image};
        if (overwrite) args.insert(args.begin(), "--overwrite");
        const auto r = qfs_test::run_tool(args);
        ASSERT_EQ(r.exit_status, 0) << r.err;
        // Between the MBR and the boot sector, and behind the structures up to the head's end.
        EXPECT_TRUE(qfs_test::all_zero(image, 512, boot_sector - 512));
        EXPECT_TRUE(qfs_test::all_zero(image, data_area, head_end - data_area));
        EXPECT_TRUE(qfs_test::all_zero(image, card_bytes - mib, mib));
        // The MBR and the boot sector hold random bytes; nothing after them may be old.
        if (overwrite) {
            EXPECT_FALSE(qfs_test::contains_byte(image, boot_sector + 512, card_bytes - boot_sector - 512, 0xAA));
        }
        for (const uint64_t at : {8 * mib, 64 * mib}) {
            if (overwrite) {
                EXPECT_TRUE(qfs_test::all_zero(image, at, mib)) << at;
            } else {
                EXPECT_EQ(qfs_test::read_bytes(image, at, mib), std::vector<uint8_t>(mib, 0xAA)) << at;
            }
        }
    }
}

} // namespace
