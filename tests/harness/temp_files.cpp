#include "harness/temp_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace qfs_test {

namespace {

[[noreturn]] void fail(const std::string &what) {
    throw std::runtime_error(what + ": " + strerror(errno));
}

struct fd_owner {
    int fd;
    explicit fd_owner(int f) : fd(f) {}
    ~fd_owner() {
        if (fd >= 0) close(fd);
    }
};

int open_or_fail(const std::string &path, int flags, mode_t mode = 0644) {
    const int fd = open(path.c_str(), flags | O_CLOEXEC, mode);
    if (fd < 0) fail("open " + path);
    return fd;
}

// FNV-1a, enough to tell contents apart in tests.
struct digest {
    uint64_t value = 1469598103934665603ull;
    void add(const void *data, size_t length) {
        const auto *bytes = static_cast<const uint8_t *>(data);
        for (size_t i = 0; i < length; ++i) {
            value ^= bytes[i];
            value *= 1099511628211ull;
        }
    }
};

template <typename F> void for_each_block(const std::string &path, uint64_t offset, uint64_t length, F f) {
    fd_owner file(open_or_fail(path, O_RDONLY));
    std::vector<uint8_t> block(1 << 20);
    uint64_t position = offset;
    const uint64_t end = offset + length;
    while (position < end) {
        off_t data = lseek(file.fd, static_cast<off_t>(position), SEEK_DATA);
        if (data < 0) break; // only a hole remains
        if (static_cast<uint64_t>(data) >= end) break;
        off_t hole = lseek(file.fd, data, SEEK_HOLE);
        const uint64_t extent_end = std::min<uint64_t>(static_cast<uint64_t>(hole), end);
        for (uint64_t p = static_cast<uint64_t>(data); p < extent_end;) {
            const size_t chunk = static_cast<size_t>(std::min<uint64_t>(block.size(), extent_end - p));
            const ssize_t got = pread(file.fd, block.data(), chunk, static_cast<off_t>(p));
            if (got <= 0) fail("pread " + path);
            if (!f(p, block.data(), static_cast<size_t>(got))) return;
            p += static_cast<uint64_t>(got);
        }
        position = extent_end;
    }
}

} // namespace

temp_dir::temp_dir() {
    const char *base = getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/qfs-test-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) fail("mkdtemp");
    path_ = buffer.data();
}

temp_dir::~temp_dir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void make_sparse_image(const std::string &path, uint64_t size) {
    fd_owner file(open_or_fail(path, O_RDWR | O_CREAT | O_TRUNC));
    if (ftruncate(file.fd, static_cast<off_t>(size)) != 0) fail("ftruncate " + path);
}

void make_filled_image(const std::string &path, uint64_t size, uint8_t fill) {
    fd_owner file(open_or_fail(path, O_RDWR | O_CREAT | O_TRUNC));
    std::vector<uint8_t> block(1 << 20, fill);
    for (uint64_t p = 0; p < size;) {
        const size_t chunk = static_cast<size_t>(std::min<uint64_t>(block.size(), size - p));
        if (pwrite(file.fd, block.data(), chunk, static_cast<off_t>(p)) != static_cast<ssize_t>(chunk))
            fail("pwrite " + path);
        p += chunk;
    }
}

std::vector<uint8_t> read_bytes(const std::string &path, uint64_t offset, size_t length) {
    fd_owner file(open_or_fail(path, O_RDONLY));
    std::vector<uint8_t> bytes(length);
    size_t done = 0;
    while (done < length) {
        const ssize_t got = pread(file.fd, bytes.data() + done, length - done, static_cast<off_t>(offset + done));
        if (got < 0) fail("pread " + path);
        if (got == 0) break;
        done += static_cast<size_t>(got);
    }
    bytes.resize(done);
    return bytes;
}

void write_bytes(const std::string &path, uint64_t offset, const std::vector<uint8_t> &bytes) {
    fd_owner file(open_or_fail(path, O_WRONLY));
    if (pwrite(file.fd, bytes.data(), bytes.size(), static_cast<off_t>(offset)) !=
        static_cast<ssize_t>(bytes.size()))
        fail("pwrite " + path);
}

uint64_t file_size(const std::string &path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) fail("stat " + path);
    return static_cast<uint64_t>(st.st_size);
}

std::string image_fingerprint(const std::string &path) {
    digest d;
    const uint64_t size = file_size(path);
    d.add(&size, sizeof(size));
    constexpr size_t granule = 4096;
    for_each_block(path, 0, size, [&](uint64_t position, const uint8_t *data, size_t length) {
        for (size_t i = 0; i < length; i += granule) {
            const size_t n = std::min(granule, length - i);
            bool zero = true;
            for (size_t k = 0; k < n && zero; ++k) zero = data[i + k] == 0;
            if (zero) continue;
            const uint64_t at = position + i;
            d.add(&at, sizeof(at));
            d.add(data + i, n);
        }
        return true;
    });
    char text[32];
    snprintf(text, sizeof(text), "%016llx", static_cast<unsigned long long>(d.value));
    return text;
}

bool contains_byte(const std::string &path, uint64_t offset, uint64_t length, uint8_t value) {
    bool found = false;
    if (value == 0) throw std::invalid_argument("contains_byte looks for non-zero bytes; use all_zero");
    for_each_block(path, offset, length, [&](uint64_t, const uint8_t *data, size_t n) {
        found = memchr(data, value, n) != nullptr;
        return !found;
    });
    return found;
}

bool all_zero(const std::string &path, uint64_t offset, uint64_t length) {
    bool zero = true;
    for_each_block(path, offset, length, [&](uint64_t, const uint8_t *data, size_t n) {
        for (size_t i = 0; i < n && zero; ++i) zero = data[i] == 0;
        return zero;
    });
    return zero;
}

} // namespace qfs_test
