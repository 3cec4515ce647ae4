// The tool as a system installs it: install rules, manual page, bash completion, Debian package.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "cli/cli_texts.h"
#include "cli/format_tarn_args.h"
#include "harness/loop_device.h"
#include "harness/process.h"
#include "harness/temp_files.h"
#include "support/qfs_unistr.h"

namespace {

namespace fs = std::filesystem;
using qfs_test::must_run;
using qfs_test::run_command;
using words = std::set<std::string>;

const std::string manual = QFS_SOURCE_DIR "/doc/format_tarn.8";
const std::string version = "1.0.3"; // as the banner shows it
// What the desktop front end adds to an install, in a tree configured with Qt 6.
#ifdef QFS_WITH_GUI
const std::map<std::string, unsigned> gui_files{{"bin/format_tarn_gui", 0755},
                                                {"share/applications/format_tarn_gui.desktop", 0644},
                                                {"share/icons/hicolor/scalable/apps/format_tarn_gui.svg", 0644},
                                                {"share/polkit-1/actions/org.tarncard.format-tarn.policy", 0644}};
#else
const std::map<std::string, unsigned> gui_files;
#endif

words words_of(const std::string &text) {
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

// Each option as the manual's tag names it ("-l, --volume-label volume label"), and into `names` each name.
words option_tags(words *names) {
    words tags;
    for (size_t i = 0; i < format_tarn_option_count; ++i) {
        const qfs_option &o = format_tarn_option_table[i];
        const std::string short_name = o.short_name ? std::string("-") + static_cast<char>(o.short_name) : "";
        const std::string long_name = o.long_name ? std::string("--") + o.long_name : "";
        if (short_name.empty() && long_name.empty()) continue; // the device
        names->insert({short_name, long_name});
        names->erase("");
        const std::string tag = short_name + (short_name.empty() || long_name.empty() ? "" : ", ") + long_name;
        tags.insert(o.kind == QFS_OPTION_FLAG ? tag : tag + " " + o.value_name);
    }
    return tags;
}

// What bash offers for the words after "format_tarn", the last being the one under the cursor.
words complete(std::vector<std::string> args) {
    args.insert(args.begin(), {"bash", "-c",
                               "source \"$1\" && [[ $(complete -p format_tarn) =~ -F\\ ([^ ]+) ]] || exit 1\n"
                               "function=${BASH_REMATCH[1]}; shift; COMP_WORDS=(format_tarn \"$@\"); COMP_CWORD=$#\n"
                               "$function format_tarn \"${COMP_WORDS[COMP_CWORD]}\" \"${COMP_WORDS[COMP_CWORD-1]}\"\n"
                               "printf '%s\\n' \"${COMPREPLY[@]}\"",
                               "bash", QFS_SOURCE_DIR "/doc/format_tarn.bash-completion"});
    const auto r = run_command(args);
    EXPECT_EQ(r.exit_status, 0) << r.err;
    return words_of(r.out);
}

TEST(Install, PutsTheToolItsManualAndItsCompletionUnderThePrefixAndNothingElse) {
    qfs_test::temp_dir prefix;
    must_run({QFS_CMAKE, "--install", QFS_BINARY_DIR, "--prefix", prefix.path()});
    std::map<std::string, unsigned> modes;
    for (const auto &entry : fs::recursive_directory_iterator(prefix.path())) {
        const fs::file_status status = entry.symlink_status();
        if (!fs::is_directory(status)) modes[fs::relative(entry, prefix.path())] = unsigned(status.permissions());
    }
    std::map<std::string, unsigned> expected{{"sbin/format_tarn", 0755},
                                             {"share/man/man8/format_tarn.8", 0644},
                                             {"share/bash-completion/completions/format_tarn", 0644}};
    for (const auto &[path, mode] : gui_files) expected[path] = mode;
    EXPECT_EQ(modes, expected);
    if (!gui_files.empty()) { // pkexec only runs the tool that the polkit action names
        std::ifstream policy(prefix.file("share/polkit-1/actions/org.tarncard.format-tarn.policy"));
        const std::string text{std::istreambuf_iterator<char>(policy), {}};
        EXPECT_NE(text.find(">" + prefix.file("sbin/format_tarn") + "</annotate>"), std::string::npos) << text;
    }
}

TEST(ManualPage, PassesGroffShowsTheUsageLineAndDocumentsEveryOption) {
    if (!qfs_test::have_program("groff")) GTEST_SKIP() << "groff is not installed";
    const auto check = run_command({"groff", "-man", "-ww", "-z", manual});
    EXPECT_EQ(check.err, "");
    EXPECT_EQ(check.exit_status, 0);
    const std::string shown = must_run({"groff", "-man", "-Tascii", "-P-cbou", "-rLL=200n", manual});
    const std::string usage = qfs_test::help_text.substr(qfs_test::help_text.find("usage: ") + 7);
    EXPECT_NE(shown.find("\n       " + usage), std::string::npos) << usage << shown;
    EXPECT_NE(shown.find("format_tarn " + version + " "), std::string::npos) << shown;

    // The line after each .TP of the OPTIONS section, without font changes and with plain hyphens.
    words tags, names;
    std::ifstream in(manual);
    bool options = false, tag_next = false;
    for (std::string line; std::getline(in, line); tag_next = options && line == ".TP") {
        if (line.starts_with(".SH")) options = line == ".SH OPTIONS";
        if (tag_next) tags.insert(std::regex_replace(std::regex_replace(line, std::regex(R"(\\f[BIRP])"), ""),
                                                     std::regex(R"(\\-)"), "-"));
    }
    EXPECT_EQ(tags, option_tags(&names));
}

TEST(Completion, OffersOptionsCodePagesAndNothingForALabel) {
    words names, code_pages;
    option_tags(&names);
    EXPECT_EQ(complete({"-"}), names);
    EXPECT_EQ(complete({"-v", "--tca-r"}), words{"--tca-relax"});
    for (uint32_t number = 1; number < 1000; ++number) {
        if (qfs_unistr_codepage_supported(number)) code_pages.insert(std::to_string(number));
    }
    EXPECT_EQ(complete({"--cp", ""}), code_pages);
    EXPECT_EQ(complete({"-l", ""}), words{});
}

TEST(Completion, OffersImagesFoldersAndWholeDisksButNoPartitionForTheDevice) {
    qfs_test::temp_dir dir;
    const std::string image = dir.file("disk.img");
    qfs_test::make_sparse_image(image, 8 << 20);
    mkdir(dir.file("cards").c_str(), 0755);
    mkfifo(dir.file("pipe").c_str(), 0644); // cannot hold a card
    EXPECT_EQ(complete({"-f", dir.path() + "/"}), (words{image, dir.file("cards")}));

    ASSERT_EQ(run_command({"sfdisk", "-q", image}, {{}, "2048,,83\n"}).exit_status, 0);
    QFS_ATTACH_LOOP_OR_SKIP(disk, image);
    disk->scan_partitions();
    ASSERT_TRUE(fs::is_block_file(disk->partition(1)));
    const words offered = complete({disk->path()});
    EXPECT_EQ(offered.count(disk->path()), 1u);
    EXPECT_EQ(offered.count(disk->partition(1)), 0u);
}

// Builds the package from this build tree, installs it, runs the tool from /usr/sbin, and purges it.
TEST(Package, InstallsWithDpkgAndLeavesNothingBehind) {
    if (geteuid() != 0 || !qfs_test::have_program("dpkg-shlibdeps"))
        GTEST_SKIP() << "installing the package needs root, building it dpkg-dev";
    if (run_command({"dpkg-query", "-W", "format-tarn"}).exit_status == 0 || fs::exists("/usr/sbin/format_tarn"))
        GTEST_SKIP() << "format_tarn is installed on this machine already; the test leaves it alone";
    qfs_test::temp_dir dir;
    must_run({QFS_CPACK, "-G", "DEB", "--config", QFS_BINARY_DIR "/CPackConfig.cmake", "-B", dir.path()});
    std::string architecture = must_run({"dpkg", "--print-architecture"});
    architecture.pop_back();
    const std::string deb = dir.file("format-tarn_" + version + "_" + architecture + ".deb");
    EXPECT_NE(must_run({"dpkg-deb", "-f", deb, "Depends"}).find("libc6 (>= "), std::string::npos);

    struct purge_at_end {
        ~purge_at_end() { run_command({"dpkg", "--purge", "format-tarn"}); }
    } purge;
    must_run({"dpkg", "-i", deb});
    EXPECT_EQ(run_command({"/usr/sbin/format_tarn", "--about"}).out, qfs_test::about_text);
    words files;
    for (const std::string &path : words_of(must_run({"dpkg", "-L", "format-tarn"}))) {
        if (!fs::is_directory(path)) files.insert(path);
    }
    words expected{"/usr/sbin/format_tarn", "/usr/share/man/man8/format_tarn.8",
                   "/usr/share/bash-completion/completions/format_tarn"};
    for (const auto &file : gui_files) expected.insert("/usr/" + file.first);
    EXPECT_EQ(files, expected);
    must_run({"dpkg", "--purge", "format-tarn"});
    for (const std::string &path : files) EXPECT_FALSE(fs::exists(fs::symlink_status(path))) << path;
}

} // namespace
