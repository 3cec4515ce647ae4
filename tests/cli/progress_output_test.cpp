// The monitor's output: size lines, machine-readable lines and the terminal bar.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <string>

#include "cli/format_options.h"
#include "cli/format_output.h"

namespace {

TEST(SizeLine, UnitsAndRounding) {
    struct size_case {
        uint64_t value;
        const char *line;
    };
    constexpr size_case cases[] = {
        {0, "\tCapacity: 0.0 B (0 bytes)\n"},
        {1023, "\tCapacity: 1023.0 B (1023 bytes)\n"},
        {1024, "\tCapacity: 1.0 kiB (1024 bytes)\n"},
        {1536, "\tCapacity: 1.5 kiB (1536 bytes)\n"},
        // 1048575 / 1024 = 1023.999: the tenths round up to 10, the unit stays kiB.
        {1048575, "\tCapacity: 1024.0 kiB (1048575 bytes)\n"},
        // 31914983424 / 2^30 = 29.72.
        {31914983424ull, "\tCapacity: 29.7 GiB (31914983424 bytes)\n"},
        {1ull << 60, "\tCapacity: 1.0 EiB (1152921504606846976 bytes)\n"},
        {UINT64_MAX, "\tCapacity: 16.0 EiB (18446744073709551615 bytes)\n"},
    };
    for (const auto &c : cases) {
        testing::internal::CaptureStderr();
        format_print_size_line("\tCapacity: ", c.value);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.line);
    }
}

class OutputModes : public testing::Test {
protected:
    void TearDown() override {
        format_output_release(&context_);
        format_tarn_options = format_options{};
    }
    format_output_context context_{};
};

TEST_F(OutputModes, MachineReadableLinesAreExactAndValuesAreKept) {
    format_tarn_options.tca_formatter_progress = 1;
    format_output_init(stdout, &context_);
    testing::internal::CaptureStdout();
    format_update_fstype(&context_, "exFAT");
    format_update_cluster_size(&context_, 131072);
    format_update_device_total_bytes(&context_, 34342961152ull);
    format_update_fs_total_bytes(&context_, 34326183936ull);
    format_update_fs_bytes_free(&context_, 34325790720ull);
    format_update_fslabel(&context_, "DEMO");
    format_update_fslabel(&context_, "DEMO"); // a repeated value is printed again
    format_update_progress(&context_, 7, "Writing boot region...");
    format_update_progress(&context_, 100, "Done?");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "FSTYPE:exFAT\nFSCLUSTERSIZE:131072\nDEVICETOTALBYTES:34342961152\nFSTOTALBYTES:34326183936\n"
              "FSBYTESFREE:34325790720\nFSLABEL:DEMO\nFSLABEL:DEMO\nPROGRESS:7/100 Writing boot region...\n"
              "PROGRESS:100/100 Done?\n");
    EXPECT_STREQ(context_.fs_type, "exFAT");
    EXPECT_EQ(context_.cluster_size, 131072u);
    EXPECT_EQ(context_.device_total_bytes, 34342961152ull);
    EXPECT_EQ(context_.fs_total_bytes, 34326183936ull);
    EXPECT_EQ(context_.fs_bytes_free, 34325790720ull);
    EXPECT_STREQ(context_.label, "DEMO");
}

TEST_F(OutputModes, NothingIsDrawnWithoutABar) {
    format_output_init(stdout, &context_);
    testing::internal::CaptureStdout();
    format_update_fstype(&context_, "exFAT");
    format_update_progress(&context_, 50, "Writing...");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_STREQ(context_.fs_type, "exFAT");
}

