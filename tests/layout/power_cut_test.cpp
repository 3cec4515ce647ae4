// A whole-card format of a used card, cut short wherever a power cut or a
// pulled card could stop it. The writes (as the device received them: zero
// areas 1 MiB at a time) and syncs are recorded; a card keeps everything
// written before a sync and, of the writes after it, any subset, stored in
// any order. At the start and at every sync the card is rebuilt with each
// prefix of the writes that follow and with 60 random subsets of them landing
// in random order (a fixed seed), and each state must read as one of three:
// no file system; the old volume, its files' clusters still allocated in
// bitmap and FAT and holding their bytes; or the new volume, accepted by the
// tool's reader with bitmap and FAT agreeing with its root directory. A
// volume is looked for where the partition table puts it or, with the table
// gone, at the partition both formats share, where a recovery tool finds it.
//
// Each used card was formatted by the engine with another serial number and
// then given three files, one of over a MiB: by mcopy on FAT, by hand on
// exFAT (entry sets, FAT chains and bitmap bits as a driver writes them).
// The first state of each kind goes to fsck.exfat -n or fsck.fat -n as well,
// on its partition cut out into a file, so that an independent checker agrees.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <random>

#include "exfat/volume_owner.h"
#include "fat/format.h"
#include "fat/volume_owner.h"
#include "harness/cut_card.h"
#include "harness/exfat_image.h"
#include "harness/process.h"
#include "harness/recorded_monitor.h"
#include "support/qfs_random.h"

namespace {

using bytes = std::vector<uint8_t>;
using landed_writes = std::vector<const qfs_test::kept_write *>;

struct card_case {
    const char *name;
    uint64_t sectors;
    bool exfat;
    bool discard; // the new format discards the card first
};
void PrintTo(const card_case &card, std::ostream *out) { *out << card.name; }

// The smallest cards of the exFAT and FAT32 classes, and a FAT16 and a FAT12
// card whose partitions start inside the first MiB, so that the whole old
// volume lies in the zeroed head area, its largest file reaching past it.
// Two of the new formats discard the card first.
constexpr card_case cards[] = {
    {"exFAT", 67108864, true, true},
    {"FAT32", 4211713, false, false},
    {"FAT16", 259585, false, true},
    {"FAT12", 129792, false, false},
};

constexpr uint32_t old_serial = 0x01D5E41A;
constexpr uint32_t new_serial = 0x2E3F4A5B;
constexpr size_t file_sizes[] = {300000, 40000, 1500000};
constexpr int random_subsets = 60;

uint64_t le(const bytes &b, size_t at, int n) {
    uint64_t v = 0;
    for (int i = n - 1; i >= 0; --i) v = v << 8 | b[at + i];
    return v;
}
void put_le(bytes &b, size_t at, uint64_t v, int n) {
    for (int i = 0; i < n; ++i) b[at + i] = uint8_t(v >> (8 * i));
}
std::string file_name(size_t i) { return "PHOTO" + std::to_string(i + 1) + ".JPG"; }
bytes file_bytes(size_t i) {
    bytes b(file_sizes[i]);
    for (size_t k = 0; k < b.size(); ++k) b[k] = uint8_t((k + 61 * i) % 251 + 1);
    return b;
}

bytes read(qfs_device *dev, uint64_t at, uint64_t length) {
    bytes b(length);
    EXPECT_EQ(qfs_device_read_exact(dev, at, length, b.data()), QFS_OK) << "read at " << at;
    return b;
}

// A volume as its boot sector tells it, read through a state's device.
struct volume_view {
    qfs_device *dev;
    uint32_t serial, cluster_size, cluster_count;
    uint32_t fat_bits; // 12, 16, 28 (FAT32) or 32 (exFAT)
    uint64_t fat_at, heap_at;
    uint32_t root_cluster; // 0: the fixed root directory of FAT12/16
    bytes fat = {};        // the first copy
    bytes fixed_root = {};

