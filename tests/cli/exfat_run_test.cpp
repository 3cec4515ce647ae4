// The tool's exFAT run from the command line: reports, refusals, progress
// lines, the terminal bar and zero-filling. The smallest exFAT card, 67108864
// sectors (32 GiB), has its partition at 32768 sectors, the cluster heap
// 32768 sectors into it and 128 KiB clusters.
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
constexpr uint64_t mib = 1048576;

class ExfatRun : public testing::Test {
protected:
    qfs_test::temp_dir dir;
    std::string card(uint64_t sectors = smallest_card_sectors) {
        const std::string path = dir.file("card.img");
        qfs_test::make_sparse_image(path, sectors * 512);
        return path;
    }
};

std::string success_report(const std::string &path, const std::string &label) {
    return "TNC formatting of \"" + path + "\" was successfully completed.\nVolume information:\n"
           "\tFile system: exFAT\n\tCapacity: 32.0 GiB (34342961152 bytes)\n\tFree space: 32.0 GiB (34325790720 "
           "bytes)\n\tCluster size: 128.0 kiB (131072 bytes)\n" + (label.empty() ? "" : "\tVolume label: " + label + "\n");
}

TEST_F(ExfatRun, ReportsQuietAndVerbose) {
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

TEST_F(ExfatRun, RefusalsLeaveTheCardUntouched) {
    const std::string invalid = "Error: Invalid characters in volume label.\n";
    const std::string too_long = "Error: Invalid volume label length. (Was: 12 Maximum length allowed: 11)\n";
    const std::string gap = "ERROR: 'tca-whole' - Device with 67108863 sectors is too small for TNE and too large "
                            "for TNC recommendations to apply.\n";
    struct refusal_case {
        std::vector<std::string> args;
        std::string err; // after the banner; the device is the last argument
    };
    const refusal_case cases[] = {
        {{"-l", "TWELVE CHARS"}, too_long},
        // Six characters outside the 16-bit range take two UTF-16 units each.
        {{"-l", "\xF0\x9F\x98\x80\xF0\x9F\x98\x80\xF0\x9F\x98\x80\xF0\x9F\x98\x80\xF0\x9F\x98\x80\xF0\x9F\x98\x80"},
         too_long},
        {{"-l", "A*B"}, invalid},
        {{"-l", "a:b"}, invalid},
        {{"-l", "tab\tstop"}, invalid},
        // An overlong encoding of '/' is no UTF-8.
        {{"-l", "x\xC0\xAF"}, "[ERROR] Error while getting UTF-16 size for 3-byte UTF-8 string \"x\xC0\xAF\": 15 "
                              "(QFS_ERR_INVALID_DATA)\nError: Failed to encode volume label into UTF-16.\n"},
        // A card one sector short of the smallest exFAT class lies in the gap below it.
        {{}, gap + "Formatting failed!\n"},
        {{"-v"}, "Device: \"%\"\nVolume label: <none>\nVolume GUID: <none>\n" + gap +
                     "Formatting failed: Invalid argument\n"},
    };
    const std::string path = card(), gap_card = dir.file("gap.img");
    qfs_test::make_sparse_image(gap_card, (smallest_card_sectors - 1) * 512);
    const std::string before = qfs_test::image_fingerprint(path), gap_before = qfs_test::image_fingerprint(gap_card);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.err);
        std::vector<std::string> args = c.args;
        const std::string device = c.args.size() == 2 ? path : gap_card;
        args.push_back(device);
        const auto r = qfs_test::run_tool(args);
        EXPECT_EQ(r.exit_status, 1);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, banner + std::regex_replace(c.err, std::regex("%"), device));
    }
    EXPECT_EQ(qfs_test::image_fingerprint(path), before);
    EXPECT_EQ(qfs_test::image_fingerprint(gap_card), gap_before);

    // Relaxed, the gap card takes the smallest class's row: start 32768, 67108863 - 32768 sectors.
    ASSERT_EQ(qfs_test::run_tool({"--tca-relax", gap_card}).exit_status, 0);
    const std::string table = qfs_test::must_run({"sfdisk", "-d", gap_card});
    EXPECT_NE(table.find("start=       32768, size=    67076095, type=7"), std::string::npos) << table;
}

TEST_F(ExfatRun, ElevenCharactersFitEvenWhenTheirBytesDoNot) {
    const std::string path = card();
    // 11 characters, 22 bytes of UTF-8, 11 UTF-16 units.
    ASSERT_EQ(qfs_test::run_tool({"-l", "ÄÖÜäöüßéèêë", path}).exit_status, 0);
    // The label entry in the root directory, the heap's third cluster.
    const auto entry = qfs_test::read_bytes(path, (32768 + 32768) * 512ull + 2 * 131072ull, 2);
    EXPECT_EQ(entry[0], 0x83);
    EXPECT_EQ(entry[1], 11);
}

TEST_F(ExfatRun, MachineReadableProgress) {
    const std::string path = card();
    for (const char *discard : {"--discard", "--secure-discard"}) {
        SCOPED_TRACE(discard);
        const auto r = qfs_test::run_tool({discard, "--tca-formatter-progress", "-l", "DEMO", path});
        EXPECT_EQ(r.exit_status, 0);
        const std::string header = "FSTYPE:exFAT\nFSCLUSTERSIZE:131072\nDEVICETOTALBYTES:34342961152\n"
                                   "FSTOTALBYTES:34326183936\nFSBYTESFREE:34325790720\nFSLABEL:DEMO\n";
        EXPECT_EQ(r.out.substr(0, header.size()), header);
        qfs_test::expect_progress_completes(r);
        EXPECT_EQ(r.err.find("Done"), std::string::npos) << "no bar in machine-readable mode";
    }
}

// On a terminal the bar is on without asking: 8 columns go to its frame and
// percentage, each other one is a cell, '=' when full and one '-' for a part.
// A window change takes effect at the next update; a narrow terminal gets an
// empty bar. A 499 MiB card zero-filled gives the bar time to be resized.
TEST_F(ExfatRun, TerminalBar) {
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
TEST_F(ExfatRun, OverwriteZeroesEverythingButTheStructures) {
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

} // namespace
