#include "harness/recording_device.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "device/qfs_device_unix_io.h"

namespace qfs_test {

namespace {

// The layer object stays the backend's; the device it serves leads to its recorder.
std::map<const qfs_device *, recording_device *> recorders;

} // namespace

struct recording_operations {
    static recording_device &of(qfs_device_layer *layer) { return *recorders.at(layer->device); }

    static qfs_result init(qfs_device *device, const char *path) {
        const qfs_result r = qfs_device_unix_io_init(device, path);
        if (r == QFS_OK) device->layer->operations = &table;
        return r;
    }
    static qfs_result pread(qfs_device_layer *layer, qfs_io_context *context, void *buffer, size_t count,
                            uint64_t position, size_t contiguous_bytes, uint32_t flags, size_t *out_bytes_read) {
        const qfs_result r = of(layer).apply_fault(false, position, &count);
        if (r != QFS_OK) return r;
        return qfs_device_unix_io_pread(layer, context, buffer, count, position, contiguous_bytes, flags,
                                        out_bytes_read);
    }
    static qfs_result pwrite(qfs_device_layer *layer, qfs_io_context *context, const void *buffer, size_t count,
                             uint64_t position, uint32_t flags, size_t *out_bytes_written) {
        qfs_result r = of(layer).apply_fault(true, position, &count);
        if (r == QFS_OK) {
            r = qfs_device_unix_io_pwrite(layer, context, buffer, count, position, flags, out_bytes_written);
        }
        if (r == QFS_OK) of(layer).note_write(buffer, position, *out_bytes_written);
        return r;
    }
    static qfs_result sync(qfs_device_layer *layer) {
        recording_device &recorder = of(layer);
        recorder.journal_->push_back("sync");
        if (recorder.kept_ != nullptr) recorder.kept_->barriers.push_back(recorder.kept_->writes.size());
        return qfs_device_unix_io_sync(layer);
    }
    static qfs_result discard(qfs_device_layer *layer, uint64_t position, uint64_t count, uint32_t secure) {
        recording_device &recorder = of(layer);
        recorder.journal_->push_back(recording_device::entry(secure ? "secure discard" : "discard", position, count));
        // Kept as zeros, which is what a card that honours it reads back, whatever the image below does.
        if (recorder.kept_ != nullptr) recorder.kept_->writes.push_back({position, count, {}});
        return qfs_device_unix_io_discard_byte_range(layer, position, count, secure);
    }
    static qfs_result refresh(qfs_device_layer *layer) {
        of(layer).journal_->push_back("refresh");
        return qfs_device_unix_io_refresh_partition_table(layer);
    }

    static const qfs_device_operations table;
};

// The backend's table with the observed slots replaced.
const qfs_device_operations recording_operations::table = [] {
    qfs_device_operations ops = qfs_device_unix_io_operations;
    ops.init = init;
    ops.pread = pread;
    ops.pwrite = pwrite;
    ops.sync = sync;
    ops.discard_byte_range = discard;
    ops.refresh_partition_table = refresh;
    return ops;
}();

recording_device::recording_device(const std::string &image, std::vector<std::string> *journal, device_fault fault,
                                   uint64_t creation_flags)
    : journal_(journal), fault_(fault) {
    EXPECT_EQ(qfs_device_create(image.c_str(), creation_flags, &recording_operations::table, handle_.receive()),
              QFS_OK);
    if (handle_.get() == nullptr) return;
    recorders[handle_.get()] = this;
    EXPECT_EQ(qfs_device_open(handle_, 0), QFS_OK);
}

recording_device::~recording_device() {
    const qfs_device *device = handle_.get();
    EXPECT_EQ(handle_.close_and_destroy(), QFS_OK);
    recorders.erase(device);
}

std::string recording_device::entry(const char *kind, uint64_t position, uint64_t length) {
    return std::string(kind) + " " + std::to_string(position) + "+" + std::to_string(length);
}

void recording_device::note_write(const void *buffer, uint64_t position, size_t length) {
    const auto *bytes = static_cast<const uint8_t *>(buffer);
    const bool zeros = bytes && std::all_of(bytes, bytes + length, [](uint8_t b) { return b == 0; });
    const char *kind = zeros ? "zero" : "write";
    const bool continues = !journal_->empty() && position == run_end_ &&
                           journal_->back() == entry(kind, run_start_, run_end_ - run_start_);
    if (!continues) {
        run_start_ = position;
        journal_->push_back("");
    }
    run_end_ = position + length;
    journal_->back() = entry(kind, run_start_, run_end_ - run_start_);
    if (kept_ != nullptr) {
        ASSERT_NE(bytes, nullptr) << "a buffer-less write cannot be kept";
        kept_->writes.push_back({position, length, {}});
        if (!zeros) kept_->writes.back().bytes.assign(bytes, bytes + length);
    }
}

qfs_result recording_device::apply_fault(bool write, uint64_t position, size_t *count) {
    const device_fault::kind_t shortens = write ? device_fault::short_write : device_fault::short_read;
    const bool meets = !fault_met_ && fault_.position == position &&
                       (fault_.kind == shortens || (write && fault_.kind == device_fault::io_error));
    if (!meets) return QFS_OK;
    fault_met_ = true;
    if (fault_.kind == device_fault::io_error) return QFS_ERR_SYS_IO;
    *count = std::max<size_t>(*count / 2, 1);
    return QFS_OK;
}

} // namespace qfs_test
