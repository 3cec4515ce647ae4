// The backend over real block devices (loop devices, root only): sizes,
// partition starts from sysfs, the mounted and busy checks, discards.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstring>

#include "device/qfs_device.h"
#include "harness/device_handle.h"
#include "harness/loop_device.h"
#include "harness/process.h"
#include "harness/temp_files.h"

namespace {

using qfs_device_test::device_handle;
using qfs_device_test::held_by_child;

constexpr uint64_t image_size = 16 << 20; // 16 MiB: 32768 sectors of 512 bytes

class UnixIoLoop : public qfs_device_test::device_test {
protected:
    std::string make_image() {
        const std::string image = dir_.file("card.img");
        qfs_test::make_sparse_image(image, image_size);
        return image;
    }
    qfs_test::temp_dir dir_;
};

TEST_F(UnixIoLoop, BlockDeviceSizeComesFromTheKernel) {
    QFS_ATTACH_LOOP_OR_SKIP(loop, make_image());
    device_handle dev;
    ASSERT_EQ(qfs_device_create_default(loop->path().c_str(), QFS_DEVICE_FLAG_READ_ONLY, dev.receive()), QFS_OK);
    EXPECT_NE(dev->flags & QFS_DEVICE_FLAG_BLOCK_OR_CHAR, 0u);
    ASSERT_EQ(qfs_device_open(dev, 0), QFS_OK);
    uint32_t sector_size = 0;
    ASSERT_EQ(qfs_device_get_sector_size(dev, &sector_size), QFS_OK);
    EXPECT_EQ(sector_size, 512u);
    uint64_t sectors = 0;
    ASSERT_EQ(qfs_device_get_size_in_sectors(dev, 512, &sectors), QFS_OK);
    EXPECT_EQ(sectors, 32768u); // 2^24 / 2^9
    ASSERT_EQ(qfs_device_get_size_in_sectors(dev, 4096, &sectors), QFS_OK);
    EXPECT_EQ(sectors, 4096u); // 2^24 / 2^12
}

TEST_F(UnixIoLoop, PartitionStartComesFromSysfs) {
    if (!qfs_test::have_program("sfdisk")) GTEST_SKIP() << "sfdisk is not installed";
    const std::string image = make_image();
    // One partition at sector 2048, 8192 sectors long.
    ASSERT_EQ(qfs_test::run_command({"sfdisk", "-q", image}, {{}, "start=2048, size=8192, type=83\n"}).exit_status, 0);
    QFS_ATTACH_LOOP_OR_SKIP(loop, image);
    loop->scan_partitions();

    device_handle part;
    qfs_device_test::open_device(part, loop->partition(1), QFS_DEVICE_FLAG_READ_ONLY);
    uint64_t start = 0;
    ASSERT_EQ(qfs_device_get_partition_start_sector(part, &start), QFS_OK);
    EXPECT_EQ(start, 2048u);
    // A range start moves it on: 2048 + 1048576 / 512 = 4096.
    ASSERT_EQ(qfs_device_set_range(part, 1 << 20, 0), QFS_OK);
    ASSERT_EQ(qfs_device_get_partition_start_sector(part, &start), QFS_OK);
    EXPECT_EQ(start, 4096u);

    // The whole device has no start entry.
    device_handle whole;
    qfs_device_test::open_device(whole, loop->path(), QFS_DEVICE_FLAG_READ_ONLY);
    EXPECT_EQ(qfs_device_get_partition_start_sector(whole, &start), ENOENT);
}

TEST_F(UnixIoLoop, MountedDeviceIsFoundByPathAndByDeviceNumber) {
    if (!qfs_test::have_program("mkfs.ext4")) GTEST_SKIP() << "mkfs.ext4 is not installed";
    QFS_ATTACH_LOOP_OR_SKIP(loop, make_image());
    qfs_test::must_run({"mkfs.ext4", "-q", "-F", loop->path()});
    const std::string mount_point = loop->mount(loop->path(), dir_.file("mnt"), "rw");

    // Another node for the same device, as a card reader's alias would be.
    struct stat info = {};
    ASSERT_EQ(stat(loop->path().c_str(), &info), 0);
    const std::string alias = dir_.file("alias");
    ASSERT_EQ(mknod(alias.c_str(), S_IFBLK | 0600, info.st_rdev), 0) << strerror(errno);

    for (const std::string &path : {loop->path(), alias}) {
        SCOPED_TRACE(path);
        device_handle dev;
        ASSERT_EQ(qfs_device_create_default(path.c_str(), QFS_DEVICE_FLAG_READ_ONLY | QFS_DEVICE_FLAG_NO_LOCKING,
                                            dev.receive()),
                  QFS_OK);
        uint32_t mounted = 0, in_use = 0;
        char where[256] = {}, type[32] = {};
        ASSERT_EQ(qfs_device_check_if_in_use(dev, &mounted, &in_use, where, sizeof(where), type, sizeof(type)),
                  QFS_OK);
        EXPECT_EQ(mounted, 1u);
        EXPECT_EQ(in_use, 1u); // the mount holds the device exclusively too
        EXPECT_EQ(std::string(where), mount_point);
        EXPECT_STREQ(type, "ext4");

        testing::internal::CaptureStderr();
        EXPECT_EQ(qfs_device_open(dev, 0), QFS_ERR_DEVICE_BUSY);
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(qfs_device_open(dev, 1), QFS_OK) << "forced";
    }
}

TEST_F(UnixIoLoop, DeviceHeldExclusivelyIsInUseButNotMounted) {
    QFS_ATTACH_LOOP_OR_SKIP(loop, make_image());
    const char *path = loop->path().c_str();
    held_by_child holder([path] { return open(path, O_RDONLY | O_EXCL) >= 0; });
    ASSERT_TRUE(holder.holding());

    device_handle dev;
    ASSERT_EQ(qfs_device_create_default(path, QFS_DEVICE_FLAG_READ_ONLY, dev.receive()), QFS_OK);
    uint32_t mounted = 7, in_use = 7;
    ASSERT_EQ(qfs_device_check_if_in_use(dev, &mounted, &in_use), QFS_OK);
    EXPECT_EQ(mounted, 0u);
    EXPECT_EQ(in_use, 1u);
    testing::internal::CaptureStderr();
    EXPECT_EQ(qfs_device_open(dev, 0), QFS_ERR_DEVICE_BUSY);
    testing::internal::GetCapturedStderr();
}

TEST_F(UnixIoLoop, MisalignedDiscardIsRefusedBeforeTheDevice) {
    const std::string image = make_image();
    qfs_test::write_bytes(image, 0, qfs_device_test::pattern(65536));
    QFS_ATTACH_LOOP_OR_SKIP(loop, image);
    const std::string before = qfs_test::image_fingerprint(image);
    device_handle dev;
    qfs_device_test::open_device(dev, loop->path(), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(qfs_device_discard_byte_range(dev, 100, 4096, 0), QFS_ERR_INVALID_PARAMETER) << "position";
    EXPECT_EQ(qfs_device_discard_byte_range(dev, 4096, 1000, 0), QFS_ERR_INVALID_PARAMETER) << "count";
    testing::internal::GetCapturedStderr();
    ASSERT_EQ(qfs_device_close(dev), QFS_OK);
    EXPECT_EQ(qfs_test::image_fingerprint(image), before);
}

} // namespace
