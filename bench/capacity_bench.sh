#!/usr/bin/env bash
# The capacity check next to f3probe (a benchmark, not a test; needs root,
# loop devices, /dev/fuse, python3-fusepy and f3: bash tools/install-deps.sh bench).
#
#     bash bench/capacity_bench.sh [path/to/format_tarn]
#
# Cards, each a loop device: a genuine 64 GiB card (a sparse image), and
# 64 GiB fakes storing 8 GiB and 1 GiB (tests/cli/fake_card_fuse.py: a FUSE
# file whose writes past the real size wrap onto the start). For each card:
# `format_tarn --check-capacity` (the check's own time from its message; on
# the genuine card the whole run, format included, gives the peak memory)
# and `f3probe` (its default, non-destructive mode), wall time and peak
# resident memory from GNU time, and each one's verdict.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
tool=${1:-$here/build/test/format_tarn}
work=$(mktemp -d /var/tmp/capacity-bench.XXXXXX)
loops=()
cleanup() {
    for l in "${loops[@]}"; do losetup -d "$l" 2>/dev/null || true; done
    for m in "$work"/mnt-*; do [ -d "$m" ] && fusermount -u "$m" 2>/dev/null || true; done
    rm -rf "$work"
}
trap cleanup EXIT

GiB=$((1 << 30))
card() { # name real-bytes (0: genuine)
    if [ "$2" = 0 ]; then
        truncate -s $((64 * GiB)) "$work/$1"
        loops+=("$(losetup -f --show "$work/$1")")
    else
        truncate -s "$2" "$work/$1.flash"
        mkdir "$work/mnt-$1"
        setsid /usr/bin/python3 "$here/tests/cli/fake_card_fuse.py" "$work/mnt-$1" "$work/$1.flash" $((64 * GiB)) \
            >/dev/null 2>&1 &
        for _ in $(seq 100); do [ -e "$work/mnt-$1/card" ] && break; sleep 0.05; done
        loops+=("$(losetup -f --show "$work/mnt-$1/card")")
    fi
}
measure() { # label command...
    local out
    out=$(/usr/bin/time -f 'TIME %e s, %M KiB' "${@:2}" 2>&1 || true)
    printf '%-34s %s | %s\n' "$1" "$(grep -o 'TIME.*' <<<"$out" | sed 's/TIME //')" \
        "$(grep -E 'Capacity check|Fake capacity|news|Usable size|Probe time' <<<"$out" |
            sed -E 's/.*(read back right in [0-9.]+ s|stores only [^)]*\)).*/\1/; s/^[[:space:]]+//' | tr '\n' ' ')"
}

card genuine 0
card fake8 $((8 * GiB))
card fake1 $((1 * GiB))
i=0
for name in genuine-64G fake-64G-storing-8G fake-64G-storing-1G; do
    dev=${loops[$i]}
    measure "$name format_tarn" "$tool" --check-capacity "$dev"
    measure "$name f3probe" f3probe "$dev"
    i=$((i + 1))
done
