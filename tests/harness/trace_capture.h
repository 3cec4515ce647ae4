// Collects debug-trace lines while in scope (test builds compile the trace in).
#pragma once

#include <string>
#include <vector>

#include "support/qfs_logging.h"

namespace qfs_test {

#if defined(QFS_TRACE_ENABLED)
inline constexpr bool trace_compiled_in = true;
#else
inline constexpr bool trace_compiled_in = false;
#endif

class trace_capture {
public:
    trace_capture();
    ~trace_capture();
    trace_capture(const trace_capture &) = delete;
    trace_capture &operator=(const trace_capture &) = delete;
    const std::vector<std::string> &lines() const { return lines_; }
    bool contains(const std::string &fragment) const;
    size_t count(const std::string &fragment) const;

private:
    std::vector<std::string> lines_;
};

} // namespace qfs_test

#define QFS_SKIP_WITHOUT_TRACE()                                                    \
    do {                                                                            \
        if (!qfs_test::trace_compiled_in) GTEST_SKIP() << "debug trace compiled out"; \
    } while (0)
