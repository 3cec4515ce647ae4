// The dry-run layer's pages: the hash table of page entries with its growth
// rule, the runs of zero pages, and the reads and writes that go through them.
#include <algorithm>
#include <cstring>
#include <new>

#include "device/qfs_device_shadow_io.h"
#include "support/qfs_logging.h"

namespace {

// The table grows once more than two entries per bucket would share the
// buckets beyond the first 13.
constexpr size_t growth_offset = 13;
constexpr size_t growth_load = 2;

bool all_zero(const uint8_t *bytes, size_t count) {
    return count == 0 || (bytes[0] == 0 && memcmp(bytes, bytes + 1, count - 1) == 0);
}

size_t bucket_of(const qfs_device_shadow_io_layer *shadow, uint64_t page_position, size_t bucket_count) {
    return static_cast<size_t>((page_position / shadow->page_size) % bucket_count);
}

qfs_shadow_entry *find_entry(qfs_device_shadow_io_layer *shadow, uint64_t page_position) {
    for (qfs_shadow_entry *e = &shadow->buckets[bucket_of(shadow, page_position, shadow->bucket_count)]; e != nullptr;
         e = e->next.get()) {
        if (!e->in_use) {
            if (e != &shadow->buckets[bucket_of(shadow, page_position, shadow->bucket_count)]) {
                QFS_LOG_ERROR("Found unused entry in shadow chain.");
            }
            return nullptr;
        }
        if (e->page_position == page_position) return e;
    }
    return nullptr;
}

// Puts an entry into a bucket array: in place when the bucket is free, else at the end of its chain.
void place(qfs_shadow_entry *buckets, size_t slot, std::unique_ptr<qfs_shadow_entry> entry) {
    entry->next.reset();
    qfs_shadow_entry *head = &buckets[slot];
    if (!head->in_use) {
        *head = std::move(*entry);
        return;
    }
    while (head->next) head = head->next.get();
    head->next = std::move(entry);
}

bool in_zero_run(const qfs_device_shadow_io_layer *shadow, uint64_t page) {
    auto it = shadow->zero_runs.upper_bound(page);
    return it != shadow->zero_runs.begin() && std::prev(it)->second > page;
}

// Adds one page to the runs, merging it with its neighbours. May throw std::bad_alloc.
void add_zero_page(qfs_device_shadow_io_layer *shadow, uint64_t page) {
    auto &runs = shadow->zero_runs;
    if (in_zero_run(shadow, page)) return;
    auto next = runs.find(page + 1);
    auto it = runs.upper_bound(page);
    if (it != runs.begin() && std::prev(it)->second == page) {
        auto previous = std::prev(it);
        previous->second = next != runs.end() ? next->second : page + 1;
        if (next != runs.end()) runs.erase(next);
        return;
    }
    const uint64_t end = next != runs.end() ? next->second : page + 1;
    if (next != runs.end()) runs.erase(next);
    runs.emplace(page, end);
}

// Takes one page out of the runs. May throw std::bad_alloc.
void remove_zero_page(qfs_device_shadow_io_layer *shadow, uint64_t page) {
    auto &runs = shadow->zero_runs;
    auto it = std::prev(runs.upper_bound(page));
    const uint64_t first = it->first, end = it->second;
    runs.erase(it);
    if (first < page) runs.emplace(first, page);
    if (page + 1 < end) runs.emplace(page + 1, end);
}

// Reads up to `count` bytes from the lower layer, as many calls as it takes.
qfs_result read_lower(qfs_device_shadow_io_layer *shadow, uint64_t position, size_t count, uint8_t *buffer,
                      size_t *out_read) {
    size_t done = 0;
    while (done < count) {
        size_t got = 0;
        const qfs_result r = shadow->lower->operations->pread(shadow->lower, nullptr, buffer + done, count - done,
                                                              position + done, 0, 0, &got);
        if (r != QFS_OK) return r;
        if (got == 0) break;
        done += got;
    }
    *out_read = done;
    return QFS_OK;
}

qfs_result new_entry(qfs_device_shadow_io_layer *shadow, uint64_t page_position,
                     std::unique_ptr<qfs_shadow_entry> *out_entry) {
    std::unique_ptr<qfs_shadow_entry> entry(new (std::nothrow) qfs_shadow_entry);
    std::unique_ptr<uint8_t[]> data(new (std::nothrow) uint8_t[shadow->page_size]);
    if (!entry || !data) return QFS_ERR_OUT_OF_MEMORY;
    size_t valid = 0;
    const qfs_result r = read_lower(shadow, page_position, shadow->page_size, data.get(), &valid);
    if (r != QFS_OK) return r;
    entry->in_use = true;
    entry->page_position = page_position;
    entry->page_size = shadow->page_size;
    entry->valid_length = valid;
    // A page of zeros (most of a new or sparse card) needs no buffer of its own.
    if (!all_zero(data.get(), valid)) entry->data = std::move(data);
    *out_entry = std::move(entry);
    return QFS_OK;
}

void insert_entry(qfs_device_shadow_io_layer *shadow, std::unique_ptr<qfs_shadow_entry> entry) {
    const size_t slot = bucket_of(shadow, entry->page_position, shadow->bucket_count);
    place(shadow->buckets.get(), slot, std::move(entry));
    ++shadow->active_entries;
}

// A page that the runs hold: all zeros and entirely inside the lower device.
qfs_result entry_from_zero_run(qfs_device_shadow_io_layer *shadow, uint64_t page_position,
                               qfs_shadow_entry **out_entry) {
    qfs_device_shadow_io_autoexpand_hash_table(shadow);
    std::unique_ptr<qfs_shadow_entry> entry(new (std::nothrow) qfs_shadow_entry);
    if (!entry) return QFS_ERR_OUT_OF_MEMORY;
    entry->in_use = true;
    entry->page_position = page_position;
    entry->page_size = shadow->page_size;
    entry->valid_length = shadow->page_size;
    remove_zero_page(shadow, page_position / shadow->page_size);
    insert_entry(shadow, std::move(entry));
    *out_entry = find_entry(shadow, page_position);
    return QFS_OK;
}

// Copies `count` bytes of `data` into the entry at `offset`; an entry of
// zeros gets a buffer only when the bytes are not zeros too.
qfs_result write_into(qfs_shadow_entry *entry, uint64_t offset, const uint8_t *data, size_t count) {
    const bool zeros = all_zero(data, count);
    if (!entry->data) {
        if (zeros) return QFS_OK;
        entry->data.reset(new (std::nothrow) uint8_t[entry->page_size]());
        if (!entry->data) return QFS_ERR_OUT_OF_MEMORY;
    }
    memcpy(entry->data.get() + offset, data, count);
    if (zeros && all_zero(entry->data.get(), entry->valid_length)) entry->data.reset();
    return QFS_OK;
}

bool is_open(const qfs_device_layer *layer) { return (layer->device->flags & QFS_DEVICE_FLAG_OPEN) != 0; }

qfs_device_shadow_io_layer *as_shadow(qfs_device_layer *layer) {
    return reinterpret_cast<qfs_device_shadow_io_layer *>(layer);
}

// Writes the part of a request that falls into one page; `out_done` 0 ends the walk.
qfs_result write_page_piece(qfs_device_shadow_io_layer *shadow, uint64_t position, const uint8_t *data, size_t count,
                            size_t *out_done) {
    const uint64_t page_position = position - position % shadow->page_size;
    const size_t piece = static_cast<size_t>(std::min<uint64_t>(count, page_position + shadow->page_size - position));
    qfs_shadow_entry *entry = find_entry(shadow, page_position);
    const uint64_t page = page_position / shadow->page_size;
    const bool whole_page = piece == shadow->page_size && page_position + piece <= shadow->lower_bytes;
    if (entry == nullptr && whole_page && all_zero(data, piece)) {
        add_zero_page(shadow, page);
        *out_done = piece;
        return QFS_OK;
    }
    qfs_result r = QFS_OK;
    if (entry == nullptr) {
        r = in_zero_run(shadow, page) ? entry_from_zero_run(shadow, page_position, &entry)
                                      : qfs_device_shadow_io_get_or_create_entry(shadow, position, &entry);
    }
    if (r != QFS_OK) {
        QFS_LOG_ERROR("Error while getting entry for position %llu: %lu (%s)",
                      static_cast<unsigned long long>(position), QFS_ERR_ARGS(r));
        return r;
    }
    const uint64_t offset = position - page_position;
    if (offset >= entry->valid_length) {
        QFS_LOG_ERROR("Write outside valid data length.");
        return QFS_ERR_IO_ERROR;
    }
    const size_t done = static_cast<size_t>(std::min<uint64_t>(piece, entry->valid_length - offset));
    r = write_into(entry, offset, data, done);
    if (r != QFS_OK) return r;
    *out_done = done;
    return QFS_OK;
}

// Reads the part of a request that falls into one page; `out_done` 0 ends the walk.
qfs_result read_page_piece(qfs_device_shadow_io_layer *shadow, uint64_t position, uint8_t *buffer, size_t count,
                           size_t *out_done) {
    const uint64_t page_position = position - position % shadow->page_size;
    const size_t piece = static_cast<size_t>(std::min<uint64_t>(count, page_position + shadow->page_size - position));
    const uint64_t offset = position - page_position;
    if (const qfs_shadow_entry *entry = find_entry(shadow, page_position)) {
        const size_t done = offset >= entry->valid_length
                                ? 0
                                : static_cast<size_t>(std::min<uint64_t>(piece, entry->valid_length - offset));
        if (entry->data) {
            memcpy(buffer, entry->data.get() + offset, done);
        } else {
            memset(buffer, 0, done);
        }
        *out_done = done;
        return QFS_OK;
    }
    if (in_zero_run(shadow, page_position / shadow->page_size)) {
        memset(buffer, 0, piece);
        *out_done = piece;
        return QFS_OK;
    }
    size_t got = 0;
    const qfs_result r = read_lower(shadow, position, piece, buffer, &got);
    if (r != QFS_OK) return r;
    // Short only where the device ends; anywhere else the device lost bytes.
    if (got < piece && position + got < shadow->lower_bytes) return QFS_ERR_IO_ERROR;
    *out_done = got;
    return QFS_OK;
}

} // namespace

