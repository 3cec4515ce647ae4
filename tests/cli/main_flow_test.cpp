// Whole-output tests of the command line: every stream compared in full.
#include <gtest/gtest.h>
#include <unistd.h>

#include "cli/cli_texts.h"
#include "harness/process.h"
#include "harness/temp_files.h"

namespace {

using qfs_test::about_text;
using qfs_test::banner;
using qfs_test::help_text;

struct whole_output_case {
    const char *name;
    std::vector<std::string> args;
    int exit_status;
    std::string out;
    std::string err;
};

void PrintTo(const whole_output_case &c, std::ostream *os) { *os << c.name; }

class WholeOutput : public ::testing::TestWithParam<whole_output_case> {};

TEST_P(WholeOutput, StreamsAndExitStatus) {
    const auto &c = GetParam();
    // Standard output is a pipe here, never a terminal.
    const auto r = qfs_test::run_tool(c.args);
    EXPECT_EQ(r.exit_status, c.exit_status);
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.err, c.err);
}

const whole_output_case whole_output_cases[] = {
    {"NoArguments", {}, 1, "", banner + help_text},
    {"Help", {"--help"}, 0, help_text, banner},
    {"HelpWithDevice", {"--help", "/dev/does-not-exist"}, 0, help_text, banner},
    {"ShortHelpWinsOverAbout", {"-h", "--about"}, 0, help_text, banner},
    {"About", {"--about"}, 0, about_text, banner},
    {"UnknownOption", {"--bogus", "card.img"}, 1, "", banner + "Error: Unknown option '--bogus'.\n" + help_text},
    {"DeviceIsNoOption", {"--device", "card.img"}, 1, "", banner + "Error: Unknown option '--device'.\n" + help_text},
    {"MissingValue", {"card.img", "-l"}, 1, "", banner + "Error: Expected value for option '-l'.\n" + help_text},
    {"SecondPositional", {"a.img", "b.img"}, 1, "", banner + "Error: Unexpected argument 'b.img'.\n" + help_text},
    {"VerboseAlone", {"-v"}, 1, "", banner + "Error: Missing parameter \"device\".\n" + help_text},
    {"InvalidCodePageNumber", {"--cp", "43x", "card.img"}, 1, "",
     banner + "Error: Invalid value for option '--cp': '43x'\n" + help_text},
    {"ProgressConflict", {"--progress-bar", "--tca-formatter-progress", "card.img"}, 1, "",
     banner + "Error: Conflict between --progress-bar and --tca-formatter-progress options.\n" + help_text},
    {"ProgressBarWithoutTerminal", {"--progress-bar", "card.img"}, 1, "",
     banner + "Error: Cannot specify --progress-bar option when standard output does not refer to a terminal.\n"},
};

INSTANTIATE_TEST_SUITE_P(Cli, WholeOutput, ::testing::ValuesIn(whole_output_cases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(Cli, UsageNamesTheProgramByItsBaseName) {
    qfs_test::temp_dir dir;
    const std::string link = dir.file("tarn-fmt");
    ASSERT_EQ(symlink(qfs_test::tool_path().c_str(), link.c_str()), 0);
    const auto r = qfs_test::run_command({link});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_NE(r.err.find("usage: tarn-fmt [-l <volume label>]"), std::string::npos) << r.err;
}

TEST(Cli, MissingDeviceIsReportedAndNothingIsCreated) {
    qfs_test::temp_dir dir;
    const std::string path = dir.file("absent.img");
    const auto r = qfs_test::run_tool({path});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, banner + "[ERROR] Failed to stat device \"" + path + "\": 2 (No such file or directory)\n" +
                         "[ERROR] Error while initializing device implementation: 2 (No such file or directory)\n"
                         "[ERROR] Failed to create fat_device: 2 (No such file or directory)\n");
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

} // namespace
