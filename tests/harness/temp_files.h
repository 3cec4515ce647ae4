// Temporary directories and sparse image files for tests.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qfs_test {

// A fresh directory, removed with everything in it when the object dies.
class temp_dir {
public:
    temp_dir();
    ~temp_dir();
    temp_dir(const temp_dir &) = delete;
    temp_dir &operator=(const temp_dir &) = delete;
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Creates (or truncates) a sparse file of `size` bytes.
void make_sparse_image(const std::string &path, uint64_t size);
// Creates a file of `size` bytes filled with `fill` (not sparse).
void make_filled_image(const std::string &path, uint64_t size, uint8_t fill);

std::vector<uint8_t> read_bytes(const std::string &path, uint64_t offset, size_t length);
void write_bytes(const std::string &path, uint64_t offset, const std::vector<uint8_t> &bytes);
uint64_t file_size(const std::string &path);

// A digest of a file's contents that is cheap for sparse files: only data
// extents are read, and all-zero blocks are skipped, so two files have equal
// fingerprints exactly when their bytes (and sizes) are equal.
std::string image_fingerprint(const std::string &path);

// True when some byte in [offset, offset + length) equals `value` (non-zero).
bool contains_byte(const std::string &path, uint64_t offset, uint64_t length, uint8_t value);
// True when every byte in [offset, offset + length) is zero.
bool all_zero(const std::string &path, uint64_t offset, uint64_t length);

} // namespace qfs_test
