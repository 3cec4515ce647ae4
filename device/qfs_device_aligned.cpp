// Transfers in whole pages of the device's alignment: the partial first and
// last pages go through a page-sized buffer (read-modify-write for a write),
// everything between them goes straight to the device.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "device/qfs_device.h"
#include "support/qfs_logging.h"
#include "support/qfs_memory.h"

namespace {

class aligned_transfer {
public:
    aligned_transfer(qfs_device *device, qfs_io_context *context, uint8_t *buffer, size_t count,
                     uint64_t position, uint32_t flags)
        : device_(device), context_(context), user_(buffer), count_(count), left_(count), position_(position),
          page_(device->alignment), is_read_((flags & QFS_TRANSFER_READ) != 0),
          read_flags_(flags | QFS_TRANSFER_READ), write_flags_(flags & ~static_cast<uint32_t>(QFS_TRANSFER_READ)) {
        absolute_ = position + device->start;
        first_page_ = absolute_ / page_;
        head_ = static_cast<size_t>(absolute_ % page_);
        const uint64_t end = absolute_ + count;
        last_page_ = (end - 1) / page_;
        tail_ = static_cast<size_t>(end % page_);
    }

    qfs_result run(size_t *out_bytes_done) {
        const char *direction = is_read_ ? "read" : "write";
        QFS_TRACE("Aligned %s of %zu bytes %s offset %llu (raw device offset %llu), pages %llu-%llu (%llu pages)...",
                  direction, count_, is_read_ ? "from" : "to", static_cast<unsigned long long>(position_),
                  static_cast<unsigned long long>(absolute_), static_cast<unsigned long long>(first_page_),
                  static_cast<unsigned long long>(last_page_),
                  static_cast<unsigned long long>(last_page_ - first_page_ + 1));
        if (head_ != 0 || tail_ != 0) {
            const qfs_result r = qfs_buffer_alloc(page_, page_buffer_);
            if (r != QFS_OK) {
                QFS_LOG_ERROR("Error while allocating space for alignment buffer: %lu (%s)", QFS_ERR_ARGS(r));
                return r;
            }
            const bool one_page = first_page_ == last_page_;
            QFS_TRACE("\tA misaligned %s %s%s%s offset was detected for %s with offset %llu and length %zu. "
                      "%s %s%s...",
                      direction, head_ ? "start" : "", head_ && tail_ ? " / " : "", tail_ ? "end" : "", direction,
                      static_cast<unsigned long long>(position_), count_, one_page ? "Aligning" : "Splitting",
                      direction, one_page ? "" : (head_ && tail_ ? " in three" : " in two"));
        }
        // Each step says whether the transfer goes on.
        if ((head_ == 0 || lead_in()) && middle()) {
            lead_out();
        }
        if (error_ != QFS_OK) {
            return error_;
        }
        if (out_bytes_done != nullptr) {
            *out_bytes_done = done_;
            return QFS_OK;
        }
        return done_ < count_ ? QFS_ERR_IO_ERROR : QFS_OK;
    }

private:
    // Where the caller's buffer stands; progress credited to the caller is kept apart in done_.
    size_t buffer_offset() const { return count_ - left_; }
    uint64_t relative_position() const { return position_ + buffer_offset(); }

