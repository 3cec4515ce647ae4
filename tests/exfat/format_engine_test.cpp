// The exFAT engine on small volumes formatted without the card tables:
// refusals, chains over several clusters, OEM parameter slots, progress
// accounting and zero-fill.
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
    qfs_test::temp_dir dir;
    std::string image(uint64_t bytes, const char *name = "volume.img") {
        const std::string path = dir.file(name);
        qfs_test::make_sparse_image(path, bytes);
        return path;
    }
    static bool fsck_accepts(const std::string &path) {
        if (!qfs_test::have_program("fsck.exfat")) return true;
        return qfs_test::expect_clean({"fsck.exfat", "-n", path});
    }
};

TEST_F(ExfatEngine, LabelRefusalsChangeNothing) {
    const std::string path = image(64 * mib);
    const std::string before = qfs_test::image_fingerprint(path);
    for (const std::u16string label : {u"TWELVE CHARS", u"A*B"}) {
        format_request request;
        request.label = &label;
        recorded_monitor monitor;
        EXPECT_EQ(format_image(path, request, monitor.get()), 22);
        EXPECT_EQ(monitor.errors.size(), 1u);
        EXPECT_EQ(qfs_test::image_fingerprint(path), before);
    }
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

TEST_F(ExfatEngine, OemParameterSlots) {
    const uint8_t flash_guid[16] = {0x46, 0x7E, 0x0C, 0x0A, 0x99, 0x33, 0x21, 0x40,
                                    0x90, 0xC8, 0xFA, 0x6D, 0x38, 0x9C, 0x4B, 0xA2};
    uint8_t supplied[32] = {0x5A};
    // Formats a card whose parameter sector holds `sector` and answers what it holds after.
    const auto format_over = [&](const std::vector<uint8_t> &sector) {
        const std::string path = image(64 * mib, "slots.img");
        qfs_test::write_bytes(path, 9 * 512, sector);
        format_request request;
        request.tca_whole = false;
        request.flash_params = supplied;
        EXPECT_EQ(format_image(path, request), QFS_OK);
        EXPECT_EQ(qfs_test::read_bytes(path, 21 * 512, 512), qfs_test::read_bytes(path, 9 * 512, 512)) << "backup";
        return qfs_test::read_bytes(path, 9 * 512, 512);
    };
    // A card whose slot 3 already holds flash parameters keeps them, whatever is supplied;
    // bytes beyond the slots are cleared.
    std::vector<uint8_t> kept(512, 0);
    memcpy(kept.data() + 3 * 48, flash_guid, 16);
    for (int i = 0; i < 32; ++i) kept[3 * 48 + 16 + i] = static_cast<uint8_t>(0x90 + i);
    auto planted = kept;
    std::fill(planted.begin() + 480, planted.end(), 0xEE);
    EXPECT_EQ(format_over(planted), kept);
    // Ten occupied slots leave no room: the slots stay.
    std::vector<uint8_t> full(512, 0);
    for (int i = 0; i < 480; ++i) full[i] = static_cast<uint8_t>(i % 7 + 1);
    EXPECT_EQ(format_over(full), full);
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
        bool whole, zero;
        uint32_t discard;
    };
    // Whole-card cases are sparse and quick; zero-fill only on the small volume.
    // Images have no discard: a discard that fails does not fail the format.
    constexpr progress_case cases[] = {
        {"quick", 64 * mib, false, false, EXFAT_DISCARD_NONE},
        {"zero", 64 * mib, false, true, EXFAT_DISCARD_NONE},
        {"zero+discard", 64 * mib, false, true, EXFAT_DISCARD_REGULAR},
        {"secure discard", 64 * mib, false, false, EXFAT_DISCARD_SECURE},
        {"card", 67108864ull * 512, true, false, EXFAT_DISCARD_NONE},
        {"card+discard", 67108864ull * 512, true, false, EXFAT_DISCARD_REGULAR},
        {"GPT card", 5368709120ull * 512, true, false, EXFAT_DISCARD_NONE},
        {"GPT card+discard", 5368709120ull * 512, true, false, EXFAT_DISCARD_SECURE},
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
