#include <cerrno>
#include <cstring>

#include "exfat/volume_boot_checks.h"
#include "exfat/volume_test_support.h"

using namespace exfat_volume_test;
using qfs_test::read_bytes;
using qfs_test::write_bytes;

namespace {

class VolumeBootChecks : public volume_test {};

using sector = std::vector<uint8_t>;

struct boot_check_case {
    int number;
    void (*edit)(sector &boot);
    const char *message; // the first line the open logs
    qfs_result result;
};

// Each edit makes exactly one check fail; the fields around it are set so
// that the checks before it pass and the message's numbers are fixed.
const boot_check_case cases[] = {
    {0, [](sector &b) { b[511] = 0xAB; }, "[ERROR] Invalid end of sector signature: 0xAB55", EINVAL},
    {17, [](sector &b) { b[11] = 1; }, "[ERROR] Encountered non-zero data in legacy BIOS parameter block.", EINVAL},
    {1, [](sector &b) { memcpy(&b[3], "NTFS    ", 8); },
     "[ERROR] Invalid exFAT magic: 0x202020205346544E (\"NTFS    \")", EINVAL},
    {2, [](sector &b) { set_le16(b, 104, 0x0200); }, "[ERROR] Unsupported exFAT version: 2.0", EINVAL},
    {3, [](sector &b) { set_le16(b, 104, 0x0105); }, "[WARNING] Unknown minor exFAT version: 1.5", QFS_OK},
    {4, [](sector &b) { b[108] = 8; }, "[ERROR] bytes_per_sector_shift out of range: 8", EINVAL},
    {4, [](sector &b) { b[108] = 13; }, "[ERROR] bytes_per_sector_shift out of range: 13", EINVAL},
    {5, [](sector &b) { b[109] = 17; }, // 25 - 9 = 16 is the largest
     "[ERROR] sectors_per_cluster_shift out of range: 17 (bytes_per_sector_shift=9)", EINVAL},
    {6, [](sector &b) { b[110] = 0; }, "[ERROR] Invalid number of FATs: 0", EINVAL},
    {6, [](sector &b) { b[110] = 3; }, "[ERROR] Invalid number of FATs: 3", EINVAL},
    {7, [](sector &b) { b[112] = 150; }, "[WARNING] Inconsistency - Invalid value for percent_in_use: 150", QFS_OK},
    {8,
     [](sector &b) {
         b[110] = 1;
         set_le16(b, 106, 0x0001);
     },
     "[ERROR] Inconsistency: Number of FATs is not 2 and the secondary FAT is the active one. (number_of_fats=1)",
     EINVAL},
    {9, [](sector &b) { set_le64(b, 72, 0); }, "[ERROR] Invalid total sector count: 0", EINVAL},
    {10, [](sector &b) { set_le32(b, 84, 0); }, "[ERROR] Invalid number of sectors in FAT: 0", EINVAL},
    {11,
     [](sector &b) {
         set_le64(b, 72, 100);
         set_le32(b, 80, 90);
         set_le32(b, 84, 20);
     },
     "[ERROR] Inconsistency: FAT region extends beyond the length of the volume (FAT end: 110 sectors, volume end: "
     "100 sectors).",
     EINVAL},
    {12,
     [](sector &b) {
         set_le32(b, 80, 24);
         set_le32(b, 84, 100);
         set_le32(b, 88, 120);
     },
     "[ERROR] Inconsistency: FAT region overlaps cluster heap region by 4 sectors!", EINVAL},
    {13, [](sector &b) { set_le32(b, 92, 0); },
     "[ERROR] Inconsistency: The number of clusters (0) is invalid for an exFAT volume.", EINVAL},
    {13, [](sector &b) { set_le32(b, 92, 0xFFFFFFF6); },
     "[ERROR] Inconsistency: The number of clusters (4294967286) is invalid for an exFAT volume.", EINVAL},
    {16,
     [](sector &b) {
         // One 512-byte sector maps 128 entries; 200 clusters need 202.
         set_le32(b, 80, 24);
         set_le32(b, 84, 1);
         set_le32(b, 88, 32);
         set_le32(b, 92, 200);
     },
     "[ERROR] Inconsistency: FAT region too small to map all clusters!", EINVAL},
    {14,
     [](sector &b) {
         // 1000 clusters of 8 sectors from sector 32 end at sector 8032.
         set_le64(b, 72, 8000);
         set_le32(b, 80, 24);
         set_le32(b, 84, 8);
         set_le32(b, 88, 32);
         set_le32(b, 92, 1000);
         b[109] = 3;
     },
     "[ERROR] Inconsistency: Cluster heap extends beyond the length of the volume (cluster heap end: 8032 sectors, "
     "volume end: 8000 sectors).",
     EINVAL},
    {15, [](sector &b) { set_le32(b, 96, 1); },
     "[ERROR] Inconsistency: First cluster of root directory is outside cluster heap bounds.(first_cluster_of_root=1)",
     EINVAL},
    {15,
     [](sector &b) {
         set_le32(b, 92, 1000);
         set_le32(b, 96, 1002); // one past the last cluster
     },
     "[ERROR] Inconsistency: First cluster of root directory is outside cluster heap "
     "bounds.(first_cluster_of_root=1002)",
     EINVAL},
};

TEST_F(VolumeBootChecks, EachCheckByItsCorruption) {
    ASSERT_NO_FATAL_FAILURE(format_image(image_));
    const sector original = read_bytes(image_, 0, 512);
    for (const boot_check_case &c : cases) {
        SCOPED_TRACE("check " + std::to_string(c.number));
        sector boot = original;
        c.edit(boot);
        write_bytes(image_, 0, boot);
        reseal_main_region(image_); // the checks, not the checksum, must catch it
        opened_volume v(image_);
        testing::internal::CaptureStderr();
        EXPECT_EQ(v.open(EXFAT_VOLUME_READ_ONLY), c.result);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(first_line(err), c.message);
        if (c.result == QFS_OK) {
            EXPECT_EQ(err, std::string(c.message) + "\n"); // a warning and nothing else
        } else {
            EXPECT_NE(err.find("[ERROR] exfat_check_validate_boot_sector returned error: 22 (Invalid argument)\n"),
                      std::string::npos);
            EXPECT_NE(err.find("[ERROR] Initializing cached values failed: 22 (Invalid argument)\n"),
                      std::string::npos);
        }
    }
}

TEST_F(VolumeBootChecks, ChecksRunInTableOrder) {
    ASSERT_NO_FATAL_FAILURE(format_image(image_));
    sector boot = read_bytes(image_, 0, 512);
    boot[11] = 1;                   // problem 17
    memcpy(&boot[3], "NTFS    ", 8); // problem 1, which comes after 17
    set_le16(boot, 104, 0x0300);     // problem 2
    write_bytes(image_, 0, boot);
    opened_volume v(image_);
    testing::internal::CaptureStderr();
    EXPECT_EQ(v.open(EXFAT_VOLUME_READ_ONLY), EINVAL);
    EXPECT_EQ(first_line(testing::internal::GetCapturedStderr()),
              "[ERROR] Encountered non-zero data in legacy BIOS parameter block.");
}

TEST_F(VolumeBootChecks, PercentInUseNotAvailablePassesSilently) {
    ASSERT_NO_FATAL_FAILURE(format_image(image_));
    write_bytes(image_, 112, {255});
    opened_volume v(image_);
    testing::internal::CaptureStderr();
    EXPECT_EQ(v.open(EXFAT_VOLUME_READ_ONLY), QFS_OK);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(VolumeBootChecks, UnknownProblemNumber) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(exfat_check_default_problem_handler(nullptr, 18, "whatever"), EIO);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "[ERROR] Unrecognized error code: 18\n");
}

