// The update check with stand-in curl and wget programs on PATH.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "cli/cli_texts.h"
#include "cli/version.h"
#include "harness/process.h"
#include "harness/temp_files.h"
#include "support/qfs_memory.h"

namespace {

using qfs_test::banner;

const std::string url = "https://www.tarncard.org/downloads/formatter/eula_linux/version.txt";

class UpdateCheck : public testing::Test {
protected:
    qfs_test::temp_dir dir;
    // A program that records its arguments and answers with `body` (shell builtins only: PATH holds just our dirs).
    std::string program(const std::string &subdir, const std::string &name, const std::string &body, mode_t mode = 0755) {
        const std::string folder = dir.file(subdir);
        mkdir(folder.c_str(), 0755);
        const std::string path = folder + "/" + name;
        std::ofstream(path) << "#!/bin/sh\nprintf '%s\\n' \"$*\" > " << dir.file("args") << "\n" << body << "\n";
        chmod(path.c_str(), mode);
        return folder;
    }
    qfs_test::run_result check(const std::string &path_variable, std::vector<std::string> extra = {}) {
        std::vector<std::string> args{"--update-check"};
        args.insert(args.end(), extra.begin(), extra.end());
        return qfs_test::run_tool(args, {{"PATH=" + path_variable}, ""});
    }
    std::string recorded_arguments() {
        std::ifstream in(dir.file("args"));
        std::string line;
        std::getline(in, line);
        return line;
    }
};

TEST_F(UpdateCheck, NewerOlderAndEqualVersions) {
    struct version_case {
        const char *served;
        const char *verdict;
        bool download_line;
    };
    constexpr version_case cases[] = {
        {"1.0.4", "An update is available.\n", true},
        {"  1.1.0 and notes", "An update is available.\n", true},
        {"1.0.3", "No update available.\n", false},
        {"0.9.99", "No update available.\n", false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.served);
        const std::string bin = program("bin", "curl", std::string("printf '") + c.served + "\\n'");
        // A device argument is ignored.
        const auto r = check(bin, {"/dev/does-not-matter"});
        EXPECT_EQ(r.exit_status, 0) << r.err;
        // The served text is shown as it came, less trailing white space.
        const std::string latest = c.served;
        std::string expected = "Fetching latest version information...\n" + std::string(c.verdict) +
                               "The current version is 1.0.3.\nThe latest version is " + latest + ".\n";
        if (c.download_line) {
            expected += "\nThe latest version can be downloaded at:\n\thttps://www.tarncard.org/downloads/formatter/\n\n";
        }
        EXPECT_EQ(r.out, expected);
        EXPECT_EQ(r.err, banner);
        EXPECT_EQ(recorded_arguments(), "--silent --location --fail " + url);
    }
}

TEST_F(UpdateCheck, TheFirstDirectoryWithEitherProgramWins) {
    const std::string first = program("first", "wget", "printf '1.0.3\\n'");
    const std::string second = program("second", "curl", "printf '9.9.9\\n'");
    // Empty elements are skipped; missing and non-directory elements too.
    const auto r = check("::" + dir.file("missing") + ":" + dir.file("args") + ":" + first + ":" + second);
    EXPECT_EQ(r.exit_status, 0) << r.err;
    EXPECT_EQ(recorded_arguments(), "-q -O - " + url);
    EXPECT_NE(r.out.find("No update available."), std::string::npos);
    // Within one directory curl wins; a file without execute permission is not usable.
    program("both", "wget", "printf '1.0.3\\n'");
    const std::string both = program("both", "curl", "printf '1.0.3\\n'");
    EXPECT_EQ(check(both).exit_status, 0);
    EXPECT_EQ(recorded_arguments(), "--silent --location --fail " + url);
    const std::string locked = program("locked", "curl", "printf '1.0.3\\n'", 0644);
    const auto none = check(locked);
    EXPECT_EQ(none.exit_status, 1);
    EXPECT_EQ(none.err, banner + "[ERROR] Could not find a usable wget or curl binary\n"
                                 "[ERROR] Error while checking for updates: 2 (No such file or directory)\n");
}

TEST_F(UpdateCheck, FailuresExplainThemselves) {
    struct failure_case {
        const char *name;
        const char *body;
        std::string err;
    };
    const std::string unexpected = "[ERROR] Unexpected child process exit status.\n";
    const failure_case cases[] = {
        {"curl", "exit 22",
         unexpected + "Child process exit status: 22 (HTTP protocol error when downloading data)\n"
                      "[ERROR] Error while checking for updates: 1 (QFS_ERR_UNKNOWN)\n"},
        {"curl", "exit 99",
         unexpected + "Child process exit status: 99 (Unknown error)\n"
                      "[ERROR] Error while checking for updates: 1 (QFS_ERR_UNKNOWN)\n"},
        {"wget", "exit 4",
         unexpected + "Child process exit status: 4 (Network failure)\n"
                      "[ERROR] Error while checking for updates: 1 (QFS_ERR_UNKNOWN)\n"},
        // The shell that runs the program is killed.
        {"curl", "kill -9 $PPID",
         unexpected + "Child process was terminated by signal 9.\n"
                      "[ERROR] Error while checking for updates: 1 (QFS_ERR_UNKNOWN)\n"},
        {"curl", "printf '2.0\\n'",
         "[ERROR] Version number '2.0' is malformed\n"
         "[ERROR] Error while parsing the information about the latest version of the formatter: 4 "
         "(QFS_ERR_IO_ERROR)\n[ERROR] Error while checking for updates: 4 (QFS_ERR_IO_ERROR)\n"},
        {"curl", "printf '<html><body>Not Found</body></html>\\n'",
         "[ERROR] Version number is overlong and malformed\n"
         "[ERROR] Error while parsing the information about the latest version of the formatter: 4 "
         "(QFS_ERR_IO_ERROR)\n[ERROR] Error while checking for updates: 4 (QFS_ERR_IO_ERROR)\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.body);
        const auto r = check(program("bin", c.name, c.body));
        EXPECT_EQ(r.exit_status, 1);
        EXPECT_EQ(r.out, "Fetching latest version information...\n");
        EXPECT_EQ(r.err, banner + c.err);
        std::remove((dir.file("bin") + "/" + c.name).c_str());
    }
}

TEST(Version, TextAndRawForms) {
    int32_t raw = 0;
    ASSERT_EQ(format_parse_version(" 1.0.3\n", &raw), QFS_OK);
    EXPECT_EQ(raw, 10003);
    ASSERT_EQ(format_parse_version("12.34.56", &raw), QFS_OK);
    EXPECT_EQ(raw, 123456);
    testing::internal::CaptureStderr();
    EXPECT_EQ(format_parse_version("1.0", &raw), QFS_ERR_IO_ERROR);
    EXPECT_EQ(format_parse_version("1.\x01", &raw), QFS_ERR_IO_ERROR);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[ERROR] Version number '1.0' is malformed\n[ERROR] Version number is unprintable and malformed\n");
    EXPECT_EQ(raw, 123456) << "untouched on failure";

    char *text = nullptr;
    size_t length = 0;
    ASSERT_EQ(format_make_version_str(10003, &text, &length), QFS_OK);
    EXPECT_STREQ(text, "1.0.3");
    EXPECT_EQ(length, 5u);
    qfs_free(text);

    char small[4] = {};
    char *buffer = small;
    length = sizeof(small);
    testing::internal::CaptureStderr();
    EXPECT_EQ(format_make_version_str(10003, &buffer, &length), QFS_ERR_OVERFLOW);
    EXPECT_EQ(format_make_version_str(10003, &buffer, nullptr), QFS_ERR_INTERNAL_ERROR);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("[ERROR] Insufficient buffer size for version string\n"), std::string::npos) << err;
    EXPECT_NE(err.find("Internal error: buffer provided without length"), std::string::npos) << err;
}

} // namespace
