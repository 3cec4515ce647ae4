// The main flow's device checks on real block devices (loop devices, root
// only): a mounted, busy or partition device is refused before anything is
// written, with its message and exit status 1.
//
// Wherever a run may get past the checks the loop device is read-only, so the
// kernel itself keeps the test's file systems intact whatever the tool does.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "cli/cli_texts.h"
#include "harness/device_handle.h"
#include "harness/loop_device.h"
#include "harness/process.h"
#include "harness/temp_files.h"

namespace {

using qfs_test::banner;

// 32768 sectors of 512 bytes: a "Tarn" card, so a run past the checks takes the FAT path.
constexpr uint64_t card_size = 16 << 20;
using qfs_test::write_refused;

std::string mounted_refusal(const std::string &path) {
    return "Warning: " + path + " is mounted.\nRefusing to create a new filesystem on a mounted device.\n";
}
std::string busy_refusal(const std::string &path) {
    return "Warning: " + path + " is in use.\nRefusing to create a new filesystem on a busy device.\n";
}

class DeviceChecks : public testing::Test {
protected:
    // A sparse card with marked bytes at both ends, so the fingerprint covers them.
    // Partitioned: one partition at sector 2048, 8192 sectors long (the marks survive sfdisk).
    std::string make_card(bool partitioned = false) {
        const std::string image = dir_.file("card.img");
        qfs_test::make_sparse_image(image, card_size);
        qfs_test::write_bytes(image, 0, qfs_device_test::pattern(4096));
        qfs_test::write_bytes(image, card_size - 4096, qfs_device_test::pattern(4096, 7));
        const std::string script = "start=2048, size=8192, type=83\n";
        EXPECT_TRUE(!partitioned || qfs_test::run_command({"sfdisk", "-q", image}, {{}, script}).exit_status == 0);
        return image;
    }

    // `device` is refused with `message` (after the banner) and exit status 1;
    // `image` behind it keeps every byte.
    void expect_refusal(const std::string &device, const std::string &image, const std::string &message) {
        SCOPED_TRACE(device);
        const std::string before = qfs_test::image_fingerprint(image);
        const auto tool = qfs_test::run_tool({device});
        EXPECT_EQ(tool.exit_status, 1);
        EXPECT_EQ(tool.out, "");
        EXPECT_EQ(tool.err, banner + message);
        EXPECT_EQ(qfs_test::image_fingerprint(image), before);
    }

    qfs_test::temp_dir dir_;
};

TEST_F(DeviceChecks, MountedDeviceIsRefusedUnlessForced) {
    if (!qfs_test::have_program("mkfs.ext4")) GTEST_SKIP() << "mkfs.ext4 is not installed";
    const std::string image = dir_.file("card.img");
    qfs_test::make_sparse_image(image, card_size);
    qfs_test::must_run({"mkfs.ext4", "-q", "-F", image});
    const std::string before = qfs_test::image_fingerprint(image);
    {
        QFS_ATTACH_LOOP_OR_SKIP(loop, image, {.read_only = true});
        const std::string device = loop->path();
        loop->mount(device, dir_.file("mnt"), "ro");
        // A mount holds its block device exclusively: this device is mounted and busy at
        // once, and the refusal names only the mount.
        ASSERT_TRUE(qfs_test::held_exclusively(device));

        expect_refusal(device, image, mounted_refusal(device));

        const auto forced = qfs_test::run_tool({"-f", device});
        EXPECT_EQ(forced.exit_status, 1);
        EXPECT_EQ(forced.out, "");
        EXPECT_EQ(forced.err,
                  banner + "Warning: " + device + " is mounted.\nformat_tarn is forced anyway.\n" + write_refused);

        // The image behind the loop device holds the mounted file system just as much.
        expect_refusal(image, image, mounted_refusal(image));
        EXPECT_EQ(qfs_test::image_fingerprint(image), before) << "not a byte of the file system changed";
        const auto forced_image = qfs_test::run_tool({"-f", image});
        EXPECT_EQ(forced_image.err.rfind(banner + "Warning: " + image + " is mounted.\nformat_tarn is forced anyway.\n", 0),
                  0u)
            << forced_image.err;
    }
}

TEST_F(DeviceChecks, DeviceHeldByAnotherProcessIsRefusedAsBusy) {
    const std::string image = make_card();
    QFS_ATTACH_LOOP_OR_SKIP(loop, image, {.read_only = true});
    const char *device = loop->path().c_str();
    qfs_device_test::held_by_child holder([device] { return open(device, O_RDONLY | O_EXCL) >= 0; });
    ASSERT_TRUE(holder.holding());

    expect_refusal(loop->path(), image, busy_refusal(loop->path()));
}

TEST_F(DeviceChecks, CardWithAMountedPartitionIsBusyAndItsPartitionMounted) {
    if (!qfs_test::have_program("sfdisk")) GTEST_SKIP() << "sfdisk is not installed";
    if (!qfs_test::have_program("mkfs.ext4")) GTEST_SKIP() << "mkfs.ext4 is not installed";
    const std::string image = make_card(true);
    QFS_ATTACH_LOOP_OR_SKIP(loop, image);
    loop->scan_partitions();
    qfs_test::must_run({"mkfs.ext4", "-q", "-F", loop->partition(1)});
    // Read-only, so the mount writes nothing that would blur the byte comparison.
    loop->mount(loop->partition(1), dir_.file("mnt"), "ro");
    // The mount table names the partition, not the card, but the kernel counts a
    // claimed partition as a claim on its whole disk.
    ASSERT_TRUE(qfs_test::held_exclusively(loop->path()));

    expect_refusal(loop->path(), image, busy_refusal(loop->path()));
    expect_refusal(loop->partition(1), image, mounted_refusal(loop->partition(1)));
    // The image behind the loop device is as busy as the loop device.
    expect_refusal(image, image, busy_refusal(image));
}

TEST_F(DeviceChecks, PartitionIsRefusedAndTheWholeDeviceIsNot) {
    if (!qfs_test::have_program("sfdisk")) GTEST_SKIP() << "sfdisk is not installed";
    const std::string image = make_card(true);
    QFS_ATTACH_LOOP_OR_SKIP(loop, image, {.read_only = true});
    loop->scan_partitions();

    expect_refusal(loop->partition(1), image,
                   "[ERROR] Device '" + loop->partition(1) +
                       "' seems to be a partition. This tool should only be run on top-level block devices.\n");
    // The whole device (no start entry in sysfs) goes on to the FAT run and its first write.
    expect_refusal(loop->path(), image, write_refused);
}

} // namespace