    bool lead_in() {
        const uint64_t page_start = first_page_ * page_;
        size_t head = head_;
        size_t lead_in_end = static_cast<size_t>(std::min<uint64_t>(static_cast<uint64_t>(head_) + count_, page_));
        size_t read_length = page_;
        uint64_t offset = 0;
        if (page_start < device_->start) {
            // The range begins inside this page: only its part of the page is touched.
            const size_t before_range = static_cast<size_t>(device_->start - page_start);
            head -= before_range;
            lead_in_end -= before_range;
            read_length -= before_range;
        } else {
            offset = page_start - device_->start;
        }
        QFS_TRACE("\tLead-in read of %zu bytes starting at offset %llu (absolute offset %llu) into alignment "
                  "buffer...",
                  read_length, static_cast<unsigned long long>(offset),
                  static_cast<unsigned long long>(offset + device_->start));
        size_t bytes_read = 0;
        qfs_result r = qfs_device_pread_common(device_, context_, page_buffer_.get(), read_length, offset, 0,
                                               read_flags_, &bytes_read);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Error while reading %zu bytes of aligned lead-in from offset %llu: %lu (%s)", read_length,
                          static_cast<unsigned long long>(offset), QFS_ERR_ARGS(r));
            error_ = r;
            return false;
        }
        if (bytes_read < head) {
            return false; // the device ends before the transfer begins
        }
        const size_t n = std::min(bytes_read - head, left_);
        if (is_read_) {
            memcpy(user_, page_buffer_.get() + head, n);
            done_ += n;
        } else {
            memcpy(page_buffer_.get() + head, user_, n);
            QFS_TRACE("\tLead-in write of %zu bytes starting at offset %llu (absolute offset %llu) into alignment "
                      "buffer...",
                      bytes_read, static_cast<unsigned long long>(offset),
                      static_cast<unsigned long long>(offset + device_->start));
            size_t bytes_written = 0;
            r = qfs_device_pwrite_common(device_, context_, page_buffer_.get(), bytes_read, offset, write_flags_,
                                         &bytes_written);
            if (r != QFS_OK) {
                QFS_LOG_ERROR("Error while writing %zu bytes of lead-in data to offset %llu: %lu (%s)", bytes_read,
                              static_cast<unsigned long long>(offset), QFS_ERR_ARGS(r));
                error_ = r;
                return false;
            }
            // Credited against the tail, not the head: an established quirk of this path.
            if (bytes_written > tail_) {
                done_ += std::min(bytes_written - head, n);
            }
            if (bytes_written < bytes_read) {
                QFS_LOG_ERROR("Short write while writing %zu bytes of lead-in data to offset %llu: %zu / %zu bytes "
                              "written",
                              bytes_read, static_cast<unsigned long long>(offset), bytes_written, bytes_read);
                error_ = QFS_ERR_IO_ERROR;
                return false;
            }
        }
        left_ -= n;
        return left_ != 0 && bytes_read >= lead_in_end;
    }

    bool middle() {
        if (left_ <= tail_) {
            return true;
        }
        const size_t length = left_ - tail_;
        QFS_TRACE("\tRegular %s of %zu bytes starting at offset %llu %s buffer offset %zu ...",
                  is_read_ ? "read" : "write", length, static_cast<unsigned long long>(relative_position()),
                  is_read_ ? "into" : "from", buffer_offset());
        size_t moved = 0;
        const qfs_result r =
            is_read_ ? qfs_device_pread_common(device_, context_, user_ + buffer_offset(), length,
                                               relative_position(), 0, read_flags_, &moved)
                     : qfs_device_pwrite_common(device_, context_, user_ + buffer_offset(), length,
                                                relative_position(), write_flags_, &moved);
        if (r != QFS_OK) {
            error_ = r;
            return false;
        }
        done_ += moved;
        left_ -= moved;
        return moved == length && left_ != 0;
    }

    void lead_out() {
        if (tail_ == 0 || left_ == 0) {
            return;
        }
        const uint64_t page_start = last_page_ * page_;
        if (page_start < device_->start) {
            // Only a one-page transfer can start its last page before the range, and the lead-in covers it.
            QFS_LOG_CRITICAL("Internal error: lead-out page at %llu lies before the range start %llu.",
                             static_cast<unsigned long long>(page_start),
                             static_cast<unsigned long long>(device_->start));
            error_ = QFS_ERR_INTERNAL_ERROR;
            return;
        }
        const uint64_t offset = page_start - device_->start;
        QFS_TRACE("\tLead-out read of %zu bytes starting at offset %llu (absolute offset %llu) into alignment "
                  "buffer...",
                  page_, static_cast<unsigned long long>(offset), static_cast<unsigned long long>(page_start));
        size_t bytes_read = 0;
        qfs_result r = qfs_device_pread_common(device_, context_, page_buffer_.get(), page_, offset, 0, read_flags_,
                                               &bytes_read);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Error while reading %zu bytes of aligned lead-out from offset %llu: %lu (%s)", page_,
                          static_cast<unsigned long long>(offset), QFS_ERR_ARGS(r));
            error_ = r;
            return;
        }
        if (bytes_read == 0) {
            return;
        }
        const size_t n = std::min(bytes_read, tail_);
        if (is_read_) {
            memcpy(user_ + buffer_offset(), page_buffer_.get(), n);
            done_ += n;
        } else {
            memcpy(page_buffer_.get(), user_ + buffer_offset(), n);
            QFS_TRACE("\tLead-out write of %zu bytes starting at offset %llu (absolute offset %llu)  into alignment "
                      "buffer...",
                      bytes_read, static_cast<unsigned long long>(offset),
                      static_cast<unsigned long long>(page_start));
            size_t bytes_written = 0;
            r = qfs_device_pwrite_common(device_, context_, page_buffer_.get(), bytes_read, offset, write_flags_,
                                         &bytes_written);
            if (r != QFS_OK) {
                QFS_LOG_ERROR("Error while writing %zu bytes of lead-out data to offset %llu: %lu (%s)", bytes_read,
                              static_cast<unsigned long long>(offset), QFS_ERR_ARGS(r));
                error_ = r;
                return;
            }
            done_ += std::min(bytes_written, tail_);
            if (bytes_written < bytes_read) {
                QFS_LOG_ERROR("Short write while writing %zu bytes of lead-out data to offset %llu: %zu / %zu bytes "
                              "written",
                              bytes_read, static_cast<unsigned long long>(offset), bytes_written, bytes_read);
                error_ = QFS_ERR_IO_ERROR;
                return;
            }
        }
        left_ -= n;
    }

    qfs_device *device_;
    qfs_io_context *context_;
    uint8_t *user_;
    const size_t count_;
    size_t left_;
    const uint64_t position_;
    const size_t page_;
    const bool is_read_;
    const uint32_t read_flags_;
    const uint32_t write_flags_;
    uint64_t absolute_ = 0;
    uint64_t first_page_ = 0;
    uint64_t last_page_ = 0;
    size_t head_ = 0;
    size_t tail_ = 0;
    size_t done_ = 0;
    qfs_result error_ = QFS_OK;
    qfs_buffer page_buffer_;
};

} // namespace

qfs_result qfs_device_aligned_ptransfer(qfs_device *device, qfs_io_context *context, void *buffer, size_t count,
                                        uint64_t position, uint32_t flags, size_t *out_bytes_done) {
    if (device == nullptr || device->alignment == 0) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    if (count == 0) {
        if (out_bytes_done != nullptr) {
            *out_bytes_done = 0;
        }
        return QFS_OK;
    }
    if (buffer == nullptr) {
        return QFS_ERR_UNSUPPORTED_FEATURE; // whole pages pass through memory here
    }
    aligned_transfer transfer(device, context, static_cast<uint8_t *>(buffer), count, position, flags);
    return transfer.run(out_bytes_done);
}
