#include "harness/loop_device.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "harness/process.h"

namespace qfs_test {

bool held_exclusively(const std::string &path) {
    const int fd = open(path.c_str(), O_RDONLY | O_EXCL);
    if (fd >= 0) close(fd);
    return fd < 0 && errno == EBUSY;
}

bool flock_held(const std::string &path) {
    struct stat st{};
    if (stat(path.c_str(), &st) != 0) return false;
    char id[64];
    snprintf(id, sizeof(id), " %02x:%02x:%llu ", major(st.st_dev), minor(st.st_dev),
             static_cast<unsigned long long>(st.st_ino));
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);) {
        if (line.find(" FLOCK ") != std::string::npos && line.find(id) != std::string::npos) return true;
    }
    return false;
}

std::unique_ptr<loop_device> loop_device::attach(const std::string &image, std::string *why_not, const options &how) {
    *why_not = geteuid() != 0                              ? "not running as root"
               : access("/dev/loop-control", F_OK) != 0 ? "/dev/loop-control is missing"
               : !have_program("losetup")                 ? "losetup is not installed"
                                                          : "";
    if (!why_not->empty()) return nullptr;
    std::vector<std::string> losetup{"losetup", "--find", "--show", "--offset", std::to_string(how.offset)};
    if (how.read_only) losetup.push_back("--read-only");
    if (how.sector_size) losetup.insert(losetup.end(), {"--sector-size", std::to_string(how.sector_size)});
    losetup.push_back(image);
    const run_result r = run_command(losetup);
    if (r.exit_status != 0) *why_not = "losetup failed: " + r.err;
    return r.exit_status != 0 ? nullptr : std::unique_ptr<loop_device>(new loop_device(r.out.substr(0, r.out.find('\n'))));
}

void loop_device::scan_partitions() {
    must_run({"partx", "-a", path_});
    if (have_program("udevadm")) run_command({"udevadm", "settle"});
}

std::string loop_device::mount(const std::string &device, const std::string &directory, const std::string &options) {
    must_run({"mkdir", "-p", directory});
    must_run({"mount", "-o", options, device, directory});
    return directory;
}

loop_device::~loop_device() {
    // Every mount of this device or its partitions, the test's own and any other, newest first.
    std::ifstream mounts("/proc/mounts");
    std::vector<std::string> targets;
    for (std::string source, target, rest; mounts >> source >> target && std::getline(mounts, rest);)
        if (source == path_ || source.starts_with(path_ + "p")) targets.insert(targets.begin(), target);
    for (const auto &target : targets) umount2(target.c_str(), MNT_DETACH);
    run_command({"partx", "-d", path_});
    run_command({"losetup", "-d", path_});
}

} // namespace qfs_test
