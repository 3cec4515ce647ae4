#include "harness/loop_device.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>

#include "harness/process.h"

namespace qfs_test {

namespace {

// The reason loop devices cannot be used here, or empty when they can.
std::string loop_devices_unavailable() {
    if (geteuid() != 0) return "not running as root";
    if (access("/dev/loop-control", F_OK) != 0) return "/dev/loop-control is missing";
    if (!have_program("losetup")) return "losetup is not installed";
    return "";
}

} // namespace

bool held_exclusively(const std::string &path) {
    const int fd = open(path.c_str(), O_RDONLY | O_EXCL);
    if (fd >= 0) {
        close(fd);
        return false;
    }
    return errno == EBUSY;
}

std::unique_ptr<loop_device> loop_device::attach(const std::string &image, std::string *why_not, const options &how) {
    const std::string reason = loop_devices_unavailable();
    if (!reason.empty()) {
        *why_not = reason;
        return nullptr;
    }
    std::vector<std::string> losetup{"losetup", "--find", "--show"};
    if (how.read_only) losetup.push_back("--read-only");
    if (how.offset) losetup.insert(losetup.end(), {"--offset", std::to_string(how.offset)});
    if (how.sector_size) losetup.insert(losetup.end(), {"--sector-size", std::to_string(how.sector_size)});
    losetup.push_back(image);
    run_result r = run_command(losetup);
    if (r.exit_status != 0) {
        *why_not = "losetup failed: " + r.err;
        return nullptr;
    }
    std::string path = r.out;
    while (!path.empty() && (path.back() == '\n' || path.back() == ' ')) path.pop_back();
    return std::unique_ptr<loop_device>(new loop_device(path));
}

void loop_device::scan_partitions() {
    must_run({"partx", "-a", path_});
    partitions_scanned_ = true;
    if (have_program("udevadm")) run_command({"udevadm", "settle"});
}

std::string loop_device::mount(const std::string &device, const std::string &directory,
                               const std::string &options) {
    must_run({"mkdir", "-p", directory});
    if (options.empty()) {
        must_run({"mount", device, directory});
    } else {
        must_run({"mount", "-o", options, device, directory});
    }
    mount_points_.push_back(directory);
    return directory;
}

loop_device::~loop_device() {
    // Undo our own mounts first, then anything else that mounted this device or its partitions.
    for (auto it = mount_points_.rbegin(); it != mount_points_.rend(); ++it) {
        umount2(it->c_str(), MNT_DETACH);
    }
    std::ifstream mounts("/proc/mounts");
    std::string line;
    std::vector<std::string> others;
    while (std::getline(mounts, line)) {
        std::istringstream fields(line);
        std::string source, target;
        fields >> source >> target;
        if (source == path_ || source.rfind(path_ + "p", 0) == 0) others.push_back(target);
    }
    for (const auto &target : others) umount2(target.c_str(), MNT_DETACH);
    run_command({"partx", "-d", path_});
    run_command({"losetup", "-d", path_});
}

} // namespace qfs_test