// A pseudo-terminal in raw mode, so the bytes read are the bytes drawn.
class TerminalBar : public testing::Test {
protected:
    void SetUp() override {
        struct winsize size {};
        size.ws_row = 24;
        size.ws_col = 80;
        ASSERT_EQ(openpty(&master_, &slave_, nullptr, nullptr, &size), 0);
        struct termios raw {};
        tcgetattr(slave_, &raw);
        cfmakeraw(&raw);
        tcsetattr(slave_, TCSANOW, &raw);
        stream_ = fdopen(slave_, "w");
        ASSERT_NE(stream_, nullptr);
        format_tarn_options.progress_bar = 1;
        format_output_init(stream_, &context_);
        ASSERT_EQ(get_window_size(&context_), QFS_OK);
    }
    void TearDown() override {
        format_output_release(&context_);
        format_tarn_options = format_options{};
        fclose(stream_);
        close(master_);
    }
    std::string drawn() {
        std::string out;
        char buffer[4096];
        fcntl(master_, F_SETFL, O_NONBLOCK);
        for (ssize_t n; (n = read(master_, buffer, sizeof(buffer))) > 0;) out.append(buffer, static_cast<size_t>(n));
        return out;
    }
    static std::string bar(int filled, bool partial, int width, int percent) {
        std::string cells = std::string(filled, '=') + (partial ? "-" : "");
        cells += std::string(width - cells.size(), ' ');
        char tail[16];
        snprintf(tail, sizeof(tail), "] %3d %%", percent);
        return "\r[" + cells + tail;
    }
    int master_ = -1, slave_ = -1;
    FILE *stream_ = nullptr;
    format_output_context context_{};
};

TEST_F(TerminalBar, CellsPercentAndCursor) {
    EXPECT_EQ(context_.columns, 80u);
    EXPECT_EQ(context_.rows, 24u);
    struct bar_case {
        uint32_t percent;
        const char *text;
        int filled;
        bool partial;
        const char *line_end;
    };
    // 80 columns leave 72 cells: 72 * p / 100 full cells, and a '-' when 72 * p is not a multiple of 100.
    constexpr bar_case cases[] = {
        {0, "Starting...", 0, false, "\r\x1b[A"},
        {1, "Writing...", 0, true, "\r\x1b[A"},        // 72 / 100 = 0, remainder 72
        {50, "Writing...", 36, false, "\r\x1b[A"},     // 3600 / 100 = 36 exactly
        {99, "Syncing device...", 71, true, "\r\x1b[A"}, // 7128: 71 and a partial cell
        {100, "Syncing device...", 72, false, "\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.percent);
        format_update_progress(&context_, c.percent, c.text);
        const std::string shown = c.percent > 99 ? "Done" : c.text;
        EXPECT_EQ(drawn(), "\r" + shown + "\x1b[0K\n" + bar(c.filled, c.partial, 72, static_cast<int>(c.percent)) +
                               c.line_end);
    }
}

TEST_F(TerminalBar, AWindowChangeTakesEffectAtTheNextCall) {
    // The window-change signal is unblocked by the set-up even when it was blocked before.
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGWINCH);
    ASSERT_EQ(sigprocmask(SIG_BLOCK, &blocked, nullptr), 0);
    ASSERT_EQ(format_setup_signal_handlers(), QFS_OK);
    sigset_t now;
    sigprocmask(SIG_BLOCK, nullptr, &now);
    EXPECT_FALSE(sigismember(&now, SIGWINCH));

    format_update_progress(&context_, 50, "Writing...");
    EXPECT_EQ(drawn(), "\rWriting...\x1b[0K\n" + bar(36, false, 72, 50) + "\r\x1b[A");

    struct winsize wider {};
    wider.ws_row = 30;
    wider.ws_col = 100;
    ASSERT_EQ(ioctl(master_, TIOCSWINSZ, &wider), 0);
    raise(SIGWINCH);
    EXPECT_TRUE(format_window_changed());
    format_update_progress(&context_, 50, "Writing...");
    EXPECT_EQ(drawn(), "\rWriting...\x1b[0K\n" + bar(46, false, 92, 50) + "\r\x1b[A");
    EXPECT_FALSE(format_window_changed());
    EXPECT_EQ(context_.columns, 100u);
    signal(SIGWINCH, SIG_DFL);
}

TEST_F(TerminalBar, NarrowTerminalsGetAnEmptyBar) {
    context_.columns = 5;
    format_update_progress(&context_, 40, "x");
    EXPECT_EQ(drawn(), "\rx\x1b[0K\n\r[]  40 %\r\x1b[A");
}

} // namespace
