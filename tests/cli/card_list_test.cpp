// --list and the fixed-disk refusal over sysfs trees that each case builds
// in its own folder, device links pointing into a bus tree as the kernel's
// do; then on this machine, as root, over a loop device the test attaches.
// Sizes and layouts are worked out here from the card rules, not asked of the tool.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "cli/cli_texts.h"
#include "cli/fixed_disk_guard.h"
#include "cli/format_tarn.h"
#include "cli/in_process_run.h"
#include "harness/loop_device.h"
#include "harness/process.h"
#include "harness/temp_files.h"
#include "support/qfs_logging.h"

namespace {

namespace fs = std::filesystem;

const std::string no_card_line = "No card reader, removable disk or loop device found.\n";

std::string refusal(const std::string &path, const std::string &what) {
    return "Refusing to format " + path + ": it is " + what +
           ", not a card reader, removable disk or loop device. Nothing was written; --allow-fixed-disk formats "
           "it anyway.\n";
}

std::string fixed_disk_warning(const std::string &path, const std::string &what) {
    return "Warning: " + path + " is " + what +
           ", not a card reader, removable disk or loop device; formatting it anyway (--allow-fixed-disk).\n";
}

// True when the two JSON texts parse to equal documents (python3 is the independent parser).
::testing::AssertionResult same_json(const std::string &actual, const std::string &expected) {
    const auto r = qfs_test::run_command({"python3", "-c",
                                          "import json, sys\n"
                                          "a, b = (json.loads(t) for t in sys.argv[1:])\n"
                                          "print('same' if a == b else json.dumps(a, sort_keys=True))",
                                          actual, expected});
    if (r.exit_status == 0 && r.out == "same\n") return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << r.out << r.err << "expected " << expected;
}

struct disk_case {
    const char *name;
    const char *disk;
    const char *bus;     // the device link's folder below devices/; "" for a disk of the virtual tree
    const char *entries; // "file=text;..." below block/<disk>; "device/..." lands in the bus folder
    const char *mounts;  // mount table lines
    const char *fixed;   // what the refusal calls it; "" for a disk that takes cards
    const char *line;    // its --list --all line
    const char *json;    // its object in the --json document, for the cases that show every kind of field
};

// Sizes: 512-byte units of the size entry; "29.7 GiB" is 62333952 * 512 / 2^30 = 29.72.
// Layouts: TNB cards (4153345 to 66945024 units) get FAT32 with 64-unit clusters from 8192001 units on,
// TNC cards (from 67108864) exFAT with 256-unit clusters; 4194304 lies in the gap below TNB's rows.
const disk_case disk_cases[] = {
    {"BuiltInSdReader", "mmcblk0", "pci0000:00/0000:00:1c.0/0000:02:00.0/mmc_host/mmc0/mmc0:aaaa",
     "dev=179:0;removable=0;size=62333952;queue/logical_block_size=512;device/name=SC32G;device/manfid=0x000003;"
     "device/oemid=0x5344;device/date=01/2020;mmcblk0p1/partition=1;mmcblk0p1/dev=179:1",
     "40 25 179:1 / /media/me/SD\\040CARD rw,nosuid - vfat /dev/mmcblk0p1 rw\n", "",
     "/dev/mmcblk0: 29.7 GiB (31914983424 bytes); mmc; card SC32G, manufacturer 0x000003, OEM 0x5344, made "
     "01/2020; mounted: /dev/mmcblk0p1 on /media/me/SD CARD; TNB, FAT32, 32 KiB clusters\n",
     R"j({"path": "/dev/mmcblk0", "attachment": "mmc", "removable": false, "fixed": false, "size_bytes": 31914983424,
     "logical_block_size": 512, "vendor": null, "model": null, "card": {"name": "SC32G", "manfid": "0x000003",
     "oemid": "0x5344", "date": "01/2020"}, "backing_file": null, "mounted": [{"device": "/dev/mmcblk0p1",
     "mount_point": "/media/me/SD CARD"}], "format": "TNB, FAT32, 32 KiB clusters", "class": "TNB",
     "file_system": "FAT32", "cluster_bytes": 32768})j"},
    {"UsbReaderWithoutCard", "sdc", "pci0000:00/0000:00:14.0/usb1/1-3/1-3:1.0/host4/target4:0:0/4:0:0:0",
     "dev=8:32;removable=1;size=0;queue/logical_block_size=512;device/vendor=Generic ;device/model=STORAGE DEVICE  ",
     "", "", "/dev/sdc: no card; usb, removable; Generic STORAGE DEVICE; no card\n",
     nullptr},
    // A stick that calls itself fixed: being behind USB is enough.
    {"UsbStick", "sdd", "pci0000:00/0000:00:14.0/usb2/2-1/2-1:1.0/host5/target5:0:0/5:0:0:0",
     "dev=8:48;removable=0;size=30031872;queue/logical_block_size=512;device/vendor=SanDisk ;"
     "device/model=Cruzer Blade    ;sdd1/partition=1;sdd1/dev=8:49",
     "41 25 8:49 / /media/me/STICK rw - vfat /dev/sdd1 rw\n41 25 8:50 / /other rw - vfat /dev/sdd2 rw\n", "",
     "/dev/sdd: 14.3 GiB (15376318464 bytes); usb; SanDisk Cruzer Blade; mounted: /dev/sdd1 on /media/me/STICK; "
     "TNB, FAT32, 32 KiB clusters\n",
     nullptr},
    // A PCI card reader behind a SCSI host: only the removable mark tells it from a disk.
    {"PciCardReader", "sdf", "pci0000:00/0000:00:1c.4/0000:03:00.0/host7/target7:0:0/7:0:0:0",
     "dev=8:80;removable=1;size=125042688;queue/logical_block_size=512;device/vendor=Generic-;device/model=SD/MMC CRW",
     "", "", "/dev/sdf: 59.6 GiB (64021856256 bytes); scsi, removable; Generic- SD/MMC CRW; TNC, exFAT, 128 KiB "
     "clusters\n",
     nullptr},
    {"NvmeDisk", "nvme0n1", "pci0000:00/0000:00:1d.0/0000:3d:00.0/nvme/nvme0",
     "dev=259:0;removable=0;size=976773168;queue/logical_block_size=512;device/model=Samsung SSD 970 EVO  ;"
     "nvme0n1p2/partition=2;nvme0n1p2/dev=259:2",
     "29 1 259:2 / / rw,relatime - ext4 /dev/nvme0n1p2 rw\n", "a fixed NVMe disk",
     "/dev/nvme0n1: 465.8 GiB (500107862016 bytes); nvme; Samsung SSD 970 EVO; mounted: /dev/nvme0n1p2 on /; "
     "fixed disk\n",
     nullptr},
    {"VirtioDisk", "vda", "pci0000:00/0000:00:02.0/virtio1",
     "dev=254:0;removable=0;size=536870912;queue/logical_block_size=512;device/vendor=0x1af4",
     "22 1 254:0 / / rw - ext4 /dev/root rw\n", "a fixed virtio disk",
     "/dev/vda: 256.0 GiB (274877906944 bytes); virtio; 0x1af4; mounted: /dev/vda on /; fixed disk\n",
     nullptr},
    {"SataDisk", "sda", "pci0000:00/0000:00:17.0/ata1/host0/target0:0:0/0:0:0:0",
     "dev=8:0;removable=0;size=1953525168;queue/logical_block_size=4096;device/vendor=ATA     ;"
     "device/model=WDC WD10EZEX-08W",
     "", "a fixed SATA disk", "/dev/sda: 931.5 GiB (1000204886016 bytes); sata; ATA WDC WD10EZEX-08W; fixed disk\n",
     R"j({"path": "/dev/sda", "attachment": "sata", "removable": false, "fixed": true, "size_bytes": 1000204886016,
     "logical_block_size": 4096, "vendor": "ATA", "model": "WDC WD10EZEX-08W", "card": null, "backing_file": null,
     "mounted": [], "format": "fixed disk", "class": null, "file_system": null, "cluster_bytes": null})j"},
    {"MdArray", "md0", "", "dev=9:0;removable=0;size=3906764800;queue/logical_block_size=512", "",
     "an md RAID array", "/dev/md0: 1.8 TiB (2000263577600 bytes); md; fixed disk\n",
     nullptr},
    {"LoopWithBackingFile", "loop3", "",
     "dev=7:3;removable=0;size=4194304;queue/logical_block_size=512;loop/backing_file=/srv/card \"2g\".img", "", "",
     "/dev/loop3: 2.0 GiB (2147483648 bytes); loop, /srv/card \"2g\".img; TNB, too small (--tca-relax formats it)\n",
     R"j({"path": "/dev/loop3", "attachment": "loop", "removable": false, "fixed": false, "size_bytes": 2147483648,
     "logical_block_size": 512, "vendor": null, "model": null, "card": null, "backing_file": "/srv/card \"2g\".img",
     "mounted": [], "format": "TNB, too small (--tca-relax formats it)", "class": null, "file_system": null,
     "cluster_bytes": null})j"},
    // Behind USB, but neither its removable mark nor its size can be read: never taken for a card.
    {"MissingEntries", "sde", "pci0000:00/0000:00:14.0/usb1/1-4/1-4:1.0/host6/target6:0:0/6:0:0:0",
     "dev=8:64;device/vendor=Generic ;device/model=Flash Disk", "",
     "a disk of unknown kind (sysfs does not describe it)",
     "/dev/sde: size unknown; unknown; Generic Flash Disk; fixed disk\n",
     R"j({"path": "/dev/sde", "attachment": "unknown", "removable": false, "fixed": true, "size_bytes": null,
     "logical_block_size": null, "vendor": "Generic", "model": "Flash Disk", "card": null, "backing_file": null,
     "mounted": [], "format": "fixed disk", "class": null, "file_system": null, "cluster_bytes": null})j"},
};

