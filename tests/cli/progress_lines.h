// The machine-readable progress of a whole run, as a front end reads it.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <string>
#include <vector>

#include "harness/process.h"

namespace qfs_test {

// The "PROGRESS:p/100 text" lines rise to 100 and end there, and the writer's byte count came out even.
inline void expect_progress_completes(const run_result &r) {
    std::vector<int> percents;
    const std::regex line("PROGRESS:([0-9]+)/100 [^\n]*\n");
    for (auto it = std::sregex_iterator(r.out.begin(), r.out.end(), line); it != std::sregex_iterator(); ++it)
        percents.push_back(std::stoi((*it)[1]));
    ASSERT_FALSE(percents.empty());
    EXPECT_TRUE(std::is_sorted(percents.begin(), percents.end()));
    EXPECT_EQ(percents.back(), 100);
    EXPECT_EQ(r.out.size(), r.out.find('\n', r.out.rfind("PROGRESS:100/100")) + 1) << "nothing after 100";
    EXPECT_EQ(r.err.find("Progress mismatch"), std::string::npos) << r.err;
}

} // namespace qfs_test
