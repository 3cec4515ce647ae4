// Whole cards formatted by the tool with its random source fixed, compared
// with digests of every byte they hold. The digests were recorded from cards
// that sfdisk or sgdisk, fsck.exfat or fsck.fat and mtools, and the byte-level
// tests accept; any byte moved or changed since then shows here.
#include <gtest/gtest.h>

#include "cli/in_process_run.h"
#include "harness/temp_files.h"
#include "support/qfs_logging.h"
#include "support/qfs_random.h"

namespace {

struct digest_case {
    const char *name;
    uint64_t sectors;
    const char *fingerprint;
};

// 64 GiB: an MBR card of the TNC class; 2.5 TiB: a GPT card of the TNE class; a Tarn
// card with FAT16 and a TNB card with FAT32 (their layouts: fat_cards_test.cpp).
constexpr digest_case cases[] = {
    {"FAT16 Tarn", 1021952, "22a01f9397f6e763"},
    {"FAT32 TNB", 4211713, "380ddd58fa582e8a"},
    {"64 GiB", 134217728, "67accb74807dfc66"},
    {"2.5 TiB", 5368709120, "0e5ca83b4e4822ed"},
};

TEST(CardDigest, WholeCardsWithAFixedRandomSource) {
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        qfs_test::temp_dir dir;
        const std::string path = dir.file("card.img");
        qfs_test::make_sparse_image(path, c.sectors * 512);
        const uint64_t seed = 0x5441524E; // the same serial number, disk signature and GUIDs on every run
        qfs_random_set_fixed_seed_for_testing(&seed);
        const auto r = qfs_test::run_main_flow({"-l", "TARN", path});
        qfs_random_set_fixed_seed_for_testing(nullptr);
        ASSERT_EQ(r.result, QFS_OK) << r.err;
        EXPECT_EQ(qfs_test::image_fingerprint(path), c.fingerprint);
    }
}

} // namespace
