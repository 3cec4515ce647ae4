// Each option that changes what a run does to the card, against what the
// card gets: zero-fill of the volume (old bytes in its data area are gone)
// and the discard requests the kernel sees (strace of the run on a loop
// device, root only). A loop device cannot discard securely, so a secure
// discard is followed by the regular one it falls back to.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "harness/loop_device.h"
#include "harness/process.h"
#include "harness/temp_files.h"

namespace {

constexpr uint64_t mib = 1048576;
// A 16 MiB card gets FAT; 8 MiB lies in its data area, clear of the zeroed head and tail.
constexpr uint64_t card_bytes = 16 * mib;
constexpr uint64_t old_data = 8 * mib;

size_t count_of(const std::string &text, const std::string &word) {
    size_t n = 0;
    for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) ++n;
    return n;
}

TEST(OptionEffects, ZeroFillAndDiscardModes) {
    if (!qfs_test::have_program("strace")) GTEST_SKIP() << "strace is not installed";
    enum old_bytes_after { kept, zeroed, unchecked }; // a discarded loop device reads back zeros too
    struct row {
        std::vector<std::string> options;
        old_bytes_after old;
        size_t secure_discards, discards;
    };
    const row rows[] = {
        {{}, kept, 0, 0},
        {{"--zero"}, zeroed, 0, 0},
        {{"--overwrite"}, zeroed, 0, 0},
        {{"--discard"}, unchecked, 0, 1},
        {{"--secure-discard"}, unchecked, 1, 1},
        {{"--overwrite", "--discard"}, zeroed, 0, 1},
    };
    qfs_test::temp_dir dir;
    const std::string image = dir.file("card.img");
    const std::string trace = dir.file("ioctl.trace");
    for (const row &r : rows) {
        SCOPED_TRACE(testing::PrintToString(r.options));
        qfs_test::make_sparse_image(image, card_bytes);
        qfs_test::write_bytes(image, old_data, std::vector<uint8_t>(mib, 0xAA));
        QFS_ATTACH_LOOP_OR_SKIP(loop, image);
        std::vector<std::string> command = {"strace", "-f", "-qq", "-e", "trace=ioctl", "-o", trace,
                                            qfs_test::tool_path()};
        command.insert(command.end(), r.options.begin(), r.options.end());
        command.push_back(loop->path());
        qfs_test::run_options traced;
        traced.env = {"ASAN_OPTIONS=detect_leaks=0"}; // LeakSanitizer cannot work under ptrace
        const auto run = qfs_test::run_command(command, traced);
        ASSERT_EQ(run.exit_status, 0) << run.err;
        std::ostringstream ioctls;
        ioctls << std::ifstream(trace).rdbuf();
        EXPECT_EQ(count_of(ioctls.str(), "BLKSECDISCARD"), r.secure_discards) << ioctls.str();
        EXPECT_EQ(count_of(ioctls.str(), "BLKDISCARD"), r.discards) << ioctls.str();
        loop.reset();
        if (r.old != unchecked) {
            EXPECT_EQ(qfs_test::all_zero(image, old_data, mib), r.old == zeroed);
        }
    }
}

} // namespace
