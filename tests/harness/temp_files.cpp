#include "harness/temp_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace qfs_test {

namespace {

std::runtime_error failure(const std::string &what) { return std::runtime_error(what + ": " + strerror(errno)); }

// Calls f(position, bytes, count) over the data of [offset, offset + length) in
// 1 MiB blocks until it answers false. Holes read as zeros and are skipped, so
// big sparse cards cost only what was written.
template <typename F> void for_each_block(const std::string &path, uint64_t offset, uint64_t length, F f) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw failure("open " + path);
    std::vector<std::pair<uint64_t, uint64_t>> extents;
    const uint64_t end = offset + length;
    for (off_t data; offset < end && (data = lseek(fd, off_t(offset), SEEK_DATA)) >= 0 && uint64_t(data) < end;) {
        offset = std::min<uint64_t>(lseek(fd, data, SEEK_HOLE), end);
        extents.emplace_back(data, offset);
    }
    close(fd);
    std::ifstream in(path, std::ios::binary);
    std::vector<char> block(1 << 20);
    for (auto [p, stop] : extents)
        for (uint64_t n; p < stop; p += n) {
            n = std::min<uint64_t>(block.size(), stop - p);
            if (!in.seekg(off_t(p)).read(block.data(), std::streamsize(n))) throw failure("read " + path);
            if (!f(p, reinterpret_cast<const uint8_t *>(block.data()), size_t(n))) return;
        }
}

} // namespace

temp_dir::temp_dir() {
    std::string pattern = (fs::temp_directory_path() / "qfs-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw failure("mkdtemp");
    path_ = pattern;
}

temp_dir::~temp_dir() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

void make_sparse_image(const std::string &path, uint64_t size) {
    std::ofstream(path, std::ios::binary | std::ios::trunc);
    fs::resize_file(path, size);
}

void make_filled_image(const std::string &path, uint64_t size, uint8_t fill) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    const std::vector<char> block(1 << 20, char(fill));
    for (uint64_t p = 0; p < size; p += block.size()) out.write(block.data(), std::streamsize(std::min<uint64_t>(block.size(), size - p)));
    if (!out.flush()) throw failure("write " + path);
}

std::vector<uint8_t> read_bytes(const std::string &path, uint64_t offset, size_t length) {
    std::ifstream in(path, std::ios::binary);
    std::vector<uint8_t> bytes(length);
    if (!in.seekg(off_t(offset))) throw failure("open " + path);
    in.read(reinterpret_cast<char *>(bytes.data()), std::streamsize(length));
    bytes.resize(size_t(in.gcount()));
    return bytes;
}

void write_bytes(const std::string &path, uint64_t offset, const std::vector<uint8_t> &bytes) {
    std::fstream out(path, std::ios::binary | std::ios::in | std::ios::out);
    out.seekp(off_t(offset)).write(reinterpret_cast<const char *>(bytes.data()), std::streamsize(bytes.size()));
    if (!out.flush()) throw failure("write " + path);
}

uint64_t file_size(const std::string &path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) throw failure("stat " + path);
    return uint64_t(st.st_size);
}

std::string image_fingerprint(const std::string &path) {
    // FNV-1a over the size, then each non-zero 4 KiB granule's position and bytes
    // (the card digests are written in it).
    uint64_t digest = 1469598103934665603ull;
    const auto add = [&](const void *data, size_t length) {
        for (size_t i = 0; i < length; ++i) digest = (digest ^ static_cast<const uint8_t *>(data)[i]) * 1099511628211ull;
    };
    const uint64_t size = file_size(path);
    add(&size, sizeof(size));
    constexpr size_t granule = 4096;
    for_each_block(path, 0, size, [&](uint64_t position, const uint8_t *data, size_t length) {
        for (size_t i = 0; i < length; i += granule) {
            const size_t n = std::min(granule, length - i);
            if (std::all_of(data + i, data + i + n, [](uint8_t b) { return b == 0; })) continue;
            const uint64_t at = position + i;
            add(&at, sizeof(at));
            add(data + i, n);
        }
        return true;
    });
    char text[17];
    snprintf(text, sizeof(text), "%016llx", static_cast<unsigned long long>(digest));
    return text;
}

bool contains_byte(const std::string &path, uint64_t offset, uint64_t length, uint8_t value) {
    if (value == 0) throw std::invalid_argument("contains_byte looks for non-zero bytes; use all_zero");
    bool found = false;
    for_each_block(path, offset, length, [&](uint64_t, const uint8_t *data, size_t n) {
        return !(found = memchr(data, value, n) != nullptr);
    });
    return found;
}

bool all_zero(const std::string &path, uint64_t offset, uint64_t length) {
    bool zero = true;
    for_each_block(path, offset, length, [&](uint64_t, const uint8_t *data, size_t n) {
        return zero = std::all_of(data, data + n, [](uint8_t b) { return b == 0; });
    });
    return zero;
}

} // namespace qfs_test
