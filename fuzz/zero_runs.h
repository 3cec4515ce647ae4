// How the volume fuzz targets read an image from their input. A formatted
// card is almost all zeros, so the input keeps the image's bytes with every
// run of zeros written as one 0 byte followed by the run's length less one
// (LEB128: seven bits a byte, lowest first, the top bit set on every byte
// but the last). A 32 MiB FAT32 volume fits in a few KiB, and a mutated
// byte stays where it was in the image.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz/memory_device.h"

// Decodes `input` into the extents of `card`, stopping at its device size. A
// run length cut off by the end of the input counts as far as it got.
void fuzz_zero_runs_decode(const uint8_t *input, size_t size, fuzz_memory_card *card);

// The encoding of `image`; its trailing zeros are left out.
std::vector<uint8_t> fuzz_zero_runs_encode(const std::vector<uint8_t> &image);