struct region_case {
    const char *what;
    size_t offset; // byte of the 24-sector boot regions to change
    bool main;
    bool pattern; // a stray word in the checksum sector rather than a changed checksummed byte
};

const region_case region_cases[] = {
    {"main extended boot sector", 1 * 512 + 7, true, false},
    {"main checksum sector word 5", 11 * 512 + 20, true, true},
    {"backup boot sector serial", 12 * 512 + 100, false, false},
    {"backup checksum sector word 127", 23 * 512 + 508, false, true},
};

TEST_F(VolumeBootChecks, BootRegionChecksums) {
    ASSERT_NO_FATAL_FAILURE(format_image(image_));
    const sector original = read_bytes(image_, 0, 24 * 512);
    for (const region_case &c : region_cases) {
        SCOPED_TRACE(c.what);
        sector regions = original;
        regions[c.offset] ^= 0x5A;
        write_bytes(image_, 0, regions);
        const size_t base = c.main ? 0 : 12 * 512;
        const sector region(regions.begin() + base, regions.begin() + base + 12 * 512);
        const uint32_t stored = le32(region, 11 * 512);
        char expected[256];
        if (c.pattern) {
            const size_t word = (c.offset - base - 11 * 512) / 4;
            snprintf(expected, sizeof(expected),
                     "[ERROR] %s checksum region does not contain a repeating pattern as expected. checksum_region[0] "
                     "(0x%08X) != checksum_region[%zu] (0x%08X)",
                     c.main ? "Main" : "Backup", stored, word, le32(region, 11 * 512 + word * 4));
        } else {
            snprintf(expected, sizeof(expected),
                     "[ERROR] Calculated %s boot region checksum (0x%08X) doesn't match stored checksum (0x%08X).",
                     c.main ? "main" : "backup", boot_checksum(region, 512), stored);
        }
        opened_volume v(image_);
        testing::internal::CaptureStderr();
        EXPECT_EQ(v.open(EXFAT_VOLUME_READ_ONLY), EINVAL);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(first_line(err), expected);
        EXPECT_NE(err.find(c.main ? "[ERROR] Validation of main boot region failed.\n"
                                  : "[ERROR] Validation of backup boot region failed.\n"),
                  std::string::npos);
    }
    // Flags and PercentInUse lie outside the checksum.
    sector regions = original;
    regions[106] = 0x02;
    regions[112] = 42;
    write_bytes(image_, 0, regions);
    opened_volume v(image_);
    EXPECT_EQ(v.open(EXFAT_VOLUME_READ_ONLY), QFS_OK);
}

} // namespace
