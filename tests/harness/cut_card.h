// A card as a power cut left it: an image with some of a recorded run's
// writes laid over it in their order, seen through a read-only device. The
// image itself is never written.
#pragma once

#include <string>
#include <vector>

#include "harness/device_handle.h"
#include "harness/recording_device.h"

namespace qfs_test {

class cut_card {
public:
    cut_card(const std::string &image, std::vector<const kept_write *> landed);
    ~cut_card();
    cut_card(const cut_card &) = delete;
    cut_card &operator=(const cut_card &) = delete;

    qfs_device *get() const { return handle_.get(); }

private:
    friend struct cut_card_operations;
    std::string image_;
    std::vector<const kept_write *> landed_;
    qfs_device_test::device_handle handle_;
};

} // namespace qfs_test
