#include "harness/trace_capture.h"

namespace qfs_test {

#if defined(QFS_TRACE_ENABLED)
namespace {
void collect(void *context, const char *, const char *message) {
    static_cast<std::vector<std::string> *>(context)->push_back(message);
}
} // namespace
trace_capture::trace_capture() { qfs_trace_set_hook(collect, &lines_); }
trace_capture::~trace_capture() { qfs_trace_set_hook(nullptr, nullptr); }
#else
trace_capture::trace_capture() = default;
trace_capture::~trace_capture() = default;
#endif

bool trace_capture::contains(const std::string &fragment) const { return count(fragment) > 0; }

size_t trace_capture::count(const std::string &fragment) const {
    size_t n = 0;
    for (const auto &line : lines_) n += line.find(fragment) != std::string::npos;
    return n;
}

} // namespace qfs_test
