// Shared pieces of the device tests: the owning device handle, a byte pattern
// that shows misplaced bytes, and a child process that holds a file.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "device/qfs_device.h"
#include "device/qfs_device_owner.h"
#include "support/qfs_logging.h"

namespace qfs_device_test {

// Closes and destroys the device when the test ends, also after a failed assertion.
using device_handle = qfs_device_owner;

// Creates the backend over `path` with `flags` and opens it.
inline void open_device(device_handle &device, const std::string &path, uint64_t flags) {
    ASSERT_EQ(qfs_device_create_default(path.c_str(), flags, device.receive()), QFS_OK);
    ASSERT_EQ(qfs_device_open(device, 0), QFS_OK);
}

using device_test = testing::Test;

// A byte sequence with period 251, so a byte moved by any power of two shows.
inline std::vector<uint8_t> pattern(size_t length, uint64_t first = 0) {
    std::vector<uint8_t> bytes(length);
    for (size_t i = 0; i < length; ++i) bytes[i] = static_cast<uint8_t>((first + i) % 251 + 1);
    return bytes;
}

// A forked child that takes hold of something (a lock, an exclusive open)
// and keeps it until this object dies; the child is always reaped.
class held_by_child {
public:
    // `hold` runs in the child and may only make async-signal-safe calls.
    template <typename Hold> explicit held_by_child(Hold hold) {
        int ready[2];
        if (pipe(ready) != 0) return;
        if ((pid_ = fork()) == 0) {
            const char answer = hold() ? 'y' : 'n';
            if (write(ready[1], &answer, 1) == 1) pause(); // until the owner kills it
            _exit(0);
        }
        close(ready[1]);
        char answer = 'n';
        holding_ = pid_ > 0 && read(ready[0], &answer, 1) == 1 && answer == 'y';
        close(ready[0]);
    }
    ~held_by_child() {
        if (pid_ > 0 && kill(pid_, SIGKILL) == 0) waitpid(pid_, nullptr, 0);
    }
    held_by_child(const held_by_child &) = delete;
    held_by_child &operator=(const held_by_child &) = delete;
    bool holding() const { return holding_; }

private:
    pid_t pid_ = -1;
    bool holding_ = false;
};

} // namespace qfs_device_test
