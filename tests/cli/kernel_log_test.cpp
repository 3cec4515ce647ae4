// The copy of each log line in the kernel log: the program's base name and
// real process id in front of the same text standard error shows, and the
// quiet switch-off when the kernel log cannot be written.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "cli/cli_texts.h"
#include "harness/process.h"
#include "harness/temp_files.h"
#include "support/qfs_logging.h"

namespace {

using qfs_test::banner;

// Reads the kernel log from the moment of construction on.
class kernel_log {
public:
    kernel_log() : fd_(open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
        if (fd_ >= 0 && lseek(fd_, 0, SEEK_END) < 0) {
            close(fd_);
            fd_ = -1;
        }
    }
    ~kernel_log() {
        if (fd_ >= 0) close(fd_);
    }
    kernel_log(const kernel_log &) = delete;
    kernel_log &operator=(const kernel_log &) = delete;
    bool readable() const { return fd_ >= 0; }

    // The messages of the new records that begin with `prefix`, in order.
    std::vector<std::string> messages(const std::string &prefix) {
        std::vector<std::string> found;
        char record[8192];
        for (;;) {
            const ssize_t got = read(fd_, record, sizeof(record));
            if (got < 0 && (errno == EINTR || errno == EPIPE)) continue; // EPIPE: older records were overwritten
            if (got <= 0) break;                                           // EAGAIN: nothing more yet
            // One record a read: "priority,sequence,timestamp,flags;message\n", maybe followed by " KEY=value" lines.
            const std::string text(record, static_cast<size_t>(got));
            const size_t start = text.find(';');
            if (start == std::string::npos) continue;
            const std::string message = text.substr(start + 1, text.find('\n', start) - start - 1);
            if (message.starts_with(prefix)) found.push_back(message);
        }
        return found;
    }

private:
    int fd_;
};

std::string log_prefix(const std::string &program, long pid) { return program + "[" + std::to_string(pid) + "]: "; }

TEST(KernelLog, ToolCopiesEachLogLineUnderItsBaseNameAndProcessId) {
    kernel_log log;
    if (!log.readable()) GTEST_SKIP() << "/dev/kmsg cannot be read here";
    qfs_test::temp_dir dir;
    const std::string absent = dir.file("absent.img");
    const std::string link = dir.file("card-formatter");
    ASSERT_EQ(symlink(qfs_test::tool_path().c_str(), link.c_str()), 0);
    const std::vector<std::string> lines = {
        "[ERROR] Failed to stat device \"" + absent + "\": 2 (No such file or directory)",
        "[ERROR] Error while initializing device implementation: 2 (No such file or directory)",
        "[ERROR] Failed to create fat_device: 2 (No such file or directory)",
    };
    struct program_case {
        std::string path;
        std::string name;
    };
    const program_case programs[] = {{qfs_test::tool_path(), "format_tarn"}, {link, "card-formatter"}};
    for (const auto &program : programs) {
        SCOPED_TRACE(program.path);
        const auto r = qfs_test::run_command({program.path, absent});
        EXPECT_EQ(r.exit_status, 1);
        EXPECT_EQ(r.err, banner + lines[0] + "\n" + lines[1] + "\n" + lines[2] + "\n");
        const std::string prefix = log_prefix(program.name, r.pid);
        EXPECT_EQ(log.messages(prefix),
                  (std::vector<std::string>{prefix + lines[0], prefix + lines[1], prefix + lines[2]}));
    }
}

class KernelLogInProcess : public testing::Test {
protected:
    void SetUp() override {
        qfs_log_set_program_name("qfs-log-probe");
        qfs_log_set_kmsg_enabled(true);
    }
    void TearDown() override {
        qfs_log_set_program_name(nullptr);
        qfs_log_set_kmsg_enabled(true);
    }
};

TEST_F(KernelLogInProcess, CriticalLineNamesFileLineAndFunction) {
    kernel_log log;
    testing::internal::CaptureStderr();
    const int line = __LINE__ + 1;
    QFS_LOG_CRITICAL("Internal error: probe value %d is out of range.", 42);
    const std::string err = testing::internal::GetCapturedStderr();
    const std::string located = "[CRITICAL <kernel_log_test.cpp:" + std::to_string(line) +
                                "> TestBody] Internal error: probe value 42 is out of range.";
    EXPECT_EQ(err, located + "\n");
    if (!log.readable()) GTEST_SKIP() << "/dev/kmsg cannot be read here; standard error checked";
    const std::string prefix = log_prefix("qfs-log-probe", getpid());
    EXPECT_EQ(log.messages(prefix), std::vector<std::string>{prefix + located});
}

// Child exit codes of the switch-off probe when its set-up fails.
enum : int { probe_ok = 0, probe_no_namespace = 10, probe_no_bind_mount = 11, probe_no_unmount = 12 };

TEST_F(KernelLogInProcess, UnwritableKernelLogSwitchesOffQuietlyForGood) {
    kernel_log log;
    if (!log.readable()) GTEST_SKIP() << "/dev/kmsg cannot be read here";
    qfs_test::temp_dir dir;
    const std::string blocker = dir.file("kmsg-blocker");
    qfs_test::make_sparse_image(blocker, 0);
    int err_pipe[2];
    ASSERT_EQ(pipe2(err_pipe, O_CLOEXEC), 0);
    // The child hides the kernel log behind a read-only bind mount in its own mount
    // namespace, logs once, uncovers it, and logs twice more around a switch-on.
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        dup2(err_pipe[1], STDERR_FILENO);
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            _exit(probe_no_namespace);
        if (mount(blocker.c_str(), "/dev/kmsg", nullptr, MS_BIND, nullptr) != 0 ||
            mount(nullptr, "/dev/kmsg", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0)
            _exit(probe_no_bind_mount);
        qfs_log_set_kmsg_enabled(true); // forget a descriptor the test process may hold
        QFS_LOG_ERROR("%s", "kernel log hidden");
        if (umount2("/dev/kmsg", MNT_DETACH) != 0) _exit(probe_no_unmount);
        QFS_LOG_ERROR("%s", "kernel log back, copy still off");
        qfs_log_set_kmsg_enabled(true);
        QFS_LOG_ERROR("%s", "copy switched on again");
        _exit(probe_ok);
    }
    close(err_pipe[1]);
    std::string err;
    char buffer[4096];
    for (ssize_t got; (got = read(err_pipe[0], buffer, sizeof(buffer))) != 0;) {
        if (got < 0) {
            if (errno == EINTR) continue;
            break;
        }
        err.append(buffer, static_cast<size_t>(got));
    }
    close(err_pipe[0]);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    switch (WEXITSTATUS(status)) {
    case probe_ok: break;
    case probe_no_namespace: GTEST_SKIP() << "no private mount namespace here";
    case probe_no_bind_mount: GTEST_SKIP() << "cannot bind-mount over /dev/kmsg here";
    default: FAIL() << "probe child ended with " << WEXITSTATUS(status);
    }
    // Standard error carries every line and not a word about the kernel log.
    EXPECT_EQ(err, "[ERROR] kernel log hidden\n"
                   "[ERROR] kernel log back, copy still off\n"
                   "[ERROR] copy switched on again\n");
    const std::string prefix = log_prefix("qfs-log-probe", child);
    EXPECT_EQ(log.messages(prefix), std::vector<std::string>{prefix + "[ERROR] copy switched on again"});
}

} // namespace
