// The copy of each log line in the kernel log: the program's base name and
// real process id in front of the same text standard error shows; a user who
// may not write the kernel log sees the same standard error and no complaint.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "cli/cli_texts.h"
#include "harness/process.h"
#include "harness/temp_files.h"

namespace {

// The messages of the kernel log records written since `fd` was opened at its end.
std::vector<std::string> kernel_log_since(int fd, const std::string &prefix) {
    std::vector<std::string> found;
    char record[8192];
    for (ssize_t got; (got = read(fd, record, sizeof(record))) != 0;) {
        if (got < 0 && (errno == EINTR || errno == EPIPE)) continue; // EPIPE: older records were overwritten
        if (got < 0) break;                                            // EAGAIN: nothing more yet
        // "priority,sequence,timestamp,flags;message\n", maybe followed by " KEY=value" lines.
        const std::string text(record, size_t(got));
        const size_t start = text.find(';') + 1;
        const std::string message = text.substr(start, text.find('\n', start) - start);
        if (message.starts_with(prefix)) found.push_back(message);
    }
    return found;
}

TEST(KernelLog, EachLineUnderTheProgramsBaseNameAndProcessId) {
    const int fd = open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0 || lseek(fd, 0, SEEK_END) < 0) GTEST_SKIP() << "/dev/kmsg cannot be read here";
    qfs_test::temp_dir dir;
    const std::string absent = "/nonexistent/card.img", link = dir.file("card-formatter");
    ASSERT_EQ(symlink(qfs_test::tool_path().c_str(), link.c_str()), 0);
    const std::vector<std::string> lines = {
        "[ERROR] Failed to stat device \"" + absent + "\": 2 (No such file or directory)",
        "[ERROR] Error while initializing device implementation: 2 (No such file or directory)",
        "[ERROR] Failed to create fat_device: 2 (No such file or directory)"};
    const std::string err = qfs_test::banner + lines[0] + "\n" + lines[1] + "\n" + lines[2] + "\n";
    struct program_case {
        std::vector<std::string> argv;
        std::string name; // empty: no kernel log lines
    };
    // A user without write access to /dev/kmsg (it is root's) gets no copy and no word about it.
    const program_case cases[] = {{{qfs_test::tool_path(), absent}, "format_tarn"},
                                  {{link, absent}, "card-formatter"},
                                  {{"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                                    qfs_test::tool_path(), absent}, ""}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.argv[0]);
        if (c.name.empty() && (geteuid() != 0 || !qfs_test::have_program("setpriv"))) continue;
        const auto r = qfs_test::run_command(c.argv);
        EXPECT_EQ(r.exit_status, 1);
        EXPECT_EQ(r.err, err);
        const std::string prefix = (c.name.empty() ? "format_tarn" : c.name) + "[" + std::to_string(r.pid) + "]: ";
        std::vector<std::string> expected;
        if (!c.name.empty()) expected = {prefix + lines[0], prefix + lines[1], prefix + lines[2]};
        // setpriv execs the tool, which keeps its process id.
        EXPECT_EQ(kernel_log_since(fd, prefix), expected);
    }
    close(fd);
}

} // namespace
