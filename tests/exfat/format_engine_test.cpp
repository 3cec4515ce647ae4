// The exFAT engine on small volumes formatted without the card tables:
// refusals, chains over several clusters, OEM parameter slots, progress
// accounting, zero-fill and discard.
#include <gtest/gtest.h>

#include <cstring>

#include "harness/exfat_image.h"
#include "harness/loop_device.h"
#include "harness/process.h"
#include "harness/recorded_monitor.h"

namespace {

using namespace qfs_exfat_test;

constexpr uint64_t mib = 1048576;

class ExfatEngine : public testing::Test {
protected:
    void SetUp() override { qfs_log_set_kmsg_enabled(false); }
    void TearDown() override { qfs_log_set_kmsg_enabled(true); }
    qfs_test::temp_dir dir;
    std::string image(uint64_t bytes, const char *name = "volume.img") {
        const std::string path = dir.file(name);
        qfs_test::make_sparse_image(path, bytes);
        return path;
    }
    static bool fsck_accepts(const std::string &path) {
        if (!qfs_test::have_program("fsck.exfat")) return true;
        const auto r = qfs_test::run_command({"fsck.exfat", "-n", path});
        EXPECT_EQ(r.exit_status, 0) << r.out << r.err;
        return r.exit_status == 0;
    }
};

TEST_F(ExfatEngine, RefusalsChangeNothing) {
    const std::u16string too_long = u"TWELVE CHARS";
    const std::u16string forbidden = u"A*B";
    const uint8_t null_guid[16] = {};
    struct refusal {
        const char *message;
        format_request request;
    };
    refusal cases[] = {
        {"Invalid volume name length: 12 (maximum allowed: 11)", {}},
        {"Invalid characters in volume name.", {}},
        {"Invalid volume GUID (null GUID not allowed).", {}},
        {"Conflicting options: tca_whole must be enabled on a partitioning-only run.", {}},
    };
    cases[0].request.label = &too_long;
    cases[1].request.label = &forbidden;
    cases[2].request.guid = null_guid;
    cases[3].request.tca_partitioning_only = true;
    const std::string path = image(64 * mib);
    const std::string before = qfs_test::image_fingerprint(path);
    for (auto &c : cases) {
        SCOPED_TRACE(c.message);
        c.request.tca_whole = false;
        recorded_monitor monitor;
        EXPECT_EQ(format_image(path, c.request, monitor.get()), 22);
        EXPECT_EQ(monitor.errors, std::vector<std::string>{c.message});
        EXPECT_EQ(qfs_test::image_fingerprint(path), before);
    }
}

TEST_F(ExfatEngine, AnImageWithoutSectorSizeNeedsOneGiven) {
    const std::string path = image(64 * mib);
    format_request request;
    request.tca_whole = false;
    request.give_sector_size_without_tca = false;
    recorded_monitor monitor;
    EXPECT_EQ(format_image(path, request, monitor.get()), 25);
    EXPECT_EQ(monitor.errors, (std::vector<std::string>{
                                  "Failed to get device sector size: Inappropriate ioctl for device",
                                  "Failed to retrieve necessary device characteristics: 25 (Inappropriate ioctl for "
                                  "device)",
                              }));
}

TEST_F(ExfatEngine, TooSmallVolumes) {
    format_request plain;
    plain.tca_whole = false;
    // 2047 sectors: one sector short of 1 MiB.
    const std::string small = image(2047 * 512, "small.img");
    const std::string before = qfs_test::image_fingerprint(small);
    recorded_monitor monitor;
    EXPECT_EQ(format_image(small, plain, monitor.get()), 28);
    EXPECT_EQ(monitor.errors, std::vector<std::string>{"Device is too small to hold an exFAT file system (device size: "
                                                       "1048064 B, required: 1048576 B)."});
    EXPECT_EQ(qfs_test::image_fingerprint(small), before);

    // Exactly 1 MiB fits: 4 KiB clusters, 64 KiB alignment. The leading zero
    // area covers the whole device, so there is no trailing one.
    const std::string exact = image(mib, "exact.img");
    recorded_monitor fits;
    ASSERT_EQ(format_image(exact, plain, fits.get()), QFS_OK);
    EXPECT_EQ(fits.cluster_size, 4096u);
    for (const auto &line : fits.infos) EXPECT_EQ(line.find("end of the device"), std::string::npos) << line;
    EXPECT_TRUE(fsck_accepts(exact));
}

TEST_F(ExfatEngine, ChainsOverSeveralClusters) {
    // 1 GiB in 4 KiB clusters at partition offset 0 with 64 KiB (128-sector) alignment:
    // FAT at sector 128, 4096 FAT sectors, heap at 4224, 261616 clusters (see the layout tests).
    // Bitmap ceil(261616 / 8) = 32702 bytes = 8 clusters (2-9), up-case 5836 bytes = 2 clusters
    // (10-11), root directory cluster 12.
    const std::string path = image(1024 * mib);
    const uint32_t cluster_size = 4096;
    const std::u16string label = u"CHAINS";
    format_request request;
    request.tca_whole = false;
    request.cluster_size = &cluster_size;
    request.label = &label;
    recorded_monitor monitor;
    ASSERT_EQ(format_image(path, request, monitor.get()), QFS_OK);
    EXPECT_EQ(monitor.warnings, std::vector<std::string>{"Could not get partition offset of device. Setting to 0."});

    const auto fat = qfs_test::read_bytes(path, 128 * 512, 64);
    const uint32_t expected_fat[] = {0xFFFFFFF8, 0xFFFFFFFF, 3, 4, 5, 6, 7, 8, 9, 0xFFFFFFFF, 11, 0xFFFFFFFF, 0xFFFFFFFF, 0};
    for (size_t i = 0; i < sizeof(expected_fat) / 4; ++i) EXPECT_EQ(le32(fat, 4 * i), expected_fat[i]) << "entry " << i;
    const auto bitmap = qfs_test::read_bytes(path, 4224 * 512, 3);
    EXPECT_EQ(bitmap, (std::vector<uint8_t>{0xFF, 0x07, 0x00})) << "clusters 2 to 12 in use";
    const auto boot = qfs_test::read_bytes(path, 0, 512);
    EXPECT_EQ(le32(boot, 96), 12u);
    EXPECT_EQ(boot[109], 3) << "8 sectors per cluster";

    EXPECT_EQ(monitor.fs_name, "exFAT");
    EXPECT_EQ(monitor.cluster_size, 4096u);
    EXPECT_EQ(monitor.total, 1024 * mib);
    EXPECT_EQ(monitor.data_area, 261616ull * 4096);
    EXPECT_EQ(monitor.free_space, (261616ull - 8 - 2 - 1) * 4096);
    EXPECT_EQ(monitor.label, "CHAINS");
    EXPECT_TRUE(fsck_accepts(path));
}

TEST_F(ExfatEngine, VolumeGuidEntry) {
    const std::string path = image(64 * mib);
    const uint8_t guid[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    format_request request;
    request.tca_whole = false;
    request.guid = guid;
    ASSERT_EQ(format_image(path, request), QFS_OK);
    // 64 MiB = 131072 sectors in 4 KiB clusters, FAT at 128: (131072 - 128) / 8 = 16368 clusters need
    // 2 * ceil(16370 * 4 / 512) = 256 FAT sectors (already aligned), so the heap starts at 384.
    const auto boot = qfs_test::read_bytes(path, 0, 512);
    const uint64_t root = (static_cast<uint64_t>(le32(boot, 88)) + (le32(boot, 96) - 2ull) * 8) * 512;
    EXPECT_EQ(le32(boot, 88), 384u);
    const auto entry = qfs_test::read_bytes(path, root + 96, 32);
    EXPECT_EQ(entry[0], 0xA0);
    EXPECT_EQ(entry[1], 0) << "no secondary entries";
    EXPECT_EQ(le16(entry, 4), 0) << "flags";
    EXPECT_EQ(memcmp(entry.data() + 6, guid, 16), 0);
    EXPECT_EQ(std::vector<uint8_t>(entry.begin() + 22, entry.end()), std::vector<uint8_t>(10, 0));
    uint16_t checksum = 0;
    for (size_t i = 0; i < 32; ++i) {
        if (i == 2 || i == 3) continue;
        checksum = static_cast<uint16_t>((checksum << 15 | checksum >> 1) + entry[i]);
    }
    EXPECT_EQ(le16(entry, 2), checksum);
    EXPECT_TRUE(fsck_accepts(path));
}

TEST_F(ExfatEngine, OemParameterSlots) {
    const uint8_t flash_guid[16] = {0x46, 0x7E, 0x0C, 0x0A, 0x99, 0x33, 0x21, 0x40,
                                    0x90, 0xC8, 0xFA, 0x6D, 0x38, 0x9C, 0x4B, 0xA2};
    uint8_t supplied[32] = {};
    supplied[0] = 0x5A;
    // A card whose slot 3 already holds flash parameters keeps them, whatever is supplied.
    {
        const std::string path = image(64 * mib, "kept.img");
        std::vector<uint8_t> sector(512, 0);
        memcpy(sector.data() + 3 * 48, flash_guid, 16);
        for (int i = 0; i < 32; ++i) sector[3 * 48 + 16 + i] = static_cast<uint8_t>(0x90 + i);
        for (int i = 480; i < 512; ++i) sector[i] = 0xEE; // beyond the slots: cleared by the format
        qfs_test::write_bytes(path, 9 * 512, sector);
        format_request request;
        request.tca_whole = false;
        request.flash_params = supplied;
        recorded_monitor monitor;
        ASSERT_EQ(format_image(path, request, monitor.get()), QFS_OK);
        std::fill(sector.begin() + 480, sector.end(), 0);
        EXPECT_EQ(qfs_test::read_bytes(path, 9 * 512, 512), sector);
        EXPECT_EQ(qfs_test::read_bytes(path, 21 * 512, 512), sector) << "backup copy";
        EXPECT_NE(std::find(monitor.infos.begin(), monitor.infos.end(),
                            "Existing flash parameters structure found. No changes will be made."),
                  monitor.infos.end());
    }
    // Ten occupied slots leave no room: a warning, and the slots stay.
    {
        const std::string path = image(64 * mib, "full.img");
        std::vector<uint8_t> sector(512, 0);
        for (int i = 0; i < 480; ++i) sector[i] = static_cast<uint8_t>(i % 7 + 1);
        qfs_test::write_bytes(path, 9 * 512, sector);
        format_request request;
        request.tca_whole = false;
        request.flash_params = supplied;
        recorded_monitor monitor;
        ASSERT_EQ(format_image(path, request, monitor.get()), QFS_OK);
        EXPECT_EQ(qfs_test::read_bytes(path, 9 * 512, 512), sector);
        EXPECT_NE(std::find(monitor.warnings.begin(), monitor.warnings.end(),
                            "Found no empty slot to store supplied flash parameters."),
                  monitor.warnings.end());
    }
}

// Compares two images byte for byte, except the ranges listed.
void expect_equal_except(const std::string &a, const std::string &b, uint64_t size,
                         const std::vector<std::pair<uint64_t, uint64_t>> &kept) {
    auto x = qfs_test::read_bytes(a, 0, size);
    auto y = qfs_test::read_bytes(b, 0, size);
    ASSERT_EQ(x.size(), y.size());
    for (const auto &[offset, length] : kept) {
        std::fill(x.begin() + offset, x.begin() + offset + length, 0);
        std::fill(y.begin() + offset, y.begin() + offset + length, 0);
    }
    const auto mismatch = std::mismatch(x.begin(), x.end(), y.begin());
    EXPECT_EQ(mismatch.first, x.end()) << "first difference at byte " << (mismatch.first - x.begin());
}

TEST_F(ExfatEngine, ZeroFillLeavesNothingOfTheOldContents) {
    // The format's own bytes hold 0xAA too (signatures, the up-case table), so the
    // test is that a zero-filled format does not depend on what the volume held,
    // except for the OEM parameter slots, which are kept from the card on purpose
    // (sector 9 and its backup 21, bytes 0-479) and the checksum sectors covering them.
    const std::string old_bytes = dir.file("old.img");
    const std::string blank = dir.file("blank.img");
    qfs_test::make_filled_image(old_bytes, 64 * mib, 0xAA);
    qfs_test::make_filled_image(blank, 64 * mib, 0x00);
    format_request request;
    request.tca_whole = false;
    ASSERT_EQ(format_image(old_bytes, request), QFS_OK);
    ASSERT_EQ(format_image(blank, request), QFS_OK);
    EXPECT_NE(qfs_test::image_fingerprint(old_bytes), qfs_test::image_fingerprint(blank))
        << "a quick format keeps old bytes in the data area";

    request.zero_data = true;
    recorded_monitor monitor;
    testing::internal::CaptureStderr();
    ASSERT_EQ(format_image(old_bytes, request, monitor.get()), QFS_OK);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "no progress mismatch";
    ASSERT_EQ(format_image(blank, request), QFS_OK);
    expect_equal_except(old_bytes, blank, 64 * mib, {{9 * 512, 480}, {11 * 512, 512}, {21 * 512, 480}, {23 * 512, 512}});
    EXPECT_EQ(qfs_test::read_bytes(old_bytes, 9 * 512, 480), std::vector<uint8_t>(480, 0xAA)) << "slots kept";
    EXPECT_EQ(monitor.percents.back(), 100u);
    EXPECT_TRUE(fsck_accepts(old_bytes));
}

TEST_F(ExfatEngine, ProgressAccountingEndsAtOneHundred) {
    struct progress_case {
        const char *name;
        uint64_t bytes;
        bool whole, zero, relax;
        uint32_t discard;
    };
    // Whole-card cases are sparse and quick; zero-fill only on the small volume.
    constexpr progress_case cases[] = {
        {"quick", 64 * mib, false, false, false, EXFAT_DISCARD_NONE},
        {"zero", 64 * mib, false, true, false, EXFAT_DISCARD_NONE},
        {"zero+discard", 64 * mib, false, true, false, EXFAT_DISCARD_REGULAR},
        {"secure discard", 64 * mib, false, false, false, EXFAT_DISCARD_SECURE},
        {"card", 67108864ull * 512, true, false, false, EXFAT_DISCARD_NONE},
        {"card+discard", 67108864ull * 512, true, false, false, EXFAT_DISCARD_REGULAR},
        {"GPT card", 5368709120ull * 512, true, false, false, EXFAT_DISCARD_NONE},
        {"GPT card+discard", 5368709120ull * 512, true, false, false, EXFAT_DISCARD_SECURE},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = image(c.bytes, "progress.img");
        format_request request;
        request.tca_whole = c.whole;
        request.zero_data = c.zero;
        request.discard = c.discard;
        recorded_monitor monitor;
        testing::internal::CaptureStderr();
        ASSERT_EQ(format_image(path, request, monitor.get()), QFS_OK);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        ASSERT_FALSE(monitor.percents.empty());
        EXPECT_TRUE(std::is_sorted(monitor.percents.begin(), monitor.percents.end()));
        EXPECT_EQ(monitor.percents.back(), 100u);
    }
}

TEST_F(ExfatEngine, DiscardFailuresOnlyWarn) {
    // Images have no discard: the request fails, the format does not.
    const std::string path = image(64 * mib);
    format_request request;
    request.tca_whole = false;
    request.discard = EXFAT_DISCARD_SECURE;
    recorded_monitor secure;
    ASSERT_EQ(format_image(path, request, secure.get()), QFS_OK);
    const std::vector<std::string> both = {
        "Could not get partition offset of device. Setting to 0.",
        "Error while securely discarding data on device: Inappropriate ioctl for device Falling back to regular "
        "discard...",
        "Error while performing regular discard of data on device: Inappropriate ioctl for device",
    };
    EXPECT_EQ(secure.warnings, both);
    request.discard = EXFAT_DISCARD_REGULAR;
    recorded_monitor regular;
    ASSERT_EQ(format_image(path, request, regular.get()), QFS_OK);
    EXPECT_EQ(regular.warnings, (std::vector<std::string>{both[0], both[2]}));
}

TEST_F(ExfatEngine, FourKibSectors) {
    // A device with 4096-byte logical sectors: the boot sector's bytes 512-4095
    // are zero and every extended boot sector ends in 55 AA at 4094/4095.
    const std::string path = image(256 * mib);
    QFS_ATTACH_LOOP_OR_SKIP(device, path, {.sector_size = 4096});
    format_request request;
    request.tca_whole = false;
    request.give_sector_size_without_tca = false; // the device tells its own
    ASSERT_EQ(format_image(device->path(), request), QFS_OK);
    const auto region = qfs_test::read_bytes(path, 0, 12 * 4096);
    EXPECT_EQ(region[108], 12) << "4096-byte sectors";
    EXPECT_EQ(std::vector<uint8_t>(region.begin() + 512, region.begin() + 4096), std::vector<uint8_t>(3584, 0));
    for (int sector = 1; sector <= 8; ++sector) {
        EXPECT_EQ(region[sector * 4096 + 4094], 0x55);
        EXPECT_EQ(region[sector * 4096 + 4095], 0xAA);
        EXPECT_EQ(region[sector * 4096 + 510], 0x00) << "no signature at the 512-byte position";
    }
    EXPECT_EQ(qfs_test::read_bytes(path, 12 * 4096, 12 * 4096), region) << "backup region";
    EXPECT_TRUE(fsck_accepts(device->path()));
}

} // namespace
