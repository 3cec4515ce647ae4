// The JSON form of --list, for front ends: every field named, sizes in bytes,
// null where sysfs has nothing to say. Texts from sysfs and the mount table
// are escaped, and bytes that are not UTF-8 become U+FFFD, so the document
// always parses.
#include <cstdio>
#include <cstring>

#include "cli/card_list.h"

namespace {

// The length of the UTF-8 sequence at `text`, or 0 when it is not one.
size_t utf8_sequence_length(const unsigned char *text) {
    const unsigned char lead = text[0];
    size_t length = 0;
    unsigned char low = 0x80, high = 0xBF; // the second byte's range
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;  // no overlong forms
        if (lead == 0xED) high = 0x9F; // no surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F; // nothing above U+10FFFF
    } else {
        return 0;
    }
    if (text[1] < low || text[1] > high) return 0;
    for (size_t i = 2; i < length; ++i) {
        if (text[i] < 0x80 || text[i] > 0xBF) return 0;
    }
    return length;
}

void put_string(const char *text) {
    fputc('"', stdout);
    for (const auto *p = reinterpret_cast<const unsigned char *>(text); *p != 0;) {
        if (*p == '"' || *p == '\\') {
            printf("\\%c", *p++);
        } else if (*p < 0x20 || *p == 0x7F) {
            printf("\\u%04x", *p++);
        } else if (*p < 0x80) {
            fputc(*p++, stdout);
        } else if (const size_t length = utf8_sequence_length(p); length != 0) {
            fwrite(p, 1, length, stdout);
            p += length;
        } else {
            fputs("\\ufffd", stdout);
            ++p;
        }
    }
    fputc('"', stdout);
}

// A text, null when empty.
void put_text(const char *text) {
    if (*text == '\0') {
        fputs("null", stdout);
    } else {
        put_string(text);
    }
}

void put_text_field(const char *name, const char *text) {
    printf(", \"%s\": ", name);
    put_text(text);
}

void put_card(const qfs_disk &d) {
    fputs(", \"card\": ", stdout);
    if (d.attachment != QFS_DISK_MMC) {
        fputs("null", stdout);
        return;
    }
    fputs("{\"name\": ", stdout);
    put_text(d.card_name);
    put_text_field("manfid", d.card_manfid);
    put_text_field("oemid", d.card_oemid);
    put_text_field("date", d.card_date);
    fputs("}", stdout);
}

void put_entry(const format_list_entry &e) {
    const qfs_disk &d = *e.disk;
    const bool known = d.attachment != QFS_DISK_UNKNOWN;
    fputs("{\"path\": ", stdout);
    put_string(d.path);
    printf(", \"attachment\": \"%s\", \"removable\": %s, \"fixed\": %s", qfs_disk_attachment_name(d.attachment),
           d.removable ? "true" : "false", e.takes_cards ? "false" : "true");
    if (known) {
        printf(", \"size_bytes\": %llu, \"logical_block_size\": %u", static_cast<unsigned long long>(d.size_bytes),
               d.logical_block_size);
    } else {
        fputs(", \"size_bytes\": null, \"logical_block_size\": null", stdout);
    }
    put_text_field("vendor", d.vendor);
    put_text_field("model", d.model);
    put_card(d);
    put_text_field("backing_file", d.backing_file);
    fputs(", \"mounted\": [", stdout);
    for (size_t i = 0; i < d.mount_count; ++i) {
        fputs(i == 0 ? "{\"device\": " : ", {\"device\": ", stdout);
        put_string(d.mounts[i].device);
        fputs(", \"mount_point\": ", stdout);
        put_string(d.mounts[i].mount_point);
        fputs("}", stdout);
    }
    fputs("], \"format\": ", stdout);
    put_string(e.verdict);
    put_text_field("class", e.planned ? e.plan.class_name : "");
    put_text_field("file_system", e.planned ? e.plan.file_system : "");
    if (e.planned) {
        printf(", \"cluster_bytes\": %u}", e.plan.cluster_bytes);
    } else {
        fputs(", \"cluster_bytes\": null}", stdout);
    }
}

} // namespace

void format_list_print_json(const format_list_entry *entries, size_t count) {
    fputs("{\"devices\": [", stdout);
    for (size_t i = 0; i < count; ++i) {
        fputs(i == 0 ? "\n  " : ",\n  ", stdout);
        put_entry(entries[i]);
    }
    fputs(count == 0 ? "]}\n" : "\n]}\n", stdout);
}
