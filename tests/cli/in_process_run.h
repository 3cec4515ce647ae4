// The main flow run inside the test process, so that its result code is seen
// before the exit status folds every failure into 1.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "cli/banner.h"
#include "cli/format_tarn.h"

namespace qfs_test {

struct in_process_result {
    qfs_result result = QFS_OK;
    std::string out;
    std::string err; // without the banner: a process prints it only once
};

// Runs `_qfs_main` with "format_tarn" and `args` as its argument vector.
// Standard output is captured into a file, so it is never a terminal here.
inline in_process_result run_main_flow(const std::vector<std::string> &args) {
    // The banner goes to nowhere once, so no capture below depends on test order.
    static const bool banner_spent = [] {
        FILE *nowhere = fopen("/dev/null", "w");
        if (nowhere == nullptr) return false;
        print_tca_header(nowhere);
        fclose(nowhere);
        return true;
    }();
    EXPECT_TRUE(banner_spent) << "cannot open /dev/null";

    std::vector<std::string> words{"format_tarn"};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (auto &word : words) argv.push_back(word.data());
    argv.push_back(nullptr);

    in_process_result r;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    r.result = _qfs_main(static_cast<int>(words.size()), argv.data());
    r.err = testing::internal::GetCapturedStderr();
    r.out = testing::internal::GetCapturedStdout();
    return r;
}

} // namespace qfs_test
