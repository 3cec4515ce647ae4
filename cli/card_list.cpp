#include "cli/card_list.h"

#include <cstdio>
#include <new>
#include <vector>

#include "cli/fixed_disk_guard.h"
#include "cli/format_output.h"
#include "cli/standard_streams.h"
#include "support/qfs_logging.h"
#include "support/qfs_memory.h"

namespace {

using disk_list = qfs_owned<qfs_disk_list, qfs_disk_list_destroy>;

constexpr uint32_t mib = 1u << 20;

format_list_entry make_entry(const qfs_disk *disk) {
    format_list_entry e{disk, format_disk_takes_cards(disk), false, {}, {}};
    if (!e.takes_cards) {
        snprintf(e.verdict, sizeof(e.verdict), "fixed disk");
        return e;
    }
    if (disk->size_bytes == 0) {
        snprintf(e.verdict, sizeof(e.verdict), "no card");
        return e;
    }
    const uint64_t sectors = disk->size_bytes / 512;
    e.planned = format_card_plan_make(sectors, &e.plan) == QFS_OK;
    if (!e.planned) {
        snprintf(e.verdict, sizeof(e.verdict), "%s, too small (--tca-relax formats it)",
                 format_card_class_name(sectors));
    } else {
        const uint32_t bytes = e.plan.cluster_bytes;
        snprintf(e.verdict, sizeof(e.verdict), "%s, %s, %u %s clusters", e.plan.class_name, e.plan.file_system,
                 bytes >= mib ? bytes / mib : bytes / 1024, bytes >= mib ? "MiB" : "KiB");
    }
    return e;
}

void print_size(const format_list_entry &e) {
    const qfs_disk &d = *e.disk;
    if (d.attachment == QFS_DISK_UNKNOWN) {
        fputs("size unknown", stdout);
    } else if (d.size_bytes == 0) {
        fputs(e.takes_cards ? "no card" : "no medium", stdout);
    } else {
        char size[FORMAT_SIZE_TEXT_SIZE];
        format_size_text(d.size_bytes, size, sizeof(size));
        fputs(size, stdout);
    }
}

// "; card SD32G, manufacturer 0x000003, OEM 0x5344, made 01/2020" for a card on
// the MMC bus, "; vendor model" for others; nothing when sysfs names neither.
void print_identity(const qfs_disk &d) {
    const char *const labels[] = {"card ", "manufacturer ", "OEM ", "made "};
    const char *const card[] = {d.card_name, d.card_manfid, d.card_oemid, d.card_date};
    const char *separator = "; ";
    for (size_t i = 0; i < 4; ++i) {
        if (*card[i] == '\0') continue;
        printf("%s%s%s", separator, labels[i], card[i]);
        separator = ", ";
    }
    if (*d.vendor != '\0' || *d.model != '\0') {
        printf("; %s%s%s", d.vendor, *d.vendor != '\0' && *d.model != '\0' ? " " : "", d.model);
    }
}

void print_line(const format_list_entry &e) {
    const qfs_disk &d = *e.disk;
    printf("%s: ", d.path);
    print_size(e);
    printf("; %s", qfs_disk_attachment_name(d.attachment));
    if (d.removable) fputs(", removable", stdout);
    if (*d.backing_file != '\0') printf(", %s", d.backing_file);
    print_identity(d);
    for (size_t i = 0; i < d.mount_count; ++i) {
        printf("%s%s on %s", i == 0 ? "; mounted: " : ", ", d.mounts[i].device, d.mounts[i].mount_point);
    }
    printf("; %s\n", e.verdict);
}

} // namespace

qfs_result format_list_disks(const qfs_system_paths *paths, bool all, bool json) {
    qfs_disk_list *raw = nullptr;
    const qfs_result r = qfs_disk_list_create(paths, &raw);
    if (r != QFS_OK) {
        return r;
    }
    const disk_list list(raw);
    std::vector<format_list_entry> entries;
    bool any_card = false;
    try {
        for (size_t i = 0; i < qfs_disk_list_count(list.get()); ++i) {
            const qfs_disk *disk = qfs_disk_list_at(list.get(), i);
            const bool detached_loop = disk->attachment == QFS_DISK_LOOP && *disk->backing_file == '\0';
            const format_list_entry e = make_entry(disk);
            if (detached_loop || !(e.takes_cards || all)) continue;
            entries.push_back(e);
            any_card = any_card || e.takes_cards;
        }
    } catch (const std::bad_alloc &) {
        QFS_LOG_ERROR("Error while listing the disks: %lu (%s)", QFS_ERR_ARGS(QFS_ERR_OUT_OF_MEMORY));
        return QFS_ERR_OUT_OF_MEMORY;
    }
    if (json) {
        format_list_print_json(entries.data(), entries.size());
    } else {
        for (const auto &e : entries) print_line(e);
        if (!any_card) fputs("No card reader, removable disk or loop device found.\n", stdout);
    }
    format_flush(stdout);
    return QFS_OK;
}