void PrintTo(const disk_case &c, std::ostream *os) { *os << c.name; }

// Builds <root>/block/<disk>, the device link first, so that "device/..." entries land in the bus folder.
void build_tree(const std::string &root, const disk_case &c) {
    const std::string folder = root + "/block/" + c.disk;
    fs::create_directories(folder);
    if (*c.bus != '\0') {
        fs::create_directories(root + "/devices/" + c.bus);
        fs::create_directory_symlink(std::string("../../devices/") + c.bus, folder + "/device");
    }
    std::istringstream entries(c.entries);
    for (std::string entry; std::getline(entries, entry, ';');) {
        const size_t equals = entry.find('=');
        const fs::path file = folder + "/" + entry.substr(0, equals);
        fs::create_directories(file.parent_path());
        std::ofstream(file) << entry.substr(equals + 1) << "\n";
    }
    std::ofstream(root + "/mountinfo") << c.mounts;
}

class FakeSysfs : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(dir_.file("block"));
        format_tarn_set_system_paths(&paths_);
    }
    void TearDown() override { format_tarn_set_system_paths(nullptr); }

    qfs_test::temp_dir dir_;
    const std::string mount_table_ = dir_.file("mountinfo");
    const qfs_system_paths paths_{dir_.path().c_str(), "/dev", mount_table_.c_str()};
};

