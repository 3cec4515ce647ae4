// An owner of an open FAT volume.
#pragma once

#include "fat/volume.h"
#include "support/qfs_volume_owner.h"

using fat_volume_owner = qfs_volume_owner<fat_volume, fat_volume_close, fat_volume_destroy>;
