// The exFAT volume open over an image from the input: once read-only, the
// way a reader looks at a card, and once the way the tool proves a card it
// has just formatted (a writable open that marks the volume dirty, and the
// close that clears the flag and stores the percentage in use).
#include <cstddef>
#include <cstdint>

#include "device/qfs_device_owner.h"
#include "exfat/volume.h"
#include "exfat/volume_owner.h"
#include "fuzz/fuzz_cards.h"
#include "fuzz/memory_device.h"
#include "fuzz/zero_runs.h"

namespace {

void open_volume(fuzz_memory_card *card, bool read_only) {
    qfs_device_owner device;
    const uint64_t device_flags = read_only ? uint64_t{QFS_DEVICE_FLAG_READ_ONLY} : 0;
    if (fuzz_memory_device_create(card, device_flags, device.receive()) != QFS_OK) return;
    exfat_volume_owner volume;
    if (exfat_volume_create(device, read_only ? EXFAT_VOLUME_READ_ONLY : 0, volume.receive()) != QFS_OK) return;
    exfat_volume_info info{};
    if (exfat_volume_get_info(volume, &info) != QFS_OK) return;
    (void)exfat_volume_get_label(volume);
    uint8_t guid[16];
    (void)exfat_volume_get_guid(volume, guid);
    (void)volume.close_and_destroy();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_memory_card card;
    card.device_bytes = fuzz_exfat_card_bytes;
    fuzz_zero_runs_decode(data, size, &card);
    open_volume(&card, true);
    open_volume(&card, false);
    return 0;
}
