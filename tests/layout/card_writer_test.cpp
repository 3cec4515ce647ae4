// The card writer as the card sees it, through a recording device layer: the
// order of a whole exFAT card's writes and syncs, and faults injected inside a
// phase. The FAT engine's plan, with several extents in a phase, an unused
// phase and the syncs that no_sync keeps, is in fat/format_test.cpp.
//
// The smallest exFAT card, 67108864 sectors (32 GiB), worked out by hand (see
// the card byte tests): partition at 16 MiB; inside it the FAT at 8 MiB, the
// cluster heap at 16 MiB with 128 KiB clusters (bitmap, up-case table and
// root directory in the first three) and 261888 clusters, so the FAT phase
// covers (261888 + 2) * 4 = 1047560 bytes. The head zero area reaches 1 MiB
// past the partition's start; the tail one is the card's last MiB.
#include <gtest/gtest.h>

#include <algorithm>

#include "harness/exfat_image.h"
#include "harness/recorded_monitor.h"
#include "harness/recording_device.h"
#include "layout/card_writer.h"
#include "support/qfs_random.h"

namespace {

using qfs_test::device_fault;
using qfs_test::recording_device;

constexpr uint64_t mib = 1048576;
constexpr uint64_t card_bytes = 67108864ull * 512;
constexpr uint64_t volume = 16 * mib;
constexpr uint64_t heap = volume + 16 * mib;
constexpr uint64_t cluster = 128 * 1024;

std::string zero(uint64_t position, uint64_t length) { return recording_device::entry("zero", position, length); }
std::string write(uint64_t position, uint64_t length) { return recording_device::entry("write", position, length); }

class CardWriter : public testing::Test {
protected:

    // Formats a fresh card over the recording layer; answers the engine's result. The
    // monitor's information lines and the card's events share one journal.
    qfs_result format(const std::string &name, device_fault fault = {}, bool compare_before_write = false) {
        path = dir.file(name);
        qfs_test::make_sparse_image(path, card_bytes);
        const uint64_t seed = 7; // the same disk signature on every card
        qfs_random_set_fixed_seed_for_testing(&seed);
        recording_device device(path, &monitor.infos, fault);
        qfs_exfat_test::format_request request;
        request.compare_before_write = compare_before_write;
        const qfs_result r = qfs_exfat_test::format_device(device.get(), request, monitor.get());
        qfs_random_set_fixed_seed_for_testing(nullptr);
        EXPECT_EQ(device.fault_met(), fault.kind != device_fault::none);
        return r;
    }
    qfs_test::temp_dir dir;
    std::string path;
    qfs_exfat_test::recorded_monitor monitor;
};

TEST_F(CardWriter, WholeCardOrder) {
    ASSERT_EQ(format("card.img"), QFS_OK);
    // A quick format writes nothing else: whatever the card held elsewhere stays.
    const std::vector<std::string> expected = {
        "Sector size: 512 bytes",
        "Volume size: 67076096 sectors (34342961152 bytes)",
        "Overwriting the beginning of the device with zeroed data...",
        zero(0, volume + mib),
        "sync", // the partition table and the old boot region are gone before anything else
        "Overwriting the end of the device with zeroed data...",
        zero(card_bytes - mib, mib),
        "sync", // and the erased card is durable before the first new structure
        "Writing allocation bitmap...",
        write(heap, cluster),
        "Writing upcase table...",
        write(heap + cluster, cluster),
        "Writing root directory...",
        write(heap + 2 * cluster, cluster),
        "Writing file allocation table...",
        write(volume + 8 * mib, 1047560),
        // The FAT is durable before a boot region makes the volume valid.
        "sync",
        "Writing boot region...",
        write(volume, mib), // both boot regions in the first chunk, then zeros up to the FAT
        zero(volume + mib, 7 * mib),
        "Creating partition table...",
        "Creating Tarn-compatible partition table...",
        write(0, mib), // the MBR, then zeros up to the partition
        zero(mib, volume - mib),
        "Syncing device...",
        "sync",
        "refresh",
    };
    EXPECT_EQ(monitor.infos, expected);
}

TEST_F(CardWriter, FaultsInAPhase) {
    ASSERT_EQ(format("reference.img"), QFS_OK);
    const std::string reference = qfs_test::image_fingerprint(path);
    struct fault_case {
        const char *name;
        device_fault fault;
        bool compare_before_write; // reads happen in a phase only when comparing
        qfs_result result;
        std::vector<std::string> errors;
    };
    const fault_case cases[] = {
        {"short write in the boot region", {device_fault::short_write, volume + 4 * mib}, false, QFS_OK, {}},
        // The boot region's fifth MiB is zero padding, which the fresh card holds already.
        {"short read in the boot region", {device_fault::short_read, volume + 4 * mib}, true, QFS_OK, {}},
        {"I/O error in the boot region",
         {device_fault::io_error, volume + 4 * mib},
         false,
         QFS_ERR_SYS_IO,
         {"Error while writing 1048576 bytes of padding to offset 4194304: 5 (Input/output error)",
          "Error while writing out the boot region: 5 (Input/output error)",
          "Error while writing volume structures: 5 (Input/output error)"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        monitor.errors.clear();
        monitor.infos.clear();
        EXPECT_EQ(format(std::to_string(&c - cases) + ".img", c.fault, c.compare_before_write), c.result);
        EXPECT_EQ(monitor.errors, c.errors);
        if (c.result == QFS_OK) {
            EXPECT_EQ(qfs_test::image_fingerprint(path), reference) << "the same card";
        }
        if (c.compare_before_write) {
            EXPECT_EQ(std::count(monitor.infos.begin(), monitor.infos.end(), zero(c.fault.position, mib)), 0)
                << "the whole chunk was read and compared, so it was not written again";
        }
    }
}

} // namespace