void qfs_device_shadow_io_autoexpand_hash_table(qfs_device_shadow_io_layer *shadow) {
    if ((shadow->active_entries + 1) / (shadow->bucket_count - growth_offset) <= growth_load) {
        return;
    }
    const size_t new_count = shadow->bucket_count * 2 - growth_offset;
    std::unique_ptr<qfs_shadow_entry[]> grown(new (std::nothrow) qfs_shadow_entry[new_count]);
    // Entries that sit in place in the old buckets need a node of their own
    // for the move; all are allocated first, so that a failure changes nothing.
    size_t heads = 0;
    for (size_t b = 0; b < shadow->bucket_count; ++b) heads += shadow->buckets[b].in_use ? 1 : 0;
    std::unique_ptr<std::unique_ptr<qfs_shadow_entry>[]> nodes(new (std::nothrow)
                                                                   std::unique_ptr<qfs_shadow_entry>[heads]);
    for (size_t i = 0; nodes && i < heads; ++i) {
        nodes[i].reset(new (std::nothrow) qfs_shadow_entry);
        if (!nodes[i]) nodes.reset();
    }
    if (!grown || !nodes) {
        return; // the old buckets stay; lookups only get slower
    }
    size_t next_node = 0;
    for (size_t b = 0; b < shadow->bucket_count; ++b) {
        qfs_shadow_entry &head = shadow->buckets[b];
        std::unique_ptr<qfs_shadow_entry> chain = std::move(head.next);
        if (head.in_use) {
            std::unique_ptr<qfs_shadow_entry> moved = std::move(nodes[next_node++]);
            *moved = std::move(head);
            const size_t slot = bucket_of(shadow, moved->page_position, new_count);
            place(grown.get(), slot, std::move(moved));
        }
        while (chain) {
            std::unique_ptr<qfs_shadow_entry> rest = std::move(chain->next);
            if (chain->in_use) {
                const size_t slot = bucket_of(shadow, chain->page_position, new_count);
                place(grown.get(), slot, std::move(chain));
            } else {
                QFS_LOG_WARNING("Found unused entry at non-root position in shadow chain. Possibly leaking...");
            }
            chain = std::move(rest);
        }
    }
    shadow->buckets = std::move(grown);
    shadow->bucket_count = new_count;
}