class Disks : public FakeSysfs, public ::testing::WithParamInterface<disk_case> {};

TEST_P(Disks, GuardListAndJson) {
    const disk_case &c = GetParam();
    build_tree(dir_.path(), c);
    const std::string path = std::string("/dev/") + c.disk;
    unsigned major_number = 0, minor_number = 0;
    ASSERT_EQ(sscanf(c.entries, "dev=%u:%u", &major_number, &minor_number), 2);
    const bool fixed = *c.fixed != '\0';
    for (const bool allow : {false, true}) {
        testing::internal::CaptureStderr();
        const qfs_result r = format_check_fixed_disk(&paths_, path.c_str(), makedev(major_number, minor_number), allow);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(r, fixed && !allow ? QFS_ERR_INVALID_PARAMETER : QFS_OK) << allow;
        EXPECT_EQ(err, !fixed ? "" : allow ? fixed_disk_warning(path, c.fixed) : refusal(path, c.fixed));
    }
    const auto all = qfs_test::run_main_flow({"--list", "--all"});
    EXPECT_EQ(all.result, QFS_OK);
    EXPECT_EQ(all.out, c.line + (fixed ? no_card_line : ""));
    EXPECT_EQ(qfs_test::run_main_flow({"--list"}).out, fixed ? no_card_line : c.line);
    if (c.json == nullptr) return;
    const auto json = qfs_test::run_main_flow({"--list", "--json", "--all"});
    EXPECT_EQ(json.result, QFS_OK);
    EXPECT_TRUE(same_json(json.out, std::string(R"({"devices": [)") + c.json + "]}"));
    EXPECT_TRUE(same_json(qfs_test::run_main_flow({"--list", "--json"}).out,
                          std::string(R"({"devices": [)") + (fixed ? "" : c.json) + "]}"));
}

