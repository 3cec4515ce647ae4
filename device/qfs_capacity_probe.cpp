// The capacity check's rounds: write blocks in ascending order, flush the
// card's cache, read them back in shuffled order and judge each address; a
// second round confirms the first bad address and narrows the real size.
#include "device/qfs_capacity_probe.h"

#include <time.h>

#include <algorithm>
#include <map>
#include <new>
#include <random>
#include <set>

#include "device/qfs_capacity_internal.h"
#include "device/qfs_device.h"
#include "support/qfs_logging.h"
#include "support/qfs_random.h"

namespace qfs_capacity {

namespace {

constexpr uint64_t none = UINT64_MAX;

uint64_t now_microseconds() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000000 + static_cast<uint64_t>(t.tv_nsec) / 1000;
}

// Progress bands of the whole check: first round, second round, putting back.
struct band {
    uint32_t from, to;
};
constexpr band first_band{0, 75}, second_band{75, 95}, restore_band{95, 100};

class prober {
public:
    prober(qfs_device *device, const qfs_capacity_hooks *hooks) : device_(device), hooks_(hooks) {}

    qfs_result start(uint64_t claimed) {
        qfs_result r = make_plan(claimed, &plan_);
        if (r == QFS_OK) r = qfs_random_at_most(UINT64_MAX, &tag_.run);
        if (r == QFS_OK) r = aligned_alloc_buffer(chunk_bytes, &buffer_);
        if (r == QFS_OK) r = journal_.open(hooks_ != nullptr ? hooks_->save_folder : nullptr);
        if (hooks_ != nullptr && hooks_->flush_bytes != 0) flush_bytes_ = hooks_->flush_bytes;
        return r;
    }

    // Writes, flushes and reads back `addresses` (ascending); the bad ones go to `bad`.
    qfs_result round(const std::vector<uint64_t> &addresses, band progress, std::vector<uint64_t> *bad) {
        ++tag_.round;
        band_ = progress;
        steps_done_ = 0;
        steps_total_ = 2 * addresses.size() + flush_bytes_ / chunk_bytes;
        std::map<uint64_t, reading> seen;
        for (const uint64_t a : addresses) {
            if (stop()) return QFS_ERR_SYS_INTERRUPTED;
            const qfs_result r = write_probe(a, &seen);
            if (r != QFS_OK) return r;
            step("Checking capacity");
        }
        qfs_result r = flush();
        if (r != QFS_OK) return r;
        std::vector<uint64_t> order(addresses);
        std::shuffle(order.begin(), order.end(), std::mt19937_64(tag_.run ^ tag_.round));
        for (const uint64_t a : order) {
            if (stop()) return QFS_ERR_SYS_INTERRUPTED;
            if (seen.count(a) == 0) {
                const bool read = qfs_device_read_exact(device_, a, block_size, buffer_.get()) == QFS_OK;
                seen[a] = read ? classify_block(buffer_.get(), a, tag_) : reading{reading::foreign, 0};
            }
            step("Checking capacity");
        }
        judge(seen, bad);
        return QFS_OK;
    }

    qfs_result put_back() {
        report(restore_band.from, "Putting back what the capacity check overwrote");
        const qfs_result r = journal_.restore(device_, &written_);
        report(restore_band.to, "Capacity check done");
        return r;
    }

    const plan &first_plan() const { return plan_; }
    uint64_t written() const { return written_; }
    bool stop() const {
        return hooks_ != nullptr && hooks_->interrupted != nullptr && hooks_->interrupted(hooks_->context);
    }
    void report(uint32_t percent, const char *text) const {
        if (hooks_ != nullptr && hooks_->progress != nullptr) hooks_->progress(hooks_->context, percent, text);
    }

private:
    // Saves the block once, then writes it; an address that cannot be read or
    // written is bad at once and left alone.
    qfs_result write_probe(uint64_t a, std::map<uint64_t, reading> *seen) {
        if (saved_.count(a) == 0) {
            const qfs_result r = journal_.save(device_, a, block_size, buffer_.get());
            if (r == QFS_ERR_INTERNAL_ERROR) return r;
            if (r != QFS_OK) {
                (*seen)[a] = {reading::foreign, 0};
                return QFS_OK;
            }
            saved_.insert(a);
        }
        stamp_block(buffer_.get(), a, tag_);
        if (qfs_device_write_exact(device_, a, block_size, buffer_.get()) != QFS_OK) {
            (*seen)[a] = {reading::foreign, 0};
        }
        written_ += block_size;
        return QFS_OK;
    }

