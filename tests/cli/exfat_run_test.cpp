// The tool's exFAT run from the command line: results, refusals, progress
// lines, the terminal bar and zero-filling.
#include <gtest/gtest.h>

#include <sys/statvfs.h>

#include <regex>

#include "cli/cli_texts.h"
#include "cli/progress_lines.h"
#include "harness/loop_device.h"
#include "harness/process.h"
#include "harness/temp_files.h"

namespace {

using qfs_test::banner;

constexpr uint64_t smallest_card_sectors = 67108864; // 32 GiB: recommendation row 2
constexpr uint64_t mib = 1048576;

class ExfatRun : public testing::Test {
protected:
    qfs_test::temp_dir dir;
    std::string card(uint64_t sectors, const char *name = "card.img") {
        const std::string path = dir.file(name);
        qfs_test::make_sparse_image(path, sectors * 512);
        return path;
    }
};

std::string success_report(const char *card_class, const std::string &path, const char *capacity, const char *free,
                           const char *cluster, const char *label) {
    std::string report = std::string(card_class) + " formatting of \"" + path + "\" was successfully completed.\n" +
                         "Volume information:\n\tFile system: exFAT\n\tCapacity: " + capacity + "\n\tFree space: " +
                         free + "\n\tCluster size: " + cluster + "\n";
    if (label) report += std::string("\tVolume label: ") + label + "\n";
    return report;
}

TEST_F(ExfatRun, SuccessReport) {
    const std::string path = card(smallest_card_sectors);
    const auto r = qfs_test::run_tool({"-l", "DEMO", path});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, banner + success_report("TNC", path, "32.0 GiB (34342961152 bytes)", "32.0 GiB (34325790720 bytes)",
                                             "128.0 kiB (131072 bytes)", "DEMO"));
    // Without a label there is no label line.
    const auto unlabelled = qfs_test::run_tool({path});
    EXPECT_EQ(unlabelled.err, banner + success_report("TNC", path, "32.0 GiB (34342961152 bytes)",
                                                      "32.0 GiB (34325790720 bytes)", "128.0 kiB (131072 bytes)",
                                                      nullptr));
}

TEST_F(ExfatRun, VerboseEchoAndSteps) {
    const std::string path = card(smallest_card_sectors);
    const auto r = qfs_test::run_tool({"-v", "--volume-label", "Été", path});
    EXPECT_EQ(r.exit_status, 0);
    EXPECT_EQ(r.err, banner + "Device: \"" + path + "\"\nVolume label: \"Été\"\nVolume GUID: <none>\n" +
                         "Sector size: 512 bytes\nVolume size: 67076096 sectors (34342961152 bytes)\n"
                         "Overwriting the beginning of the device with zeroed data...\n"
                         "Overwriting the end of the device with zeroed data...\n"
                         "Writing allocation bitmap...\nWriting upcase table...\nWriting root directory...\n"
                         "Writing file allocation table...\nWriting boot region...\nCreating partition table...\n"
                         "Creating Tarn-compatible partition table...\nSyncing device...\n" +
                         success_report("TNC", path, "32.0 GiB (34342961152 bytes)", "32.0 GiB (34325790720 bytes)",
                                        "128.0 kiB (131072 bytes)", "Été"));
}

