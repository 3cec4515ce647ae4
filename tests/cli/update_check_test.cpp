// The update check with stand-in curl and wget programs on PATH.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "cli/cli_texts.h"
#include "harness/process.h"
#include "harness/temp_files.h"

namespace {

using qfs_test::banner;

const std::string fetching = "Fetching latest version information...\n";

struct check_case {
    const char *name;
    const char *program; // "curl", "wget", or a curl without execute permission
    const char *body;    // shell builtins only: PATH holds just the stand-in's folder
    int exit_status;
    std::string out, err; // after the fetching line and the banner
};

TEST(UpdateCheck, VerdictsAndFailures) {
    const std::string current = "The current version is 1.0.3.\n";
    const std::string download = "\nThe latest version can be downloaded at:\n"
                                 "\thttps://www.tarncard.org/downloads/formatter/\n\n";
    const std::string failed = "[ERROR] Error while checking for updates: ";
    const auto child = [&](const std::string &what) {
        return "[ERROR] Unexpected child process exit status.\nChild process " + what + "\n" + failed + "1 (QFS_ERR_UNKNOWN)\n";
    };
    const auto unparsed = [&](const std::string &what) {
        return "[ERROR] " + what + "\n[ERROR] Error while parsing the information about the latest version of the "
               "formatter: 4 (QFS_ERR_IO_ERROR)\n" + failed + "4 (QFS_ERR_IO_ERROR)\n";
    };
    const check_case cases[] = {
        {"newer", "curl",
         "case \"$*\" in *' https://www.tarncard.org/downloads/formatter/eula_linux/version.txt') printf '1.0.4\\n';; "
         "esac",
         0,
         "An update is available.\n" + current + "The latest version is 1.0.4.\n" + download, ""},
        {"older through wget", "wget", "printf '0.9.99\\n'", 0,
         "No update available.\n" + current + "The latest version is 0.9.99.\n", ""},
        {"no usable program", "curl-without-x", "printf '1.0.3\\n'", 1, "",
         "[ERROR] Could not find a usable wget or curl binary\n" + failed + "2 (No such file or directory)\n"},
        {"HTTP error", "curl", "exit 22", 1, "", child("exit status: 22 (HTTP protocol error when downloading data)")},
        {"unknown curl failure", "curl", "exit 99", 1, "", child("exit status: 99 (Unknown error)")},
        {"wget network failure", "wget", "exit 4", 1, "", child("exit status: 4 (Network failure)")},
        {"killed", "curl", "kill -9 $PPID", 1, "", child("was terminated by signal 9.")},
        {"two parts", "curl", "printf '2.0\\n'", 1, "", unparsed("Version number '2.0' is malformed")},
        {"a web page instead", "curl", "printf '<html><body>Not Found</body></html>\\n'", 1, "",
         unparsed("Version number is overlong and malformed")},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        qfs_test::temp_dir dir;
        const bool executable = std::string(c.program) != "curl-without-x";
        const std::string path = dir.file(executable ? c.program : "curl");
        std::ofstream(path) << "#!/bin/sh\n" << c.body << "\n";
        chmod(path.c_str(), executable ? 0755 : 0644);
        // A device argument is ignored.
        const auto r = qfs_test::run_tool({"--update-check", "/dev/does-not-matter"}, {{"PATH=" + dir.path()}, ""});
        EXPECT_EQ(r.exit_status, c.exit_status);
        EXPECT_EQ(r.out, (executable ? fetching : "") + c.out);
        EXPECT_EQ(r.err, banner + c.err);
    }
}

// Which program runs: the first PATH folder holding either wins, curl before
// wget inside one folder; empty, missing and non-folder elements are skipped.
TEST(UpdateCheck, ProgramChoiceFollowsPath) {
    qfs_test::temp_dir dir;
    const auto program = [&](const std::string &folder, const char *name, const char *version) {
        mkdir(dir.file(folder).c_str(), 0755);
        const std::string path = dir.file(folder + "/" + name);
        std::ofstream(path) << "#!/bin/sh\nprintf '" << version << "\\n'\n";
        chmod(path.c_str(), 0755);
        return dir.file(folder);
    };
    std::ofstream(dir.file("plain")) << "";
    const std::string later = program("later", "curl", "9.9.9"), first = program("first", "wget", "1.0.3");
    program("both", "wget", "9.9.9");
    const std::string both = program("both", "curl", "1.0.3");
    for (const std::string &path : {"::" + dir.file("missing") + ":" + dir.file("plain") + ":" + first + ":" + later, both}) {
        SCOPED_TRACE(path);
        const auto r = qfs_test::run_tool({"--update-check"}, {{"PATH=" + path}, ""});
        EXPECT_EQ(r.exit_status, 0) << r.err;
        EXPECT_NE(r.out.find("No update available."), std::string::npos) << r.out;
    }
}

} // namespace
