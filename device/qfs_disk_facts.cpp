// One disk's facts from its sysfs folder "<sysfs>/block/<name>". The numbers
// that describe it (device number, removable mark, size, logical block size)
// and its attachment must all be readable, or the disk is QFS_DISK_UNKNOWN:
// a half-read disk is never taken for a card. Vendor, model, an MMC card's
// identity and a loop device's backing file are shown when present.
#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "device/qfs_disk_list_internal.h"
#include "support/qfs_fd.h"

namespace {

// The size entry counts 512-byte units whatever the disk's own sectors are.
constexpr uint64_t sysfs_sector_size = 512;

struct directory_closer {
    void operator()(DIR *directory) const { closedir(directory); }
};

bool parse_number(std::string_view text, uint64_t &value) {
    if (text.empty()) return false;
    uint64_t number = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return false;
        const auto digit = static_cast<uint64_t>(c - '0');
        if (number > (UINT64_MAX - digit) / 10) return false;
        number = number * 10 + digit;
    }
    value = number;
    return true;
}

bool read_number(const std::string &path, uint64_t limit, uint64_t &value) {
    std::string text;
    uint64_t number = 0;
    if (!qfs_disk_read_entry(path, text) || !parse_number(text, number) || number > limit) return false;
    value = number;
    return true;
}

bool read_device_number(const std::string &path, dev_t &number) {
    std::string text;
    return qfs_disk_read_entry(path, text) && qfs_disk_parse_device_number(text, number);
}

struct bus_marker {
    const char *prefix;
    bool numbered; // the component is the prefix followed by a number, as "usb1"
    uint32_t attachment;
};
// Folders of a device's bus path, in the order they decide: a USB card
// reader also sits below a SCSI host, an SD host may sit on USB.
constexpr bus_marker bus_markers[] = {
    {"mmc_host", false, QFS_DISK_MMC},         // an SD/MMC host controller
    {"usb", true, QFS_DISK_USB},               // a USB bus
    {"nvme", true, QFS_DISK_NVME},             // an NVMe controller
    {"nvme-subsys", true, QFS_DISK_NVME},      // the same with native multipath
    {"virtio", true, QFS_DISK_VIRTIO},         // a virtio device of a virtual machine
    {"ata", true, QFS_DISK_SATA},              // an ATA port
    {"host", true, QFS_DISK_SCSI},             // any other SCSI host
};

bool component_is(std::string_view component, const bus_marker &marker) {
    const std::string_view prefix(marker.prefix);
    if (!marker.numbered) return component == prefix;
    if (component.size() <= prefix.size() || !component.starts_with(prefix)) return false;
    for (const char c : component.substr(prefix.size())) {
        if (!isdigit(static_cast<unsigned char>(c))) return false;
    }
    return true;
}

uint32_t attachment_of_bus_path(std::string_view bus_path) {
    for (const auto &marker : bus_markers) {
        size_t start = 0;
        while (start <= bus_path.size()) {
            size_t end = bus_path.find('/', start);
            if (end == std::string_view::npos) end = bus_path.size();
            if (component_is(bus_path.substr(start, end - start), marker)) return marker.attachment;
            start = end + 1;
        }
    }
    return QFS_DISK_OTHER;
}

struct name_marker {
    const char *prefix;
    uint32_t attachment;
};
// Disks without a device link live in the kernel's virtual tree; their names say what they are.
constexpr name_marker virtual_names[] = {
    {"loop", QFS_DISK_LOOP}, {"md", QFS_DISK_MD}, {"dm-", QFS_DISK_DEVICE_MAPPER},
    {"zram", QFS_DISK_RAM},  {"ram", QFS_DISK_RAM},
};

// From the bus path the device link resolves to, or from the name when there is no link.
// False when the link is there but leads nowhere.
bool read_attachment(const std::string &folder, std::string_view sysfs_real, const std::string &name,
                     uint32_t &attachment) {
    const std::string link = folder + "/device";
    struct stat info {};
    if (lstat(link.c_str(), &info) != 0) {
        if (errno != ENOENT) return false;
        attachment = QFS_DISK_OTHER;
        for (const auto &marker : virtual_names) {
            if (name.starts_with(marker.prefix)) {
                attachment = marker.attachment;
                break;
            }
        }
        return true;
    }
    char resolved[PATH_MAX];
    if (realpath(link.c_str(), resolved) == nullptr) return false;
    std::string_view bus_path(resolved);
    // Only the part below the root decides: a test's tree may sit in any folder.
    if (bus_path.starts_with(sysfs_real)) bus_path.remove_prefix(sysfs_real.size());
    attachment = attachment_of_bus_path(bus_path);
    return true;
}

