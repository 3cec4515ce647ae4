// What protects a card while the tool runs as root on a real system: its
// own messages never land on the card, a front end that stops reading does
// not stop the format half-way, and no second formatter or mount gets at a
// card that is being formatted.
//
// A 64 GiB card gets an MBR with one partition at sector 32768 (one boundary
// unit of 16 MiB) and exFAT inside; see exfat_cards_test.cpp for the layout.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "cli/cli_texts.h"
#include "harness/loop_device.h"
#include "harness/process.h"
#include "harness/temp_files.h"

namespace {

constexpr uint64_t card_bytes = 64ull << 30;
constexpr uint64_t partition_start = 32768;

std::string quoted(const std::string &text) { return "'" + text + "'"; }

// The tool run by a shell, so that a case can close or redirect its streams.
qfs_test::run_result run_in_shell(const std::string &command) {
    return qfs_test::run_command({"bash", "-c", command});
}

// Clears the fields that differ between any two formats: the MBR disk
// signature, and in both exFAT boot regions the volume serial number and
// the checksum sector that covers it.
void clear_random_fields(const std::string &image) {
    const uint64_t volume = partition_start * 512;
    qfs_test::write_bytes(image, 440, std::vector<uint8_t>(4));
    for (const uint64_t region : {volume, volume + 12 * 512}) {
        qfs_test::write_bytes(image, region + 100, std::vector<uint8_t>(4));
        qfs_test::write_bytes(image, region + 11 * 512, std::vector<uint8_t>(512));
    }
}

void expect_exfat_partition_clean(const std::string &image) {
    QFS_ATTACH_LOOP_OR_SKIP(partition, image, {.offset = partition_start * 512, .read_only = true});
    qfs_test::expect_clean({"fsck.exfat", "-n", partition->path()});
}

class CardSafety : public testing::Test {
protected:
    std::string new_card(const std::string &name) {
        const std::string image = dir_.file(name);
        qfs_test::make_sparse_image(image, card_bytes);
        return image;
    }
    qfs_test::temp_dir dir_;
};

TEST_F(CardSafety, ClosedStandardStreamsNeverBecomeTheCard) {
    const std::string args = " -v --tca-formatter-progress ";
    const std::string reference = new_card("reference.img");
    ASSERT_EQ(run_in_shell(quoted(qfs_test::tool_path()) + args + quoted(reference)).exit_status, 0);
    expect_exfat_partition_clean(reference);
    clear_random_fields(reference);
    const std::string expected = qfs_test::image_fingerprint(reference);

    for (const char *closing : {"2>&-", ">&-", "<&-"}) {
        SCOPED_TRACE(closing);
        const std::string image = new_card("card.img");
        const auto run = run_in_shell(quoted(qfs_test::tool_path()) + args + quoted(image) + " " + closing);
        EXPECT_EQ(run.exit_status, 0) << run.err;
        clear_random_fields(image);
        EXPECT_EQ(qfs_test::image_fingerprint(image), expected) << "the card differs from a run with every stream open";
    }
}

TEST_F(CardSafety, FrontEndThatStopsReadingGetsAFinishedCardAndExitStatus1) {
    const std::string image = new_card("card.img");
    const auto run = run_in_shell(quoted(qfs_test::tool_path()) + " --tca-formatter-progress " + quoted(image) +
                                  " | head -1; exit ${PIPESTATUS[0]}");
    EXPECT_EQ(run.exit_status, 1);
    EXPECT_EQ(run.out, "FSTYPE:exFAT\n");
    const std::string lost = "[ERROR] Output to standard output was lost: 32 (Broken pipe)\n";
    ASSERT_GE(run.err.size(), lost.size());
    EXPECT_EQ(run.err.substr(run.err.size() - lost.size()), lost) << run.err;
    EXPECT_NE(run.err.find("TNC formatting of \"" + image + "\" was successfully completed."), std::string::npos);
    expect_exfat_partition_clean(image);
}

struct refusal_case {
    const char *name;
    const char *shell_tail; // arguments and redirections after the tool's path
    const char *err_tail;   // what standard error ends with
};

TEST_F(CardSafety, OutputThatCannotBeWrittenOrADeviceThatCannotBeACardFails) {
    ASSERT_EQ(mkfifo(dir_.file("fifo").c_str(), 0600), 0);
    const refusal_case cases[] = {
        {"help to a full disk", " -h >/dev/full", "[ERROR] Output to standard output was lost: 28 (No space left on device)\n"},
        {"about to a full disk", " --about >/dev/full", "[ERROR] Output to standard output was lost: 28 (No space left on device)\n"},
        // Opened for reading, a FIFO would wait for a writer for ever.
        {"a FIFO", " fifo", "[ERROR] Device 'fifo' is neither a block device nor an image file.\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const auto run = run_in_shell("cd " + quoted(dir_.path()) + " && timeout 20 " + quoted(qfs_test::tool_path()) +
                                      c.shell_tail);
        EXPECT_EQ(run.exit_status, 1);
        const std::string tail = c.err_tail;
        ASSERT_GE(run.err.size(), tail.size()) << run.err;
        EXPECT_EQ(run.err.substr(run.err.size() - tail.size()), tail);
    }
}

TEST_F(CardSafety, CardIsHeldFromTheCheckToTheEndOfTheRun) {
    if (!qfs_test::have_program("strace")) GTEST_SKIP() << "strace is not installed";
    const std::string image = new_card("card.img");
    QFS_ATTACH_LOOP_OR_SKIP(loop, image);
    const std::string device = loop->path();

    // Every flush of the first run takes two seconds, which leaves a window to try the others in.
    // The leak checker of a sanitizer build cannot work under strace.
    qfs_test::run_result first;
    std::thread first_run([&] {
        first = qfs_test::run_command({"strace", "-f", "-o", "/dev/null", "-e", "inject=fsync:delay_enter=2000000",
                                       qfs_test::tool_path(), device},
                                      {{"ASAN_OPTIONS=detect_leaks=0"}, ""});
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    // Watched through /proc/locks: an exclusive open to look would itself make the first run's check fail.
    while (!qfs_test::flock_held(device) && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    const auto second = qfs_test::run_tool({device});
    const auto mount = qfs_test::run_command({"mount", "-o", "ro", device, dir_.path()});
    first_run.join();

    EXPECT_EQ(second.exit_status, 1);
    EXPECT_EQ(second.err, qfs_test::banner + "Warning: " + device +
                              " is in use.\nRefusing to create a new filesystem on a busy device.\n");
    EXPECT_NE(mount.exit_status, 0);
    EXPECT_NE(mount.err.find("busy"), std::string::npos) << mount.err;
    EXPECT_EQ(first.exit_status, 0) << first.err;

    // Released after the run: the partition can be added and read. This
    // kernel has no partition-table parsers of its own, so partx adds it.
    loop->scan_partitions();
    qfs_test::expect_clean({"fsck.exfat", "-n", loop->partition(1)});
}

struct sector_case {
    const char *name;
    uint64_t sectors;                  // the card in 512-byte sectors
    uint64_t start, count;             // the card rules' partition in 512-byte sectors
    const char *table_line;            // what sfdisk prints in 4096-byte sectors, or null for a GPT
};

// A card reader with 4096-byte logical sectors: the table counts in them, so
// every 512-byte number of the card rules is divided by 8.
TEST_F(CardSafety, PartitionTableCountsInTheDevicesOwnSectors) {
    const sector_case cases[] = {
        {"64 GiB, MBR", 134217728, 32768, 134184960, "start=        4096, size=    16773120, type=7"},
        {"2.5 TiB, GPT", 5368709120, 262144, 5368184832, nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const std::string image = dir_.file("card.img");
        qfs_test::make_sparse_image(image, c.sectors * 512);
        QFS_ATTACH_LOOP_OR_SKIP(loop, image, {.sector_size = 4096});
        const auto run = qfs_test::run_tool({loop->path()});
        ASSERT_EQ(run.exit_status, 0) << run.err;
        if (c.table_line != nullptr) {
            const std::string table = qfs_test::must_run({"sfdisk", "-d", loop->path()});
            EXPECT_NE(table.find(c.table_line), std::string::npos) << table;
        } else {
            EXPECT_NE(qfs_test::must_run({"sgdisk", "-v", loop->path()}).find("No problems found."), std::string::npos);
        }
        // partx counts in 512-byte sectors whatever the device's.
        const std::string listed = qfs_test::must_run({"partx", "-g", "-o", "START,SECTORS", loop->path()});
        EXPECT_EQ(listed, std::to_string(c.start) + " " + std::to_string(c.count) + "\n");
        loop->scan_partitions();
        qfs_test::expect_clean({"fsck.exfat", "-n", loop->partition(1)});
    }
}

} // namespace
