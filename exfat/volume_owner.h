// An owner of an open exFAT volume.
#pragma once

#include "exfat/volume.h"
#include "support/qfs_volume_owner.h"

using exfat_volume_owner = qfs_volume_owner<exfat_volume, exfat_volume_close, exfat_volume_destroy>;
