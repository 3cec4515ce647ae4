// A full overwrite keeps what the card has not taken yet small: it starts
// the write-back of every chunk and waits for whatever lies more than its
// 32 MiB window behind, so that the progress a user or a front end sees
// follows the card and not the page cache. Seen from outside with strace:
// the write-back requests, and the progress moving a little at a time. (How
// much memory that saves is a measurement; the README records it.) The
// kernel's count of dirty page-cache bytes is machine-wide, so it is checked
// only against a bound far below what the run would hold without write-back.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "harness/process.h"
#include "harness/temp_files.h"

namespace {

uint64_t dirty_bytes() {
    std::ifstream meminfo("/proc/meminfo");
    std::string key;
    uint64_t kib = 0;
    while (meminfo >> key) {
        if (key == "Dirty:" && meminfo >> kib) return kib * 1024;
        meminfo.ignore(256, '\n');
    }
    return 0;
}

TEST(WriteBack, OverwriteWaitsForTheCardAndProgressMovesALittleAtATime) {
    if (!qfs_test::have_program("strace")) GTEST_SKIP() << "strace is not installed";
    qfs_test::temp_dir dir;
    const std::string image = dir.file("card.img"), trace = dir.file("trace");
    qfs_test::make_sparse_image(image, 4194304ull * 512); // 2 GiB of zeros to write
    const uint64_t before = dirty_bytes();
    std::atomic<bool> done{false};
    uint64_t peak = before;
    std::thread sampler([&] {
        for (; !done; std::this_thread::sleep_for(std::chrono::milliseconds(20))) peak = std::max(peak, dirty_bytes());
    });
    // The leak checker of a sanitizer build cannot work under strace.
    const auto run = qfs_test::run_command({"strace", "-f", "-qq", "-e", "trace=sync_file_range", "-o", trace,
                                            qfs_test::tool_path(), "--overwrite", "--tca-relax",
                                            "--tca-formatter-progress", image},
                                           {{"ASAN_OPTIONS=detect_leaks=0"}, ""});
    done = true;
    sampler.join();
    // Without write-back the whole 2 GiB waits in memory on this machine.
    EXPECT_LT(peak - before, 512ull << 20) << "dirty page-cache bytes during the run";
    ASSERT_EQ(run.exit_status, 0) << run.err;
    std::ifstream calls(trace);
    size_t started = 0, waited = 0;
    for (std::string line; std::getline(calls, line);) {
        started += line.find("SYNC_FILE_RANGE_WRITE") != std::string::npos;
        waited += line.find("SYNC_FILE_RANGE_WAIT_AFTER") != std::string::npos;
    }
    EXPECT_GE(started, 2048u) << "one for each MiB written";
    EXPECT_GE(waited, 2048u / 32 - 1) << "at least one wait for each 32 MiB";

    std::istringstream lines(run.out);
    unsigned last = 0, biggest_step = 0;
    for (std::string line; std::getline(lines, line);) {
        unsigned percent = 0;
        if (sscanf(line.c_str(), "PROGRESS:%u/100", &percent) != 1) continue;
        EXPECT_GE(percent, last) << line;
        biggest_step = std::max(biggest_step, percent - std::min(percent, last));
        last = percent;
    }
    EXPECT_EQ(last, 100u);
    EXPECT_LE(biggest_step, 2u);
}

} // namespace
