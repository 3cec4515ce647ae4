// A card image's partition as an image of its own, so that checkers from
// outside (fsck.exfat, fsck.fat) see the volume without a loop device and
// so without root.
#pragma once

#include <cstdint>
#include <string>

namespace qfs_test {

// Writes bytes [start, start + length) of `image` to `out`, sparse.
void cut_partition(const std::string &image, uint64_t start, uint64_t length, const std::string &out);

} // namespace qfs_test
