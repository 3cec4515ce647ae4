// Reading the bytes of a cluster chain in order: clusters that follow one
// another on disk (a contiguous object) or the chain the FAT records.
#pragma once

#include <cstddef>
#include <cstdint>

#include "device/qfs_device.h"
#include "exfat/fat_table.h"
#include "exfat/volume_geometry.h"
#include "support/qfs_error.h"

struct exfat_cluster_stream;

// `data_length` bytes starting at `first_cluster`. With `contiguous` set the
// clusters follow one another and the FAT is not consulted. The geometry and
// the FAT must outlive the stream.
[[nodiscard]] qfs_result exfat_cluster_stream_create(qfs_device *device, const exfat_geometry *geometry, exfat_fat *fat,
                                                     uint32_t first_cluster, uint64_t data_length, bool contiguous,
                                                     exfat_cluster_stream **out_stream);
[[nodiscard]] qfs_result exfat_cluster_stream_destroy(exfat_cluster_stream **stream);

// Reads up to `count` bytes from where the last read stopped. Fewer bytes come
// back at the end of the data, or when the chain ends before the data does.
[[nodiscard]] qfs_result exfat_cluster_stream_read(exfat_cluster_stream *stream, void *buffer, size_t count,
                                                   size_t *out_read);
