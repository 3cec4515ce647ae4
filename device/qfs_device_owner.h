// An owner of a device from its creation to its destruction.
#pragma once

#include "device/qfs_device.h"
#include "support/qfs_error.h"

// Closes the device when it is open and destroys it, at the latest when the
// owner goes; a failure of either is logged, and the first one answered.
class qfs_device_owner {
public:
    qfs_device_owner() = default;
    ~qfs_device_owner();
    qfs_device_owner(const qfs_device_owner &) = delete;
    qfs_device_owner &operator=(const qfs_device_owner &) = delete;

    // Where qfs_device_create and its variants put the new device.
    qfs_device **receive() { return &device_; }
    qfs_device *get() const { return device_; }
    operator qfs_device *() const { return device_; }
    qfs_device *operator->() const { return device_; }

    // Closes and destroys now; an owner without a device answers QFS_OK.
    [[nodiscard]] qfs_result close_and_destroy();

private:
    qfs_device *device_ = nullptr;
};