    uint64_t cluster_at(uint32_t c) const { return heap_at + uint64_t(c - 2) * cluster_size; }
    uint32_t next(uint32_t c) const {
        if (fat_bits == 12) return uint32_t(le(fat, c * 3 / 2, 2) >> (c % 2 ? 4 : 0) & 0xFFF);
        const int width = fat_bits == 16 ? 2 : 4;
        return uint32_t(le(fat, size_t{c} * width, width) & ((uint64_t{1} << fat_bits) - 1));
    }
    bool end_of_chain(uint32_t v) const { return v >= ((uint64_t{1} << fat_bits) - 1) - 7; }
};

std::optional<volume_view> open_exfat(qfs_device *dev, std::string *why) {
    exfat_volume_owner volume;
    exfat_volume_info i{};
    if (exfat_volume_create(dev, EXFAT_VOLUME_READ_ONLY | EXFAT_VOLUME_DO_NOT_MARK_DIRTY, volume.receive()) != QFS_OK ||
        exfat_volume_get_info(volume, &i) != QFS_OK) {
        *why = "the exFAT reader refuses it";
        return std::nullopt;
    }
    const uint64_t ss = i.bytes_per_sector;
    volume_view v{dev, i.serial_number, i.cluster_size, i.cluster_count, 32, i.fat_offset * ss,
                  i.cluster_heap_offset * ss, i.root_first_cluster};
    v.fat = read(dev, v.fat_at, (uint64_t{v.cluster_count} + 2) * 4);
    return v;
}

std::optional<volume_view> open_fat(qfs_device *dev, std::string *why) {
    fat_volume_owner volume;
    fat_boot_values b{};
    if (fat_volume_create(dev, 0, volume.receive()) != QFS_OK ||
        fat_volume_parse_boot_sector(read(dev, 0, 512).data(), &b) != QFS_OK) {
        *why = "the FAT reader refuses it";
        return std::nullopt;
    }
    const uint64_t ss = b.sector_size, fat_bytes = uint64_t{b.fat_size} * ss;
    const bool fat32 = b.fat_type == 32;
    volume_view v{dev, b.serial_number, b.cluster_size, b.cluster_count, fat32 ? 28u : b.fat_type,
                  b.fat_start_sector * ss, b.cluster_heap_start_sector * ss,
                  fat32 ? b.root_directory_first_fat_cluster : 0};
    v.fat = read(dev, v.fat_at, fat_bytes);
    for (uint32_t copy = 1; copy < b.number_of_fats; ++copy) {
        if (read(dev, v.fat_at + copy * fat_bytes, fat_bytes) != v.fat) {
            *why = "its FAT copies differ";
            return std::nullopt;
        }
    }
    if (!fat32) v.fixed_root = read(dev, b.root_sector * ss, uint64_t{b.root_sectors} * ss);
    return v;
}

// What a root directory entry points at, through the FAT (neither format here
// writes exFAT's unchained files); a length of 0 runs to the chain's end.
struct chain {
    enum kind_t { file, bitmap, system } kind;
    uint32_t first;
    uint64_t length;
};

// The clusters of a chain, which must stay in the heap, meet no free entry
// and fit its length.
bool walk(const volume_view &v, const chain &c, std::vector<uint32_t> *out, std::string *why) {
    const uint64_t wanted = c.length == 0 ? UINT64_MAX : (c.length + v.cluster_size - 1) / v.cluster_size;
    for (uint32_t at = c.first; at != 0 && out->size() < wanted;) {
        if (at < 2 || at >= v.cluster_count + 2 || out->size() > v.cluster_count) {
            *why = "a chain leaves the heap or loops at cluster " + std::to_string(at);
            return false;
        }
        out->push_back(at);
        const uint32_t next = v.next(at);
        if (v.end_of_chain(next)) break;
        if (next == 0) {
            *why = "cluster " + std::to_string(at) + " chains to a free entry";
            return false;
        }
        at = next;
    }
    if (c.length != 0 && out->size() != wanted) {
        *why = "a chain of " + std::to_string(out->size()) + " clusters holds " + std::to_string(c.length) + " bytes";
        return false;
    }
    return true;
}

std::vector<chain> root_entries(const volume_view &v, const bytes &root) {
    std::vector<chain> chains;
    for (size_t at = 0; at + 32 <= root.size() && root[at] != 0; at += 32) {
        const uint8_t type = root[at];
        if (v.fat_bits == 32) {
            if (type == 0x81 || type == 0x82) {
                chains.push_back({type == 0x81 ? chain::bitmap : chain::system, uint32_t(le(root, at + 20, 4)),
                                  le(root, at + 24, 8)});
            } else if (type == 0x85 && at + 64 <= root.size() && root[at + 32] == 0xC0) {
                chains.push_back({chain::file, uint32_t(le(root, at + 52, 4)), le(root, at + 56, 8)});
            }
        } else if (type != 0xE5 && root[at + 11] != 0x0F && (root[at + 11] & 0x08) == 0) {
            chains.push_back(
                {chain::file, uint32_t(le(root, at + 20, 2) << 16 | le(root, at + 26, 2)), le(root, at + 28, 4)});
        }
    }
    return chains;
}

enum class found { none, old_volume, new_volume, broken };
struct verdict {
    found kind;
    std::string why;
};

bytes read_clusters(const volume_view &v, const std::vector<uint32_t> &clusters) {
    bytes content;
    for (uint32_t c : clusters) {
        const bytes cluster = read(v.dev, v.cluster_at(c), v.cluster_size);
        content.insert(content.end(), cluster.begin(), cluster.end());
    }
    return content;
}

// Every cluster the root directory reaches must be allocated in the FAT (and
// the bitmap) and no other; the files then tell the old volume from the new.
verdict judge(const volume_view &v, const std::vector<bytes> &old_files) {
    std::string why;
    std::vector<uint32_t> root_clusters;
    if (v.root_cluster != 0 && !walk(v, {chain::system, v.root_cluster, 0}, &root_clusters, &why)) {
        return {found::broken, why};
    }
    bytes root = v.fixed_root;
    const bytes root_chain = read_clusters(v, root_clusters);
    root.insert(root.end(), root_chain.begin(), root_chain.end());
    std::vector<bool> used(v.cluster_count + 2);
    for (uint32_t c : root_clusters) used[c] = true;
    std::vector<bytes> files;
    bytes bitmap;
    for (const chain &c : root_entries(v, root)) {
        std::vector<uint32_t> clusters;
        if (!walk(v, c, &clusters, &why)) return {found::broken, why};
        for (uint32_t k : clusters) {
            if (used[k]) return {found::broken, "cluster " + std::to_string(k) + " is cross-linked"};
            used[k] = true;
        }
        bytes content = read_clusters(v, clusters);
        content.resize(c.length);
        if (c.kind == chain::file) files.push_back(content);
        if (c.kind == chain::bitmap) bitmap = content;
    }
    for (uint32_t c = 2; c < v.cluster_count + 2; ++c) {
        const bool in_use = used[c], in_fat = v.next(c) != 0;
        const size_t bit = c - 2;
        const bool in_bitmap = v.fat_bits != 32 ? in_use : bit / 8 < bitmap.size() && bitmap[bit / 8] >> bit % 8 & 1;
        if (in_fat != in_use || in_bitmap != in_use) {
            return {found::broken, "cluster " + std::to_string(c) + (in_use ? " is free" : " is taken") + " in the " +
                                       (in_fat != in_use ? "FAT" : "bitmap")};
        }
    }
    if (v.serial == new_serial && files.empty()) return {found::new_volume, ""};
    if (v.serial == old_serial && files == old_files) return {found::old_volume, ""};
    return {found::broken, "serial " + std::to_string(v.serial) + " with " + std::to_string(files.size()) +
                               " files that are not the old volume's"};
}

// Where a reader finds a volume on the card, and what it finds there.
verdict inspect(qfs_device *dev, const card_case &card, uint64_t shared_start, const std::vector<bytes> &old_files) {
    const bytes mbr = read(dev, 0, 512);
    uint64_t start = shared_start;
    if (mbr[510] == 0x55 && mbr[511] == 0xAA && mbr[450] != 0) start = le(mbr, 454, 4) * 512;
    EXPECT_EQ(qfs_device_set_range(dev, start, card.sectors * 512 - start), QFS_OK);
    const bytes boot = read(dev, 0, 512);
    const bool marked = card.exfat ? memcmp(&boot[3], "EXFAT   ", 8) == 0 : boot[510] == 0x55 && boot[511] == 0xAA;
    if (!marked) return {found::none, ""};
    std::string why;
    const std::optional<volume_view> v = card.exfat ? open_exfat(dev, &why) : open_fat(dev, &why);
    return v ? judge(*v, old_files) : verdict{found::broken, why};
}

qfs_result format_card(qfs_device *dev, const card_case &card, uint32_t serial, bool discard) {
    const qfs_exfat_test::recorded_monitor quiet;
    const uint64_t seed = serial; // the MBR's disk signature
    qfs_random_set_fixed_seed_for_testing(&seed);
    qfs_result r = QFS_OK;
    if (card.exfat) {
        qfs_exfat_test::format_request request;
        request.serial = serial;
        request.discard = discard ? EXFAT_DISCARD_REGULAR : EXFAT_DISCARD_NONE;
        r = qfs_exfat_test::format_device(dev, request, quiet.get());
    } else {
        r = fat_format_volume(dev, false, false, false, false, false, discard ? FAT_DISCARD_REGULAR : FAT_DISCARD_NONE,
                              nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                              437, nullptr, 0, &serial, false, true, false, false, false, quiet.get());
    }
    qfs_random_set_fixed_seed_for_testing(nullptr);
    return r;
}

// The file, stream extension and name entries of one file. The name's hash
// and the set's checksum both rotate a 16-bit sum right and add a byte: over
// the up-cased name (in capitals already) and over the set but its checksum.
bytes exfat_entry_set(const std::string &name, uint32_t first_cluster, uint64_t length) {
    const auto add = [](uint16_t sum, uint8_t b) { return uint16_t((sum & 1 ? 0x8000 : 0) + (sum >> 1) + b); };
    bytes set(96, 0);
    set[0] = 0x85, set[1] = 2, set[4] = 0x20; // two secondary entries; the archive attribute
    set[32] = 0xC0, set[33] = 0x01, set[35] = uint8_t(name.size()), set[64] = 0xC1;
    uint16_t hash = 0;
    for (size_t k = 0; k < name.size(); ++k) {
        hash = add(add(hash, uint8_t(name[k])), 0);
        set[66 + 2 * k] = uint8_t(name[k]);
    }
    put_le(set, 36, hash, 2);
    put_le(set, 40, length, 8);
    put_le(set, 52, first_cluster, 4);
    put_le(set, 56, length, 8);
    uint16_t sum = 0;
    for (size_t k = 0; k < set.size(); ++k) sum = k == 2 || k == 3 ? sum : add(sum, set[k]);
    put_le(set, 2, sum, 2);
    return set;
}

// The files go to the first free clusters, one after the other, and their
// entry sets after the root directory's last entry.
void plant_exfat_files(const std::string &image, uint64_t start) {
    qfs_test::cut_card card(image, {});
    ASSERT_EQ(qfs_device_set_range(card.get(), start, qfs_test::file_size(image) - start), QFS_OK);
    std::string why;
    const std::optional<volume_view> v = open_exfat(card.get(), &why);
    ASSERT_TRUE(v) << why;
    const bytes root = read(v->dev, v->cluster_at(v->root_cluster), v->cluster_size);
    size_t slot = 0;
    while (root[slot] != 0) slot += 32;
    uint64_t bitmap_at = 0;
    for (const chain &c : root_entries(*v, root)) {
        if (c.kind == chain::bitmap) bitmap_at = start + v->cluster_at(c.first);
    }
    bytes bitmap = qfs_test::read_bytes(image, bitmap_at, (v->cluster_count + 7) / 8);
    uint32_t next = 2;
    while (v->next(next) != 0) ++next;
    for (size_t i = 0; i < std::size(file_sizes); ++i, slot += 96) {
        const uint32_t first = next;
        next += uint32_t((file_sizes[i] + v->cluster_size - 1) / v->cluster_size);
        bytes links((next - first) * 4);
        for (uint32_t c = first; c < next; ++c) {
            put_le(links, (c - first) * 4, c + 1 == next ? 0xFFFFFFFF : c + 1, 4);
            bitmap[(c - 2) / 8] |= uint8_t(1 << (c - 2) % 8);
        }
        qfs_test::write_bytes(image, start + v->cluster_at(first), file_bytes(i));
        qfs_test::write_bytes(image, start + v->fat_at + first * 4, links);
        qfs_test::write_bytes(image, start + v->cluster_at(v->root_cluster) + slot,
                              exfat_entry_set(file_name(i), first, file_sizes[i]));
    }
    qfs_test::write_bytes(image, bitmap_at, bitmap);
}

void plant_fat_files(const std::string &image, uint64_t start, const qfs_test::temp_dir &dir) {
    for (size_t i = 0; i < std::size(file_sizes); ++i) {
        const std::string file = dir.file(file_name(i));
        qfs_test::make_sparse_image(file, 0);
        qfs_test::write_bytes(file, 0, file_bytes(i));
        const qfs_test::run_result r =
            qfs_test::run_command({"mcopy", "-i", image + "@@" + std::to_string(start), file, "::" + file_name(i)},
                                  {{"MTOOLS_SKIP_CHECK=1"}, ""});
        ASSERT_EQ(r.exit_status, 0) << r.err;
    }
}

// Every state a cut can leave: at the start and at each sync, all writes
// before it and, of those up to the next sync, each prefix and random subsets
// in random order (which tells where writes overlap, as a discard does).
std::vector<landed_writes> cut_states(const qfs_test::kept_writes &kept) {
    std::vector<size_t> stops{0};
    stops.insert(stops.end(), kept.barriers.begin(), kept.barriers.end());
    std::mt19937_64 random(18);
    std::vector<landed_writes> states;
    for (size_t s = 0; s < stops.size(); ++s) {
        const size_t from = stops[s];
        const size_t to = s + 1 < stops.size() ? stops[s + 1] : kept.writes.size();
        landed_writes durable;
        for (size_t i = 0; i < from; ++i) durable.push_back(&kept.writes[i]);
        for (size_t k = from; k <= to; ++k) {
            states.push_back(durable);
            for (size_t i = from; i < k; ++i) states.back().push_back(&kept.writes[i]);
        }
        for (int n = 0; to > from && n < random_subsets; ++n) {
            states.push_back(durable);
            for (size_t i = from; i < to; ++i) {
                if (random() & 1) states.back().push_back(&kept.writes[i]);
            }
            std::shuffle(states.back().begin() + long(from), states.back().end(), random);
        }
    }
    return states;
}

// fsck on the partition of a state, cut out of the card into a file of its
// own, accepts exactly the states in which the tool's reader found a volume.
void fsck_agrees(const card_case &card, const std::string &old_card, const landed_writes &landed, found kind,
                 uint64_t start, const qfs_test::temp_dir &dir) {
    const std::string part = dir.file("partition.img");
    const uint64_t card_bytes = qfs_test::file_size(old_card);
    qfs_test::make_sparse_image(part, card_bytes - start);
    const int in = open(old_card.c_str(), O_RDONLY | O_CLOEXEC), fd = open(part.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_TRUE(in >= 0 && fd >= 0);
    std::vector<uint8_t> chunk(1 << 20); // only the old card's data extents, not its holes
    for (off_t at = lseek(in, off_t(start), SEEK_DATA); at >= 0 && uint64_t(at) < card_bytes;
         at = lseek(in, at, SEEK_DATA)) {
        const ssize_t n = pread(in, chunk.data(), chunk.size(), at);
        ASSERT_GT(n, 0);
        ASSERT_EQ(pwrite(fd, chunk.data(), size_t(n), at - off_t(start)), n);
        at += n;
    }
    close(in);
    for (const qfs_test::kept_write *w : landed) {
        if (w->position + w->length <= start) continue;
        const uint64_t from = std::max(w->position, start), length = w->position + w->length - from;
        const bool done = w->bytes.empty() // zeros become a hole, so that a discard of the card costs nothing
                              ? fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, off_t(from - start), off_t(length)) == 0
                              : pwrite(fd, w->bytes.data() + (from - w->position), length, off_t(from - start)) == ssize_t(length);
        EXPECT_TRUE(done) << strerror(errno);
    }
    close(fd);
    const qfs_test::run_result r = qfs_test::run_command({card.exfat ? "fsck.exfat" : "fsck.fat", "-n", part});
    EXPECT_EQ(r.exit_status == 0, kind != found::none) << r.out << r.err;
}

class PowerCut : public testing::TestWithParam<card_case> {
protected:
};

TEST_P(PowerCut, EveryStateIsBlankOldOrNew) {
    const card_case &card = GetParam();
    qfs_test::temp_dir dir;
    const std::string old_card = dir.file("old.img"), card_image = dir.file("card.img");
    qfs_test::make_sparse_image(old_card, card.sectors * 512);
    {
        qfs_device_test::device_handle dev;
        qfs_device_test::open_device(dev, old_card, 0);
        ASSERT_EQ(format_card(dev, card, old_serial, false), QFS_OK);
    }
    const uint64_t start = le(qfs_test::read_bytes(old_card, 454, 4), 0, 4) * 512;
    if (card.exfat) {
        ASSERT_NO_FATAL_FAILURE(plant_exfat_files(old_card, start));
    } else {
        if (!qfs_test::have_program("mcopy")) GTEST_SKIP() << "mtools missing";
        ASSERT_NO_FATAL_FAILURE(plant_fat_files(old_card, start, dir));
    }
    std::vector<bytes> old_files;
    for (size_t i = 0; i < std::size(file_sizes); ++i) old_files.push_back(file_bytes(i));

    qfs_test::must_run({"cp", "--sparse=always", old_card, card_image});
    qfs_test::kept_writes kept;
    {
        std::vector<std::string> journal;
        qfs_test::recording_device dev(card_image, &journal);
        dev.keep_writes(&kept);
        ASSERT_EQ(format_card(dev.get(), card, new_serial, card.discard), QFS_OK);
    }
    size_t counts[4] = {};
    for (const landed_writes &landed : cut_states(kept)) {
        const verdict v = inspect(qfs_test::cut_card(old_card, landed).get(), card, start, old_files);
        EXPECT_TRUE(v.kind != found::broken) << v.why << " with " << landed.size() << " writes landed";
        // An independent checker judges the first state of each kind too.
        if (v.kind != found::broken && counts[size_t(v.kind)]++ == 0) {
            fsck_agrees(card, old_card, landed, v.kind, start, dir);
        }
    }
    EXPECT_GT(counts[size_t(found::none)], 0u);
    EXPECT_GT(counts[size_t(found::old_volume)], 0u);
    EXPECT_GT(counts[size_t(found::new_volume)], 0u);
}

INSTANTIATE_TEST_SUITE_P(Cards, PowerCut, testing::ValuesIn(cards),
                         [](const testing::TestParamInfo<card_case> &info) { return std::string(info.param.name); });

} // namespace
