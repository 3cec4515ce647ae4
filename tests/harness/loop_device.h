// Loop devices over test images, detached (with every mount of them and
// their partitions undone) when the fixture object dies, also after a
// failed assertion.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace qfs_test {

struct loop_options {
    uint64_t offset = 0;      // first byte of the image the device shows (a partition seen on its own)
    bool read_only = false;   // write-protected by the kernel, like a card with its lock switch set
    uint32_t sector_size = 0; // logical sector size; 0 keeps the default of 512
};

class loop_device {
public:
    using options = loop_options;
    // Attaches `image`; null with `why_not` filled when loop devices cannot be had here.
    static std::unique_ptr<loop_device> attach(const std::string &image, std::string *why_not,
                                               const options &how = {});
    ~loop_device();
    loop_device(const loop_device &) = delete;
    loop_device &operator=(const loop_device &) = delete;

    const std::string &path() const { return path_; }
    // Path of partition n after scan_partitions().
    std::string partition(int n) const { return path_ + "p" + std::to_string(n); }
    // Makes the kernel create the partition devices (partx -a).
    void scan_partitions();
    // Mounts `device` (this device or one of its partitions) on a new directory with the
    // mount options given (at least "rw" or "ro"); undone at destruction.
    std::string mount(const std::string &device, const std::string &directory, const std::string &options);

private:
    explicit loop_device(std::string path) : path_(std::move(path)) {}
    std::string path_;
};

// True when an exclusive open fails with EBUSY: someone (a mount, a formatter,
// maybe the kernel) holds the block device.
// Whether some process holds a BSD lock on the device node, read from
// /proc/locks so that looking takes no lock or exclusive open of its own.
bool flock_held(const std::string &path);
bool held_exclusively(const std::string &path);

} // namespace qfs_test

// Attaches `image` as `var` (optionally with loop_device::options), or skips the test with the reason.
#define QFS_ATTACH_LOOP_OR_SKIP(var, image, ...)                                       \
    std::unique_ptr<qfs_test::loop_device> var;                                        \
    do {                                                                               \
        std::string why_not_;                                                          \
        var = qfs_test::loop_device::attach(image, &why_not_ __VA_OPT__(, ) __VA_ARGS__); \
        if (!var) GTEST_SKIP() << "loop devices unavailable: " << why_not_;            \
    } while (0)
