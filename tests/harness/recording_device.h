// A device layer for tests that sits under the real code: it forwards every
// operation to the image-file backend, notes each write, sync, discard and
// partition-table refresh in the order the card sees them, keeps the written
// bytes on request (see cut_card.h) and injects one fault on request.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "harness/device_handle.h"

namespace qfs_test {

struct device_fault {
    enum kind_t { none, short_write, short_read, io_error };
    kind_t kind = none;
    uint64_t position = 0; // absolute byte position of the one transfer that meets it
};

// One write (or discard) as the card received it; zeros keep their length alone.
struct kept_write {
    uint64_t position = 0;
    uint64_t length = 0;
    std::vector<uint8_t> bytes; // empty for zeros
};

// What a power cut may leave of a run: every write in order, and for each
// sync the number of writes that came before it.
struct kept_writes {
    std::vector<kept_write> writes;
    std::vector<size_t> barriers;
};

class recording_device {
public:
    // Creates and opens a device over `image`. Entries go to `journal`, which
    // a monitor may share, so that its lines and the card's events interleave.
    // Creation flags may stack a layer above the recorder.
    recording_device(const std::string &image, std::vector<std::string> *journal, device_fault fault = {},
                     uint64_t creation_flags = 0);
    ~recording_device();
    recording_device(const recording_device &) = delete;
    recording_device &operator=(const recording_device &) = delete;

    qfs_device *get() const { return handle_.get(); }
    bool fault_met() const { return fault_met_; }
    // From now on every write's bytes and every sync also go to `kept`.
    void keep_writes(kept_writes *kept) { kept_ = kept; }

    // Journal entries: "zero <position>+<length>" or "write <position>+<length>"
    // (a write that continues the previous entry's run of the same kind extends
    // it), "sync", "discard <position>+<length>" and "refresh".
    static std::string entry(const char *kind, uint64_t position, uint64_t length);

private:
    friend struct recording_operations;
    void note_write(const void *buffer, uint64_t position, size_t length);
    // Shortens `count` or fails the transfer when the fault is met here.
    qfs_result apply_fault(bool write, uint64_t position, size_t *count);

    qfs_device_test::device_handle handle_;
    std::vector<std::string> *journal_;
    kept_writes *kept_ = nullptr;
    device_fault fault_;
    bool fault_met_ = false;
    uint64_t run_start_ = 0;
    uint64_t run_end_ = 0;
};

} // namespace qfs_test
