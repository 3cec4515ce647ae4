// The capacity check against a card that lies about its size in each of the
// three ways counterfeit cards do, and against an honest one.
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstring>
#include <unordered_map>

#include "device/qfs_capacity_probe.h"
#include "harness/device_handle.h"

namespace {

constexpr uint64_t GiB = UINT64_C(1) << 30, page = 4096;

// A card of `claimed` bytes that stores `real`: past it, addresses wrap onto
// the start (bits above the next power of two ignored; what falls between
// the real size and that power is lost), writes vanish, or transfers fail.
struct fake_card {
    enum kind_t { genuine, wrap, dropped, io_error } kind;
    uint64_t claimed, real;
    std::unordered_map<uint64_t, std::array<uint8_t, page>> pages; // written pages by physical address

    // Physical address, or false when the card stores nothing for `a`.
    bool locate(uint64_t a, uint64_t *physical) const {
        uint64_t module = 1;
        while (module < real) module *= 2;
        *physical = kind == genuine ? a : kind == wrap ? a % module : a;
        return *physical < (kind == genuine ? claimed : real);
    }
    // What a page held before anyone wrote it: its own address, so misplaced bytes show.
    static std::array<uint8_t, page> before(uint64_t physical) {
        std::array<uint8_t, page> bytes{};
        for (size_t i = 0; i < page; ++i) bytes[i] = static_cast<uint8_t>((physical >> 12) * 7 + i / 8);
        return bytes;
    }
    qfs_result transfer(bool write, uint8_t *buffer, size_t count, uint64_t position) {
        EXPECT_EQ(position % page, 0u);
        for (size_t done = 0; done < count; done += page) {
            uint64_t physical = 0;
            const bool stored = locate(position + done, &physical);
            if (!stored && kind == io_error) return QFS_ERR_SYS_IO;
            if (write && stored) std::memcpy(pages[physical].data(), buffer + done, page);
            if (write) continue;
            auto it = pages.find(physical);
            std::memcpy(buffer + done, stored && it != pages.end() ? it->second.data() : before(physical).data(), page);
        }
        return QFS_OK;
    }
    bool as_before() const {
        for (const auto &[physical, bytes] : pages) {
            if (bytes != before(physical)) return false;
        }
        return true;
    }
};

fake_card *card = nullptr;

qfs_result fake_init(qfs_device *device, const char *);
qfs_result fake_destroy(qfs_device *device) {
    delete device->layer;
    return QFS_OK;
}
qfs_result fake_open(qfs_device_layer *) { return QFS_OK; }
qfs_result fake_pread(qfs_device_layer *, qfs_io_context *, void *buffer, size_t count, uint64_t position, size_t,
                      uint32_t, size_t *out) {
    *out = count;
    return card->transfer(false, static_cast<uint8_t *>(buffer), count, position);
}
qfs_result fake_pwrite(qfs_device_layer *, qfs_io_context *, const void *buffer, size_t count, uint64_t position,
                       uint32_t, size_t *out) {
    *out = count;
    return card->transfer(true, static_cast<uint8_t *>(const_cast<void *>(buffer)), count, position);
}
const qfs_device_operations fake_operations = [] {
    qfs_device_operations ops{};
    ops.init = fake_init, ops.destroy = fake_destroy, ops.open = ops.close = fake_open;
    ops.pread = fake_pread, ops.pwrite = fake_pwrite;
    return ops;
}();
qfs_result fake_init(qfs_device *device, const char *) {
    device->layer = new qfs_device_layer{&fake_operations, nullptr, device, nullptr};
    return QFS_OK;
}

class CapacityProbe : public qfs_device_test::device_test {
protected:
    // The fake card has no cache to flush: a little writing stands in for the 64 MiB.
    qfs_capacity_hooks hooks{nullptr, nullptr, nullptr, nullptr, UINT64_C(1) << 20};
    qfs_result probe(fake_card &fake, qfs_capacity_verdict *verdict) {
        card = &fake;
        qfs_device_test::device_handle device;
        EXPECT_EQ(qfs_device_create("fake", 0, &fake_operations, device.receive()), QFS_OK);
        return qfs_capacity_probe(device, fake.claimed, &hooks, verdict);
    }
};

TEST_F(CapacityProbe, FakeCardsAreCaughtSizedAndPutBack) {
    constexpr uint64_t sizes[][2] = {{64 * GiB, 1 * GiB}, {64 * GiB, 8 * GiB}, {64 * GiB, 31 * GiB},
                                     {16 * GiB, 2 * GiB}, {2048 * GiB, 64 * GiB}, {64 * GiB, 3 * GiB + (300u << 20)}};
    for (const auto kind : {fake_card::wrap, fake_card::dropped, fake_card::io_error}) {
        for (const auto &[claimed, real] : sizes) {
            SCOPED_TRACE(testing::Message() << "kind " << kind << ", " << claimed << " storing " << real);
            fake_card fake{kind, claimed, real, {}};
            qfs_capacity_verdict verdict{};
            ASSERT_EQ(probe(fake, &verdict), QFS_OK);
            EXPECT_FALSE(verdict.genuine);
            EXPECT_EQ(verdict.claimed_bytes, claimed);
            EXPECT_LE(verdict.real_bytes, real);
            EXPECT_GE(verdict.real_bytes, real - real / 100);
            EXPECT_TRUE(fake.as_before());
        }
    }
}

TEST_F(CapacityProbe, GenuineCardsPassAfterOneRoundAndArePutBack) {
    for (const uint64_t claimed : {64 * GiB, 2048 * GiB, UINT64_C(15931539456)}) {
        fake_card fake{fake_card::genuine, claimed, claimed, {}};
        qfs_capacity_verdict verdict{};
        ASSERT_EQ(probe(fake, &verdict), QFS_OK);
        EXPECT_TRUE(verdict.genuine);
        EXPECT_EQ(verdict.real_bytes, claimed);
        EXPECT_TRUE(fake.as_before()); // the format that follows may still refuse the card
        // Every power of two from 32 MiB below the claim, and the start, end and random blocks besides.
        EXPECT_GT(verdict.addresses, static_cast<uint32_t>(__builtin_ctzll(std::bit_floor(claimed - 1)) - 25 + 3));
    }
}

TEST_F(CapacityProbe, InterruptedCheckPutsTheCardBack) {
    fake_card fake{fake_card::wrap, 64 * GiB, 8 * GiB, {}};
    int calls = 0;
    hooks.context = &calls;
    hooks.interrupted = [](void *c) { return ++*static_cast<int *>(c) > 40; };
    qfs_capacity_verdict verdict{};
    EXPECT_EQ(probe(fake, &verdict), QFS_ERR_SYS_INTERRUPTED);
    EXPECT_FALSE(fake.pages.empty());
    EXPECT_TRUE(fake.as_before());
}

} // namespace
