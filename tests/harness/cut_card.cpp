#include "harness/cut_card.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "device/qfs_device_unix_io.h"
#include "harness/process.h"

namespace qfs_test {

namespace {

std::map<const qfs_device *, const cut_card *> cards;

} // namespace

struct cut_card_operations {
    static qfs_result init(qfs_device *device, const char *path) {
        const qfs_result r = qfs_device_unix_io_init(device, path);
        if (r != QFS_OK) return r;
        device->layer->operations = &table;
        // Every read needs a buffer to lay the writes over.
        device->flags &= ~static_cast<uint64_t>(QFS_DEVICE_FLAG_PHANTOM_ALLOWED);
        return QFS_OK;
    }
    // The image's bytes, then each landed write's share of the range, in order.
    static qfs_result pread(qfs_device_layer *layer, qfs_io_context *context, void *buffer, size_t count,
                            uint64_t position, size_t contiguous_bytes, uint32_t flags, size_t *out_bytes_read) {
        const qfs_result r =
            qfs_device_unix_io_pread(layer, context, buffer, count, position, contiguous_bytes, flags, out_bytes_read);
        if (r != QFS_OK) return r;
        auto *bytes = static_cast<uint8_t *>(buffer);
        const uint64_t end = position + *out_bytes_read;
        for (const kept_write *w : cards.at(layer->device)->landed_) {
            const uint64_t from = std::max(position, w->position);
            const uint64_t to = std::min(end, w->position + w->length);
            if (from >= to) continue;
            uint8_t *at = bytes + (from - position);
            if (w->bytes.empty()) {
                memset(at, 0, to - from);
            } else {
                memcpy(at, w->bytes.data() + (from - w->position), to - from);
            }
        }
        return QFS_OK;
    }
    static const qfs_device_operations table;
};

const qfs_device_operations cut_card_operations::table = [] {
    qfs_device_operations ops = qfs_device_unix_io_operations;
    ops.init = init;
    ops.pread = pread;
    return ops;
}();

cut_card::cut_card(const std::string &image, std::vector<const kept_write *> landed)
    : image_(image), landed_(std::move(landed)) {
    EXPECT_EQ(
        qfs_device_create(image.c_str(), QFS_DEVICE_FLAG_READ_ONLY, &cut_card_operations::table, handle_.receive()),
        QFS_OK);
    if (handle_.get() == nullptr) return;
    cards[handle_.get()] = this;
    EXPECT_EQ(qfs_device_open(handle_, 0), QFS_OK);
}

cut_card::~cut_card() {
    const qfs_device *device = handle_.get();
    EXPECT_EQ(handle_.close_and_destroy(), QFS_OK);
    cards.erase(device);
}

} // namespace qfs_test