// The disk's own node and every partition folder's, each with its device path.
void read_nodes(const std::string &folder, const char *dev_root, qfs_disk_record &disk) {
    if (disk.number != 0) disk.nodes.emplace_back(disk.number, disk.path);
    std::unique_ptr<DIR, directory_closer> directory(opendir(folder.c_str()));
    if (!directory) return;
    while (const struct dirent *entry = readdir(directory.get())) {
        const std::string partition = folder + "/" + entry->d_name;
        dev_t number = 0;
        if (entry->d_name[0] == '.' || access((partition + "/partition").c_str(), F_OK) != 0 ||
            !read_device_number(partition + "/dev", number)) {
            continue;
        }
        disk.nodes.emplace_back(number, std::string(dev_root) + "/" + entry->d_name);
    }
}

} // namespace

bool qfs_disk_parse_device_number(std::string_view text, dev_t &number) {
    const size_t colon = text.find(':');
    uint64_t major_number = 0, minor_number = 0;
    if (colon == std::string_view::npos || !parse_number(text.substr(0, colon), major_number) ||
        !parse_number(text.substr(colon + 1), minor_number) || major_number > UINT32_MAX ||
        minor_number > UINT32_MAX) {
        return false;
    }
    number = makedev(static_cast<unsigned>(major_number), static_cast<unsigned>(minor_number));
    return true;
}

bool qfs_disk_read_entry(const std::string &path, std::string &text) {
    const qfs_unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) return false;
    // The longest entry read is a loop device's backing file, a path.
    char buffer[PATH_MAX];
    size_t length = 0;
    while (length < sizeof(buffer)) {
        const ssize_t got = read(fd.get(), buffer + length, sizeof(buffer) - length);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return false; // a folder, or an attribute the driver cannot answer
        if (got == 0) break;
        length += static_cast<size_t>(got);
    }
    // SCSI pads vendor and model with blanks; every entry ends in a newline.
    while (length > 0 && isspace(static_cast<unsigned char>(buffer[length - 1]))) --length;
    text.assign(buffer, length);
    return true;
}

void qfs_disk_read(const qfs_system_paths &paths, const std::string &sysfs_real, const std::string &name,
                   qfs_disk_record &disk) {
    const std::string folder = std::string(paths.sysfs_root) + "/block/" + name;
    disk.name = name;
    disk.path = std::string(paths.dev_root) + "/" + name;
    dev_t number = 0;
    if (read_device_number(folder + "/dev", number)) disk.number = number;
    uint64_t removable = 0, sectors = 0, block_size = 0;
    uint32_t attachment = QFS_DISK_UNKNOWN;
    if (disk.number != 0 && read_number(folder + "/removable", 1, removable) &&
        read_number(folder + "/size", UINT64_MAX / sysfs_sector_size, sectors) &&
        read_number(folder + "/queue/logical_block_size", UINT32_MAX, block_size) &&
        read_attachment(folder, sysfs_real, name, attachment)) {
        disk.attachment = attachment;
        disk.removable = removable == 1;
        disk.size_bytes = sectors * sysfs_sector_size;
        disk.logical_block_size = static_cast<uint32_t>(block_size);
    }
    qfs_disk_read_entry(folder + "/device/vendor", disk.vendor);
    qfs_disk_read_entry(folder + "/device/model", disk.model);
    if (disk.attachment == QFS_DISK_MMC) {
        qfs_disk_read_entry(folder + "/device/name", disk.card_name);
        qfs_disk_read_entry(folder + "/device/manfid", disk.card_manfid);
        qfs_disk_read_entry(folder + "/device/oemid", disk.card_oemid);
        qfs_disk_read_entry(folder + "/device/date", disk.card_date);
    }
    if (disk.attachment == QFS_DISK_LOOP) qfs_disk_read_entry(folder + "/loop/backing_file", disk.backing_file);
    read_nodes(folder, paths.dev_root, disk);
}