    // Enough writing elsewhere that the card must store the probe blocks
    // before they are read back. Its blocks are stamped as well, so a probe
    // address that lands in the flush region reads back as another block.
    qfs_result flush() {
        uint64_t done = 0;
        for (uint64_t offset = 0; done < flush_bytes_ && plan_.flush_length != 0;
             offset = (offset + chunk_bytes) % plan_.flush_length) {
            if (stop()) return QFS_ERR_SYS_INTERRUPTED;
            const uint64_t position = plan_.flush_start + offset;
            const uint64_t length = std::min(chunk_bytes, plan_.flush_length - offset);
            bool writable = true;
            if (offset >= flush_saved_) {
                const qfs_result r = journal_.save(device_, position, length, buffer_.get());
                if (r == QFS_ERR_INTERNAL_ERROR) return r;
                writable = r == QFS_OK;
                flush_saved_ = offset + length;
            }
            for (uint64_t b = 0; writable && b < length; b += block_size) {
                stamp_block(buffer_.get() + b, position + b, tag_);
            }
            // A flush write that fails says nothing the probe blocks do not say better.
            if (writable && qfs_device_write_exact(device_, position, length, buffer_.get()) == QFS_OK) {
                written_ += length;
            }
            done += length;
            step("Checking capacity");
        }
        // A layer without a cache to flush has nothing to do here.
        const qfs_result r = qfs_device_sync(device_);
        return r == QFS_ERR_UNSUPPORTED_FEATURE ? QFS_OK : r;
    }

    // Every address that read back someone else's block shares its storage
    // with that block's address: of each such group only the lowest address
    // can be stored where it belongs, the others alias it.
    static void judge(const std::map<uint64_t, reading> &seen, std::vector<uint64_t> *bad) {
        std::map<uint64_t, uint64_t> lowest_sharer; // written-for address -> lowest address holding its block
        for (const auto &[a, got] : seen) {
            if (got.kind == reading::foreign) bad->push_back(a);
            if (got.kind != reading::other) continue;
            auto [it, fresh] = lowest_sharer.insert({got.address, std::min(a, got.address)});
            if (!fresh) it->second = std::min(it->second, a);
        }
        for (const auto &[a, got] : seen) {
            if (got.kind == reading::other && a != lowest_sharer[got.address]) bad->push_back(a);
        }
        for (const auto &[written_for, lowest] : lowest_sharer) {
            if (written_for != lowest) bad->push_back(written_for);
        }
        std::sort(bad->begin(), bad->end());
        bad->erase(std::unique(bad->begin(), bad->end()), bad->end());
    }

    void step(const char *text) {
        ++steps_done_;
        const uint64_t span = band_.to - band_.from;
        const uint64_t share = span * steps_done_ / std::max<uint64_t>(steps_total_, 1);
        const uint32_t percent = band_.from + static_cast<uint32_t>(share);
        if (percent != last_percent_) report(std::min(percent, band_.to), text);
        last_percent_ = percent;
    }