INSTANTIATE_TEST_SUITE_P(CardList, Disks, ::testing::ValuesIn(disk_cases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(FakeSysfs, DeviceThatSysfsDoesNotListIsFixedAndDetachedLoopIsNoDisk) {
    // A loop device with no file attached.
    build_tree(dir_.path(), {"", "loop0", "", "dev=7:0;removable=0;size=0;queue/logical_block_size=512", "", "", "",
                             ""});
    testing::internal::CaptureStderr();
    EXPECT_EQ(format_check_fixed_disk(&paths_, "/dev/sdq", makedev(65, 0), false), QFS_ERR_INVALID_PARAMETER);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              refusal("/dev/sdq", "a disk of unknown kind (sysfs does not describe it)"));
    EXPECT_EQ(qfs_test::run_main_flow({"--list", "--all"}).out, no_card_line);
}

TEST(CardList, AllAndJsonGoWithListOnly) {
    const auto r = qfs_test::run_tool({"--json", "card.img"});
    EXPECT_EQ(r.exit_status, 1);
    EXPECT_EQ(r.err, qfs_test::banner + "Error: --all and --json go with --list only.\n" + qfs_test::help_text);
}

// A real loop device that the tree calls an NVMe disk: the main flow refuses it, forced or not,
// before a byte is written, and --allow-fixed-disk lets the run go on.
TEST_F(FakeSysfs, MainFlowRefusesAFixedDiskUnlessAllowed) {
    const std::string image = dir_.file("card.img");
    qfs_test::make_sparse_image(image, 16 << 20);
    QFS_ATTACH_LOOP_OR_SKIP(loop, image, {.read_only = true});
    struct stat info = {};
    ASSERT_EQ(stat(loop->path().c_str(), &info), 0);
    const std::string number = std::to_string(major(info.st_rdev)) + ":" + std::to_string(minor(info.st_rdev));
    const std::string entries = "dev=" + number + ";removable=0;size=32768;queue/logical_block_size=512";
    build_tree(dir_.path(), {"", "nvme0n1", "pci0000:00/0000:00:1d.0/0000:3d:00.0/nvme/nvme0", entries.c_str(), "",
                             "", "", ""});
    const std::string before = qfs_test::image_fingerprint(image);
    for (const auto &args : {std::vector<std::string>{loop->path()}, {"-f", loop->path()}}) {
        const auto refused = qfs_test::run_main_flow(args);
        EXPECT_EQ(refused.result, QFS_ERR_INVALID_PARAMETER);
        EXPECT_EQ(refused.err, refusal(loop->path(), "a fixed NVMe disk"));
    }
    const auto allowed = qfs_test::run_main_flow({"--allow-fixed-disk", loop->path()});
    EXPECT_EQ(allowed.err, fixed_disk_warning(loop->path(), "a fixed NVMe disk") + qfs_test::write_refused);
    EXPECT_EQ(qfs_test::image_fingerprint(image), before);
}

// This machine's own sysfs: the test's loop device with its file and layout, every fixed disk
// that lsblk knows marked fixed, and the JSON document agreeing line by line.
TEST(CardList, ShowsThisMachinesLoopDeviceAndFixedDisks) {
    qfs_test::temp_dir dir;
    const std::string image = fs::canonical(dir.path()).string() + "/card.img";
    qfs_test::make_sparse_image(image, 4ull << 30); // 8388608 units: TNB, FAT32 with 32 KiB clusters
    QFS_ATTACH_LOOP_OR_SKIP(loop, image, {.read_only = true});
    const auto text = qfs_test::run_tool({"--list", "--all"});
    EXPECT_EQ(text.exit_status, 0);
    std::istringstream lines(text.out);
    std::set<std::string> verdicts; // "path; verdict"
    for (std::string line; std::getline(lines, line);) {
        if (line + "\n" == no_card_line) continue;
        verdicts.insert(line.substr(0, line.find(": ")) + "; " + line.substr(line.rfind("; ") + 2));
    }
    EXPECT_NE(text.out.find(loop->path() + ": 4.0 GiB (4294967296 bytes); loop, " + image +
                            "; TNB, FAT32, 32 KiB clusters\n"),
              std::string::npos)
        << text.out;
    if (qfs_test::have_program("lsblk")) {
        std::istringstream disks(qfs_test::must_run({"lsblk", "-d", "-n", "-r", "-o", "PATH,TYPE,RM,TRAN"}));
        for (std::string disk; std::getline(disks, disk);) {
            std::string path, type, removable, transport;
            std::istringstream(disk) >> path >> type >> removable >> transport;
            if (type == "disk" && removable == "0" && transport != "usb" && transport != "mmc") {
                EXPECT_EQ(verdicts.count(path + "; fixed disk"), 1u) << path << "\n" << text.out;
            }
        }
    }
    const auto json = qfs_test::run_tool({"--list", "--json", "--all"});
    const auto parsed = qfs_test::run_command(
        {"python3", "-c",
         "import json, sys\nfor d in json.load(sys.stdin)['devices']: print(d['path'] + '; ' + d['format'])"},
        {{}, json.out});
    EXPECT_EQ(parsed.exit_status, 0) << parsed.err << json.out;
    std::istringstream parsed_lines(parsed.out);
    std::set<std::string> json_verdicts;
    for (std::string line; std::getline(parsed_lines, line);) json_verdicts.insert(line);
    EXPECT_EQ(json_verdicts, verdicts);
}

} // namespace
