// The capacity check: does a card store every byte it claims? Counterfeit
// cards report a large size but hold far less; past their real end the
// address bits above it are ignored (writes land on earlier data), writes
// are dropped, or transfers fail. The probe writes blocks that carry their
// own address at addresses spread over the card, pushes them out of the
// card's write cache, reads them back, confirms a failure by a second write
// and read and narrows the real size to within 1% below it. Every byte it
// overwrites is saved first to an unlinked temporary file and put back at
// the end, also when interrupted, so that the card is as it was.
#pragma once

#include <cstdint>

#include "support/qfs_error.h"

struct qfs_device;

// What the probe tells its caller while it runs.
struct qfs_capacity_hooks {
    void *context;
    // Percent done of the whole check and the current step; may be null.
    void (*progress)(void *context, uint32_t percent, const char *step);
    // True once the user asked the run to stop; may be null.
    bool (*interrupted)(void *context);
    // Folder for the temporary file of saved blocks; null means "/var/tmp", then "/tmp".
    const char *save_folder;
    // Bytes written to push the probe out of the card's write cache; 0 means
    // 64 MiB, more than any card caches. A test layer without a cache needs less.
    uint64_t flush_bytes;
};

struct qfs_capacity_verdict {
    bool genuine;
    uint64_t claimed_bytes;
    uint64_t real_bytes;    // genuine: the claim; fake: at most the true size and at least 99% of it
    uint32_t addresses;     // distinct addresses written and read back
    uint64_t bytes_written; // by the probe, including what it put back
    uint64_t microseconds;
};

// Probes the first `claimed_bytes` of an open, writable device whose
// transfers bypass the page cache, and puts the card back before it returns.
// QFS_ERR_SYS_INTERRUPTED when the hooks reported an interruption.
[[nodiscard]] qfs_result qfs_capacity_probe(qfs_device *device, uint64_t claimed_bytes,
                                            const qfs_capacity_hooks *hooks, qfs_capacity_verdict *out_verdict);
