// Holding a card for the whole of a format. A block device is opened
// exclusively (unless the run is forced), so that no mount and no second
// formatter can claim it, and the device node or image carries an exclusive
// BSD lock, the convention by which udev and systemd keep their probes and
// automounts off a device that a tool is rewriting. Releasing the hold after
// the final sync lets them see the new partition table.
#pragma once

#include <sys/types.h>

#include "support/qfs_error.h"

struct qfs_device_hold;

// QFS_ERR_SYS_BUSY when another process holds the device or its lock.
[[nodiscard]] qfs_result qfs_device_hold_create(const char *path, bool exclusive, qfs_device_hold **out_hold);
// Releases the lock and the descriptor; a null hold is a no-op.
void qfs_device_hold_destroy(qfs_device_hold **hold);

// True when this process holds the block device `device_number` exclusively:
// its own claim is not someone else's use.
bool qfs_device_hold_is_ours(dev_t device_number);
// The descriptor that claims `device_number` for this process, or -1.
int qfs_device_hold_fd(dev_t device_number);
