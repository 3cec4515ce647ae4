// The tool's FAT run from the command line: labels in their code pages,
// refusals, the machine-readable lines and what --overwrite leaves of a
// card's old bytes.
//
// Most cases use a 259584-sector card (row 6 of the card tables): partition at
// 95, FAT16 in 16 KiB clusters, 1 reserved sector, 2 FATs of 32 sectors, 512 root
// entries from sector 95 + 1 + 64 = 160, the data area from 192, 8106 clusters.
#include <gtest/gtest.h>

#include "cli/cli_texts.h"
#include "cli/progress_lines.h"
#include "harness/process.h"
#include "harness/temp_files.h"

namespace {

using qfs_test::banner;

constexpr uint64_t boot_sector = 95 * 512;
constexpr uint64_t root_directory = 160 * 512;
constexpr uint64_t data_area = 192 * 512;
constexpr uint64_t card_bytes = 259584 * 512;
constexpr uint64_t mib = 1048576;

std::string text_at(const std::string &image, uint64_t offset, size_t length) {
    const auto bytes = qfs_test::read_bytes(image, offset, length);
    return {bytes.begin(), bytes.end()};
}

class FatRun : public testing::Test {
protected:
    std::string card() {
        const std::string image = dir_.file("card.img");
        qfs_test::make_sparse_image(image, card_bytes);
        return image;
    }
    qfs_test::temp_dir dir_;
};

TEST_F(FatRun, LabelsAreStoredUpperCasedInTheirCodePage) {
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
        const std::string image = card();
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

TEST_F(FatRun, RefusalsLeaveTheCardUntouched) {
    struct refusal_case {
        std::vector<std::string> args;
        std::string message;
    };
    const refusal_case cases[] = {
        {{"-l", "日本"}, "Error: Non-CP437 characters in volume label.\n"},
        {{"--cp", "850", "-l", "日本"}, "Error: Non-CP850 characters in volume label.\n"},
        // Six characters of code page 932 take 12 bytes: more than the label holds.
        {{"--cp", "932", "-l", "カードカード"}, "Error: Non-CP932 characters in volume label.\n"},
        {{"--cp", "2147483648", "-l", "X"}, "Error: Unsupported code page 2147483648.\n"},
        {{"--cp", "1234"}, "Error: Unsupported code page 1234.\n"},
        {{"-l", "A*B"}, "Error: Invalid characters in volume label.\n"},
    };
    const std::string image = card();
    qfs_test::write_bytes(image, 0, std::vector<uint8_t>(4096, 0xAA));
    const std::string before = qfs_test::image_fingerprint(image);
    for (const refusal_case &c : cases) {
        SCOPED_TRACE(c.message);
        std::vector<std::string> args = c.args;
        args.push_back(image);
        const auto r = qfs_test::run_tool(args);
        EXPECT_EQ(r.exit_status, 1);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, banner + c.message);
        EXPECT_EQ(qfs_test::image_fingerprint(image), before);
    }
}

// Volume 259489 sectors; 8106 clusters of 16 KiB, one of them counted as used.
TEST_F(FatRun, MachineReadableLinesAndProgress) {
    const std::string header = "FSTYPE:FAT16\nFSCLUSTERSIZE:16384\nDEVICETOTALBYTES:132858368\n"
                               "FSTOTALBYTES:132808704\nFSBYTESFREE:132792320\nFSLABEL:DEMO\n";
    const std::vector<std::string> variants[] = {{}, {"--discard"}, {"--overwrite"}, {"--overwrite", "--discard"}};
    for (const auto &variant : variants) {
        SCOPED_TRACE(variant.empty() ? "quick" : variant.back());
        std::vector<std::string> args = variant;
        args.insert(args.end(), {"--tca-formatter-progress", "-l", "demo", card()});
        const auto r = qfs_test::run_tool(args);
        EXPECT_EQ(r.exit_status, 0) << r.err;
        EXPECT_EQ(r.out.substr(0, header.size()), header);
        qfs_test::expect_progress_completes(r);
    }
}

// Old bytes over the card's head (MBR, boot sector, FATs, root directory, the
// data area's start), two windows of the data area and its last MiB.
TEST_F(FatRun, OverwriteLeavesNoOldBytesAndAQuickFormatOnlyItsZeroAreas) {
    const uint64_t head_end = boot_sector + mib; // the zeroed head: partition start + 1 MiB
    for (const bool overwrite : {false, true}) {
        SCOPED_TRACE(overwrite);
        const std::string image = card();
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
