// A full overwrite keeps what the card has not taken yet small, so that the
// progress a user or a front end sees follows the card and not the page cache.
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

// The kernel's count of page-cache bytes waiting to be written, machine-wide.
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

TEST(WriteBack, OverwriteKeepsUnwrittenBytesSmallAndProgressSteady) {
    // 2 GiB of zeros: without write-back all of it would wait in memory, well
    // below the kernel's own limits on this machine. With it, the format holds
    // back at most its 32 MiB window; the rest of the margin is other processes.
    constexpr uint64_t bound = 512ull << 20;
    qfs_test::temp_dir dir;
    const std::string image = dir.file("card.img");
    qfs_test::make_sparse_image(image, 4194304ull * 512);
    std::atomic<bool> done{false};
    uint64_t peak = 0;
    std::thread sampler([&] {
        while (!done) {
            peak = std::max(peak, dirty_bytes());
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    const auto run = qfs_test::run_tool({"--overwrite", "--tca-relax", "--tca-formatter-progress", image});
    done = true;
    sampler.join();
    ASSERT_EQ(run.exit_status, 0) << run.err;
    EXPECT_LT(peak, bound);

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
    EXPECT_LE(biggest_step, 2u) << "progress moves a little at a time";
}

} // namespace