TEST_F(ExfatRun, LabelRefusalsLeaveTheCardUntouched) {
    struct label_case {
        std::string label;
        std::string message;
    };
    const label_case cases[] = {
        {"TWELVE CHARS", "Error: Invalid volume label length. (Was: 12 Maximum length allowed: 11)\n"},
        // Six characters outside the 16-bit range take two UTF-16 units each.
        {"\xF0\x9F\x98\x80\xF0\x9F\x98\x80\xF0\x9F\x98\x80\xF0\x9F\x98\x80\xF0\x9F\x98\x80\xF0\x9F\x98\x80",
         "Error: Invalid volume label length. (Was: 12 Maximum length allowed: 11)\n"},
        {"A*B", "Error: Invalid characters in volume label.\n"},
        {"a:b", "Error: Invalid characters in volume label.\n"},
        {"tab\tstop", "Error: Invalid characters in volume label.\n"},
        // An overlong encoding of '/' is no UTF-8.
        {"x\xC0\xAF", "[ERROR] Error while getting UTF-16 size for 3-byte UTF-8 string \"x\xC0\xAF\": 15 "
                       "(QFS_ERR_INVALID_DATA)\nError: Failed to encode volume label into UTF-16.\n"},
    };
    const std::string path = card(smallest_card_sectors);
    const std::string before = qfs_test::image_fingerprint(path);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.message);
        const auto r = qfs_test::run_tool({"-l", c.label, path});
        EXPECT_EQ(r.exit_status, 1);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, banner + c.message);
        EXPECT_EQ(qfs_test::image_fingerprint(path), before);
    }
}

TEST_F(ExfatRun, ElevenCharactersFitEvenWhenTheirBytesDoNot) {
    const std::string path = card(smallest_card_sectors);
    // 11 characters, 22 bytes of UTF-8, 11 UTF-16 units.
    const auto r = qfs_test::run_tool({"-l", "ÄÖÜäöüßéèêë", path});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    // The root directory's label entry: cluster 4 of the smallest card,
    // (32768 + 32768) sectors + 2 clusters of 128 KiB into the image.
    const auto entry = qfs_test::read_bytes(path, (32768 + 32768) * 512ull + 2 * 131072ull, 2);
    EXPECT_EQ(entry[0], 0x83);
    EXPECT_EQ(entry[1], 11);
}

TEST_F(ExfatRun, CardsBetweenClassesNeedRelaxing) {
    // 67108863 sectors lie in the gap row below the smallest exFAT class.
    const std::string path = card(smallest_card_sectors - 1);
    const std::string before = qfs_test::image_fingerprint(path);
    const std::string refusal = "ERROR: 'tca-whole' - Device with 67108863 sectors is too small for TNE and too large "
                                "for TNC recommendations to apply.\n";
    auto r = qfs_test::run_tool({path});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, banner + refusal + "Formatting failed!\n");
    r = qfs_test::run_tool({"-v", path});
    EXPECT_EQ(r.err, banner + "Device: \"" + path + "\"\nVolume label: <none>\nVolume GUID: <none>\n" + refusal +
                         "Formatting failed: Invalid argument\n");
    EXPECT_EQ(qfs_test::image_fingerprint(path), before);

    // Relaxed, the card takes row 2: start 32768 and 67108863 - 32768 = 67076095 sectors.
    r = qfs_test::run_tool({"--tca-relax", path});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    if (qfs_test::have_program("sfdisk")) {
        const std::string table = qfs_test::must_run({"sfdisk", "-d", path});
        EXPECT_NE(table.find("start=       32768, size=    67076095, type=7"), std::string::npos) << table;
    }
}

TEST_F(ExfatRun, MachineReadableProgress) {
    const std::string path = card(smallest_card_sectors);
    for (const char *discard : {"", "--discard", "--secure-discard"}) {
        SCOPED_TRACE(discard);
        std::vector<std::string> args = {"--tca-formatter-progress", "-l", "DEMO", path};
        if (*discard) args.insert(args.begin(), discard);
        const auto r = qfs_test::run_tool(args);
        EXPECT_EQ(r.exit_status, 0);
        const std::string header = "FSTYPE:exFAT\nFSCLUSTERSIZE:131072\nDEVICETOTALBYTES:34342961152\n"
                                   "FSTOTALBYTES:34326183936\nFSBYTESFREE:34325790720\nFSLABEL:DEMO\n";
        EXPECT_EQ(r.out.substr(0, header.size()), header);
        qfs_test::expect_progress_completes(r);
        EXPECT_EQ(r.err.find("Done"), std::string::npos) << "no bar in machine-readable mode";
    }
}

