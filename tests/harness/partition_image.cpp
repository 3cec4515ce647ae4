#include "harness/partition_image.h"

#include "harness/process.h"

namespace qfs_test {

void cut_partition(const std::string &image, uint64_t start, uint64_t length, const std::string &out) {
    // A sparse copy with its head taken out costs nothing on file systems that
    // can collapse a range; elsewhere dd copies the partition, skipping zeros.
    must_run({"cp", "--sparse=always", image, out});
    if (run_command({"fallocate", "--collapse-range", "--offset", "0", "--length", std::to_string(start), out})
            .exit_status != 0) {
        must_run({"dd", "if=" + image, "of=" + out, "bs=1M", "iflag=skip_bytes,count_bytes", "conv=sparse",
                  "skip=" + std::to_string(start), "count=" + std::to_string(length), "status=none"});
    }
    must_run({"truncate", "--size", std::to_string(length), out});
}

} // namespace qfs_test
