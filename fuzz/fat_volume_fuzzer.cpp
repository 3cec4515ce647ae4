// The FAT volume open over an image from the input, built once for each FAT
// type with that type's card (FUZZ_FAT_CARD): read-only in a code page the
// input's length picks, then with the tool's own flags after a format.
#include <cstddef>
#include <cstdint>

#include "device/qfs_device_owner.h"
#include "fat/volume.h"
#include "fat/volume_owner.h"
#include "fuzz/fuzz_cards.h"
#include "fuzz/memory_device.h"
#include "fuzz/zero_runs.h"
#include "support/qfs_codepage_tables.h"

namespace {

void open_volume(fuzz_memory_card *card, uint64_t device_flags, uint32_t flags) {
    qfs_device_owner device;
    if (fuzz_memory_device_create(card, device_flags, device.receive()) != QFS_OK) return;
    fat_volume_owner volume;
    if (fat_volume_create(device, flags, volume.receive()) != QFS_OK) return;
    fat_volume_info info{};
    if (fat_volume_get_info(volume, &info) != QFS_OK) return;
    (void)fat_volume_get_label(volume);
    (void)volume.close_and_destroy();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_memory_card card;
    card.device_bytes = FUZZ_FAT_CARD.bytes;
    fuzz_zero_runs_decode(data, size, &card);
    const uint32_t code_page = qfs_codepage_tables[size % qfs_codepage_tables_count].codepage;
    open_volume(&card, QFS_DEVICE_FLAG_READ_ONLY, FAT_VOLUME_READ_ONLY | code_page << FAT_VOLUME_CODEPAGE_SHIFT);
    open_volume(&card, 0, 437u << FAT_VOLUME_CODEPAGE_SHIFT);
    return 0;
}