qfs_result qfs_device_shadow_io_get_or_create_entry(qfs_device_shadow_io_layer *shadow, uint64_t position,
                                                    qfs_shadow_entry **out_entry) {
    qfs_device_shadow_io_autoexpand_hash_table(shadow);
    const uint64_t page_position = position - position % shadow->page_size;
    if (qfs_shadow_entry *found = find_entry(shadow, page_position)) {
        *out_entry = found;
        return QFS_OK;
    }
    std::unique_ptr<qfs_shadow_entry> entry;
    const qfs_result r = new_entry(shadow, page_position, &entry);
    if (r != QFS_OK) return r;
    insert_entry(shadow, std::move(entry));
    *out_entry = find_entry(shadow, page_position);
    return QFS_OK;
}

qfs_result qfs_device_shadow_io_pread(qfs_device_layer *layer, qfs_io_context *, void *buffer, size_t count,
                                      uint64_t position, size_t, uint32_t, size_t *out_bytes_read) {
    if (layer == nullptr || out_bytes_read == nullptr || !is_open(layer)) return QFS_ERR_INVALID_PARAMETER;
    if (buffer == nullptr) return QFS_ERR_UNSUPPORTED_FEATURE; // no phantom transfers through the shadow
    QFS_TRACE("%s: Entering", "qfs_device_shadow_io_pread");
    qfs_device_shadow_io_layer *shadow = as_shadow(layer);
    auto *bytes = static_cast<uint8_t *>(buffer);
    size_t done = 0;
    while (done < count) {
        size_t piece = 0;
        const qfs_result r = read_page_piece(shadow, position + done, bytes + done, count - done, &piece);
        if (r != QFS_OK) return r;
        if (piece == 0) break;
        done += piece;
    }
    *out_bytes_read = done;
    return QFS_OK;
}

qfs_result qfs_device_shadow_io_pwrite(qfs_device_layer *layer, qfs_io_context *, const void *buffer, size_t count,
                                       uint64_t position, uint32_t, size_t *out_bytes_written) {
    if (layer == nullptr || out_bytes_written == nullptr || !is_open(layer)) return QFS_ERR_INVALID_PARAMETER;
    if (buffer == nullptr) return QFS_ERR_UNSUPPORTED_FEATURE;
    QFS_TRACE("%s: Entering", "qfs_device_shadow_io_pwrite");
    qfs_device_shadow_io_layer *shadow = as_shadow(layer);
    const auto *bytes = static_cast<const uint8_t *>(buffer);
    try {
        for (size_t done = 0; done < count;) {
            size_t piece = 0;
            const qfs_result r = write_page_piece(shadow, position + done, bytes + done, count - done, &piece);
            if (r != QFS_OK) return r;
            if (piece == 0) break;
            done += piece;
        }
    } catch (const std::bad_alloc &) {
        return QFS_ERR_OUT_OF_MEMORY; // the runs of zero pages could not grow
    }
    *out_bytes_written = count;
    return QFS_OK;
}