TEST_F(ExfatRun, TerminalBarInAPseudoTerminal) {
    const std::string path = card(smallest_card_sectors);
    // On a terminal the bar is on without asking.
    const auto r = qfs_test::run_in_pty({qfs_test::tool_path(), path}, {24, 80});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    // The terminal turns each "\n" into "\r\n".
    std::regex bar("\r\\[([=\\- ]*)\\] +([0-9]+) %");
    int bars = 0;
    for (auto it = std::sregex_iterator(r.output.begin(), r.output.end(), bar); it != std::sregex_iterator(); ++it) {
        const std::string cells = (*it)[1];
        const int percent = std::stoi((*it)[2]);
        ++bars;
        EXPECT_EQ(cells.size(), 72u);
        EXPECT_EQ(static_cast<int>(std::count(cells.begin(), cells.end(), '=')), 72 * percent / 100);
        EXPECT_EQ(std::count(cells.begin(), cells.end(), '-'), (72 * percent) % 100 ? 1 : 0);
    }
    EXPECT_GT(bars, 3);
    const std::string finish = "\rDone\x1b[0K\r\n\r[" + std::string(72, '=') + "] 100 %\r\n";
    ASSERT_GE(r.output.size(), finish.size());
    EXPECT_EQ(r.output.substr(r.output.size() - finish.size()), finish);
    EXPECT_NE(r.output.find("\r\x1b[A"), std::string::npos) << "cursor up between updates";
    EXPECT_NE(r.err.find("TNC formatting of"), std::string::npos);
}

} // namespace

namespace {

// Writes the whole smallest card (32 GiB) for real: run once, in the plain
// build only, and only where the disk has room for it.
TEST_F(ExfatRun, OverwriteZeroesEverythingButTheCardsOemParameters) {
#if defined(QFS_SANITIZED)
    GTEST_SKIP() << "the full overwrite runs in the plain build; the sanitizers add nothing to this I/O path";
#endif
    struct statvfs fs {};
    ASSERT_EQ(statvfs(dir.path().c_str(), &fs), 0);
    const uint64_t card_bytes = smallest_card_sectors * 512;
    if (static_cast<uint64_t>(fs.f_bavail) * fs.f_frsize < card_bytes + 8 * 1024 * mib)
        GTEST_SKIP() << "not enough free disk space for a 32 GiB overwrite";
    const std::string path = card(smallest_card_sectors);
    const std::vector<uint8_t> old(mib, 0xAA);
    // Old bytes throughout the card: every 1 GiB, around the structures and at both ends.
    std::vector<uint64_t> windows = {0, 32768 * 512ull + 16 * mib, 32768 * 512ull + 64 * mib, card_bytes - mib};
    for (uint64_t at = 1024 * mib; at < card_bytes; at += 1024 * mib) windows.push_back(at);
    for (uint64_t at : windows) qfs_test::write_bytes(path, at, old);
    const auto r = qfs_test::run_tool({"--overwrite", "--discard", "--tca-formatter-progress", path});
    EXPECT_EQ(r.exit_status, 0) << r.err;
    qfs_test::expect_progress_completes(r);
    // Structures hold some 0xAA bytes of their own (signatures, the up-case table), so old bytes are looked
    // for only where no structure lies: the alignment region, the heap beyond its first 1 MiB (bitmap,
    // up-case table and root directory take 384 KiB of it), every gigabyte window and the tail.
    EXPECT_TRUE(qfs_test::all_zero(path, 512, 32768 * 512ull - 512));
    EXPECT_TRUE(qfs_test::all_zero(path, 32768 * 512ull + 16 * mib + 1024 * 1024, 64 * mib));
    for (uint64_t at = 1024 * mib; at < card_bytes; at += 1024 * mib) EXPECT_TRUE(qfs_test::all_zero(path, at, mib)) << at;
    EXPECT_TRUE(qfs_test::all_zero(path, card_bytes - mib, mib));
}

} // namespace