    qfs_device *device_;
    const qfs_capacity_hooks *hooks_;
    plan plan_{};
    run_tag tag_{0, 0};
    aligned_buffer buffer_;
    journal journal_;
    std::set<uint64_t> saved_;
    uint64_t flush_saved_ = 0;
    uint64_t flush_bytes_ = flush_bytes;
    uint64_t written_ = 0;
    band band_{0, 0};
    uint64_t steps_done_ = 0, steps_total_ = 0;
    uint32_t last_percent_ = UINT32_MAX;
};

// The highest address below `limit` that no round found bad, or `none`.
uint64_t highest_good_below(const std::vector<uint64_t> &tried, const std::vector<uint64_t> &bad, uint64_t limit) {
    uint64_t best = none;
    for (const uint64_t a : tried) {
        if (a < limit && !std::binary_search(bad.begin(), bad.end(), a)) best = best == none ? a : std::max(best, a);
    }
    return best;
}

std::vector<uint64_t> merged(std::vector<uint64_t> a, const std::vector<uint64_t> &b) {
    a.insert(a.end(), b.begin(), b.end());
    std::sort(a.begin(), a.end());
    a.erase(std::unique(a.begin(), a.end()), a.end());
    return a;
}

// The probe itself; the verdict's real size is set for a fake card only.
qfs_result probe(prober &p, qfs_capacity_verdict *verdict) {
    std::vector<uint64_t> bad;
    qfs_result r = p.round(p.first_plan().addresses, first_band, &bad);
    if (r != QFS_OK || bad.empty()) return r;
    // Confirm: write the suspects again after every good address below the
    // first of them, with points between the two that narrow the real size.
    const uint64_t first_bad = bad.front();
    const uint64_t good = highest_good_below(p.first_plan().addresses, bad, first_bad);
    std::vector<uint64_t> second;
    for (const uint64_t a : p.first_plan().addresses) {
        if (good != none && a <= good) second.push_back(a);
    }
    if (good != none) second = merged(second, points_between(good, first_bad));
    second = merged(second, bad);
    std::vector<uint64_t> bad_again;
    r = p.round(second, second_band, &bad_again);
    if (r != QFS_OK) return r;
    std::vector<uint64_t> confirmed;
    std::set_intersection(bad.begin(), bad.end(), bad_again.begin(), bad_again.end(), std::back_inserter(confirmed));
    if (confirmed.empty()) {
        QFS_LOG_WARNING("The capacity check read %zu addresses wrongly once and right the second time.", bad.size());
        return QFS_OK;
    }
    // Addresses up to the first one found bad again count as found in the second round.
    const uint64_t limit = std::min(confirmed.front(), bad_again.front());
    const uint64_t last_good = highest_good_below(second, bad_again, limit);
    verdict->genuine = false;
    verdict->real_bytes = last_good == none ? 0 : last_good + block_size;
    return QFS_OK;
}

} // namespace

} // namespace qfs_capacity

qfs_result qfs_capacity_probe(qfs_device *device, uint64_t claimed_bytes, const qfs_capacity_hooks *hooks,
                              qfs_capacity_verdict *out_verdict) {
    using namespace qfs_capacity;
    if (device == nullptr || out_verdict == nullptr) {
        return QFS_ERR_INVALID_PARAMETER;
    }
    const uint64_t started = now_microseconds();
    try {
        prober p(device, hooks);
        qfs_result r = p.start(claimed_bytes);
        if (r != QFS_OK) {
            QFS_LOG_ERROR("Error while preparing the capacity check: %lu (%s)", QFS_ERR_ARGS(r));
            return r;
        }
        qfs_capacity_verdict verdict{true, claimed_bytes, claimed_bytes, 0, 0, 0};
        p.report(first_band.from, "Checking capacity");
        r = probe(p, &verdict);
        // A genuine card gets its bytes back too: the format that follows may
        // still refuse it (a bad label, a size between two classes).
        const qfs_result put = p.put_back();
        if (put != QFS_OK) {
            QFS_LOG_ERROR("The card could not be put back as it was: %lu (%s)", QFS_ERR_ARGS(put));
            return put;
        }
        if (r != QFS_OK) return r;
        verdict.addresses = static_cast<uint32_t>(p.first_plan().addresses.size());
        verdict.bytes_written = p.written();
        verdict.microseconds = now_microseconds() - started;
        *out_verdict = verdict;
        return QFS_OK;
    } catch (const std::bad_alloc &) {
        return QFS_ERR_OUT_OF_MEMORY;
    }
}
