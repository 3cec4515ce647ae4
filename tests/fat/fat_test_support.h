// Shared pieces of the FAT tests: a card's layout, a volume opened with the
// reader, and fsck.fat's verdict.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "fat/format_layout.h"
#include "fat/format_structures.h"
#include "fat/volume.h"
#include "harness/device_handle.h"
#include "harness/process.h"
#include "harness/recorded_monitor.h"
#include "harness/temp_files.h"

namespace fat_test {

inline uint32_t le(const std::vector<uint8_t> &b, size_t at, int bytes) {
    uint32_t v = 0;
    for (int i = bytes - 1; i >= 0; --i)
        v = v << 8 | b[at + i];
    return v;
}

inline bool all_zero(const std::vector<uint8_t> &b, size_t at, size_t length) {
    return std::all_of(b.begin() + long(at), b.begin() + long(at + length), [](uint8_t v) { return v == 0; });
}

// A whole-card plan for a card of `sectors` 512-byte sectors, with a device
// that answers nothing but its size. Messages go to `monitor`, or nowhere.
inline qfs_result plan_card(uint64_t sectors, bool relax, fat_layout *out, const format_monitor *monitor = nullptr) {
    const qfs_exfat_test::recorded_monitor quiet;
    if (monitor == nullptr) monitor = quiet.get();
    fat_tca_record card{};
    const qfs_result r = fat_format_get_tca_param(sectors, &card.row, &card.fat_type, &card.partition_start_sector,
                                                  &card.partition_sector_count, true, relax, false, monitor);
    if (r != QFS_OK) return r;
    fat_format_request request{};
    request.tca_whole = true;
    request.tca_relax = relax;
    const fat_device_facts facts{512, sectors, QFS_ERR_SYS_IO, 0, QFS_ERR_SYS_IO, 0, QFS_ERR_SYS_IO, 0};
    return fat_format_plan_layout(request, facts, &card, monitor, out);
}

// Opens `image` with the reader; the handles close on every path.
class opened_volume {
  public:
    explicit opened_volume(const std::string &image) : image_(image) {}
    ~opened_volume() {
        if (volume_ != nullptr) fat_volume_destroy(&volume_);
    }
    qfs_result open(uint32_t codepage = 437) {
        qfs_result r = qfs_device_create_default(image_.c_str(), QFS_DEVICE_FLAG_READ_ONLY, device_.receive());
        if (r == QFS_OK) r = qfs_device_open(device_, 0);
        if (r == QFS_OK) r = fat_volume_create(device_, codepage << FAT_VOLUME_CODEPAGE_SHIFT, &volume_);
        return r;
    }
    fat_volume_info info() const {
        fat_volume_info i{};
        EXPECT_EQ(fat_volume_get_info(volume_, &i), QFS_OK);
        return i;
    }

  private:
    std::string image_;
    qfs_device_test::device_handle device_;
    fat_volume *volume_ = nullptr;
};

// `fsck.fat -n -v` on an image: its exit status and its "used/total clusters" figures.
struct fsck_report {
    int status = -1;
    uint64_t used = 0, total = 0;
    std::string output;
};
inline fsck_report run_fsck(const std::string &image) {
    const qfs_test::run_result run = qfs_test::run_command({"fsck.fat", "-n", "-v", image});
    fsck_report report{run.exit_status, 0, 0, run.out + run.err};
    const size_t slash = run.out.rfind(" clusters");
    const size_t line = run.out.rfind(", ", slash);
    if (slash != std::string::npos && line != std::string::npos) {
        unsigned long used = 0, total = 0;
        if (sscanf(run.out.c_str() + line + 2, "%lu/%lu", &used, &total) == 2)
            report = {run.exit_status, used, total, report.output};
    }
    return report;
}

} // namespace fat_test
