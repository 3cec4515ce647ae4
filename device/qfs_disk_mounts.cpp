// Which disks are mounted, from the mount table by device number. The
// lines of /proc/self/mountinfo carry the number of each mount's device, so
// no device node is looked up: a mount made through another path to the same
// device (a symlink, a by-id name) is found all the same.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "device/qfs_disk_list_internal.h"

namespace {

struct file_closer {
    void operator()(FILE *file) const { fclose(file); }
};
// getline's buffer, which it grows as it reads.
struct line_buffer {
    char *text = nullptr;
    size_t capacity = 0;
    ~line_buffer() { free(text); }
};

// Up to `count` fields of a line, split at blanks; false when the line has fewer.
bool split_fields(std::string_view line, std::string_view *fields, size_t count) {
    size_t start = 0;
    for (size_t i = 0; i < count; ++i) {
        const size_t end = line.find(' ', start);
        if (end == std::string_view::npos && i + 1 < count) return false;
        fields[i] = line.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
        start = end + 1;
    }
    return true;
}

// The table writes a blank, tab, newline or backslash in a path as a backslash and three octal digits.
std::string unescape(std::string_view field) {
    std::string text;
    for (size_t i = 0; i < field.size(); ++i) {
        const auto octal = [&](size_t k) { return field[k] >= '0' && field[k] <= '7'; };
        if (field[i] == '\\' && i + 3 < field.size() && octal(i + 1) && octal(i + 2) && octal(i + 3)) {
            text += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0'));
            i += 3;
        } else {
            text += field[i];
        }
    }
    return text;
}

void add_mount(std::vector<qfs_disk_record> &disks, dev_t number, std::string_view mount_point) {
    for (auto &disk : disks) {
        for (const auto &[node, device] : disk.nodes) {
            if (node == number) disk.mounts.emplace_back(device, unescape(mount_point));
        }
    }
}

} // namespace

void qfs_disk_read_mounts(const char *mount_table, std::vector<qfs_disk_record> &disks) {
    const std::unique_ptr<FILE, file_closer> table(fopen(mount_table, "re"));
    if (!table) return;
    line_buffer buffer;
    ssize_t length = 0;
    while ((length = getline(&buffer.text, &buffer.capacity, table.get())) >= 0) {
        std::string_view line(buffer.text, static_cast<size_t>(length));
        if (line.ends_with('\n')) line.remove_suffix(1);
        // Mount id, parent id, device number, root within the file system, mount point.
        std::string_view fields[5];
        dev_t number = 0;
        if (split_fields(line, fields, 5) && qfs_disk_parse_device_number(fields[2], number)) {
            add_mount(disks, number, fields[4]);
        }
    }
}
