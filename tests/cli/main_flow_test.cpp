// Whole-output tests of the command line: every stream compared in full.
#include <gtest/gtest.h>
#include <unistd.h>

#include <regex>

#include "cli/cli_texts.h"
#include "harness/process.h"
#include "harness/temp_files.h"

namespace {

using qfs_test::about_text;
using qfs_test::banner;
using qfs_test::help_text;

// Every stream compared in full; standard output is a pipe here, never a terminal.
TEST(Cli, WholeOutputAndExitStatus) {
    const struct {
        const char *name;
        std::vector<std::string> args;
        int exit_status;
        std::string out, err;
    } cases[] = {
        {"NoArguments", {}, 1, "", banner + help_text},
        {"Help", {"--help"}, 0, help_text, banner},
        {"ShortHelpWinsOverAbout", {"-h", "--about"}, 0, help_text, banner},
        {"About", {"--about"}, 0, about_text, banner},
        {"UnknownOption", {"--bogus", "card.img"}, 1, "", banner + "Error: Unknown option '--bogus'.\n" + help_text},
        {"MissingValue", {"card.img", "-l"}, 1, "", banner + "Error: Expected value for option '-l'.\n" + help_text},
        {"SecondPositional", {"a.img", "b.img"}, 1, "", banner + "Error: Unexpected argument 'b.img'.\n" + help_text},
        {"VerboseAlone", {"-v"}, 1, "", banner + "Error: Missing parameter \"device\".\n" + help_text},
        {"InvalidCodePageNumber", {"--cp", "43x", "card.img"}, 1, "",
         banner + "Error: Invalid value for option '--cp': '43x'\n" + help_text},
        {"ProgressConflict", {"--progress-bar", "--tca-formatter-progress", "card.img"}, 1, "",
         banner + "Error: Conflict between --progress-bar and --tca-formatter-progress options.\n" + help_text},
        {"ProgressBarWithoutTerminal", {"--progress-bar", "card.img"}, 1, "",
         banner + "Error: Cannot specify --progress-bar option when standard output does not refer to a terminal.\n"},
        // A character device is asked for its partition start, which only a block device can answer.
        {"CharacterDevice", {"/dev/zero"}, 1, "",
         banner + "[ERROR] Error while getting device start sector: 25 (Inappropriate ioctl for device)\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const auto r = qfs_test::run_tool(c.args);
        EXPECT_EQ(r.exit_status, c.exit_status);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.err, c.err);
    }
}

TEST(Cli, UsageNamesTheProgramByItsBaseName) {
    qfs_test::temp_dir dir;
    const std::string link = dir.file("tarn-fmt");
    ASSERT_EQ(symlink(qfs_test::tool_path().c_str(), link.c_str()), 0);
    const auto r = qfs_test::run_command({link});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_NE(r.err.find("usage: tarn-fmt [-l <volume label>]"), std::string::npos) << r.err;
}

// Devices refused before a byte is written, the image keeping every byte.
TEST(Cli, DevicesRefusedBeforeAnythingIsWritten) {
    constexpr uint64_t absent = 0;
    const std::string no_such = ": 2 (No such file or directory)\n";
    struct device_case {
        const char *name;
        uint64_t bytes; // of the image; absent: none is created
        std::string err; // after the banner; % stands for the device
    };
    const device_case cases[] = {
        {"absent", absent, "[ERROR] Failed to stat device \"%\"" + no_such +
                               "[ERROR] Error while initializing device implementation" + no_such +
                               "[ERROR] Failed to create fat_device" + no_such},
        // One whole sector: the card rules take the 33 sectors of their smallest layout off it, and the
        // count wraps around.
        {"1000 bytes", 1000,
         "ERROR: Volume size is too big to be formatted as FAT16\n\t(Max cluster limit: 65525, Calculated: "
         "2250700302057483).\n\tPlease try by reducing volume size or by\n\tincreasing sectors per cluster value.\n"
         "ERROR: Number of clusters are not enough to make a\n\tFAT16 volume (Min expected: 4086, Got: 0).\n\tPlease "
         "try by increasing volume size.\nFormatting failed!\n"},
        // One sector past the largest FAT card is exFAT, but no exFAT row starts that low.
        {"smallest exFAT card", 66945025 * 512ull,
         "ERROR: 'tca-whole' - Device with 66945025 sectors is too small for TNE and too large for TNC "
         "recommendations to apply.\nFormatting failed!\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        qfs_test::temp_dir dir;
        const std::string image = dir.file("card.img");
        if (c.bytes != absent) {
            qfs_test::make_sparse_image(image, c.bytes);
            qfs_test::write_bytes(image, 0, {0xEB, 0x3C, 0x90});
            qfs_test::write_bytes(image, c.bytes - 3, {0x55, 0xAA, 0x5A});
        }
        const std::string before = c.bytes != absent ? qfs_test::image_fingerprint(image) : "";
        const auto r = qfs_test::run_tool({"--tca-formatter-progress", image});
        EXPECT_EQ(r.exit_status, 1);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, banner + std::regex_replace(c.err, std::regex("%"), image));
        if (c.bytes != absent) EXPECT_EQ(qfs_test::image_fingerprint(image), before);
        else EXPECT_NE(access(image.c_str(), F_OK), 0);
    }
}

} // namespace
