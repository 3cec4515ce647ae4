#!/usr/bin/env bash
# Write benchmarks for format_tarn (a benchmark, not a test: ctest never runs it).
#
#     bash bench/run_benchmarks.sh [--runs N] [--syscalls]
#
# Builds the release tool and bench/exfat_overwrite_bench (cmake Release in
# build/bench, -DQFS_BUILD_BENCH=ON) and times these cases on sparse images
# in a temporary folder under build/bench (deleted at the end, also on
# failure or Ctrl-C):
#
#   quick-64G     format_tarn on a 64 GiB image (exFAT, MBR)
#   quick-2T      format_tarn --tca-relax on a 2 TiB image (4294967296
#                 sectors: the gap between TNC and TNE, so relaxed; GPT)
#   overwrite-4G  exfat_overwrite_bench on a 4 GiB image: the exFAT engine
#                 with zero_data and default geometry, so the padded writer
#                 and the zero-fill walk write every byte of the image
#   fat-2G        format_tarn --tca-relax on a 2 GiB image (4194304 sectors:
#                 the gap between Tarn and TNB cards, so relaxed; FAT16)
#   fat-32G       format_tarn on the largest FAT card, 66945024 sectors
#                 (31.9 GiB: a 32 GiB image would get exFAT; FAT32)
#   fat-ow-4G     format_tarn --overwrite on a 4 GiB image (8388608 sectors,
#                 a TNB card: FAT32), every byte of the card written
#   dry-2T        format_tarn --dry-run --tca-relax on a 2 TiB image, and
#                 the same with --overwrite: every write is kept in memory
#
# Next to each: mkfs.exfat or mkfs.fat on an image of the same size (their
# quick formats; neither has an overwrite), and dd if=/dev/zero conv=fsync
# writing as many bytes as our program wrote (4 GiB for the overwrites).
#
# Each program runs N times (default 3) on a fresh image; the table shows
# medians. Before every run the file system is synced and, as root, the
# page cache dropped. Per run:
#   wall s        elapsed time around the process (date +%s%N)
#   bytes written the process's write_bytes (bytes it dirtied in the page
#                 cache, a page counted again when rewritten after writeback),
#                 read as "file system outputs" * 512 from /usr/bin/time
#   max RSS       peak resident set of the process from /usr/bin/time
# Below the table: the allocation of the image afterwards (du; bytes written
# more than once show up as the difference to "bytes written") and the CPU
# time, which the shared disk's noise does not touch.
#
# Targets, printed as PASS/FAIL lines:
#   - each overwrite reaches at least 90% of dd's throughput;
#   - a quick format takes at most 1.2 x dd's time for the bytes it writes;
#   - every run of our programs peaks below 16 MiB resident, whatever the
#     card size (checked on the worst run);
#   - a dry run of a 2 TiB card, with or without --overwrite, peaks below 64 MiB.
#
# --syscalls adds one run of each of our programs under strace and prints
# its count of pwrite/pread/fsync calls, bytes, the pwrite sizes and the time
# each fsync took (what the format's sync points cost).
#
# Needs about 5 GiB free on the build folder's file system (the overwrite
# image and dd's copy of it are real data, one at a time). The raw runs are
# kept in build/bench/bench-runs.tsv.
#
# Exit status: 0 all targets met, 1 a target failed, 2 the benchmark could
# not run.
set -euo pipefail
cd "$(dirname "$0")/.."

runs=3
syscalls=0
while [ $# -gt 0 ]; do
    case $1 in
        --runs) runs=$2; shift 2 ;;
        --syscalls) syscalls=1; shift ;;
        *) echo "usage: $0 [--runs N] [--syscalls]" >&2; exit 2 ;;
    esac
done

[[ $runs =~ ^[1-9][0-9]*$ ]] || { echo "--runs takes a positive count" >&2; exit 2; }

build=build/bench
gib=$((1024 * 1024 * 1024))
need_free=$((5 * gib))

die() { echo "error: $*" >&2; exit 2; }

bash tools/install-deps.sh bench || die "installing the packages failed"
echo "== building (Release, $build)"
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DQFS_BUILD_TESTS=OFF -DQFS_BUILD_BENCH=ON >/dev/null \
    || die "cmake configure failed"
cmake --build "$build" -j2 --target format_tarn exfat_overwrite_bench >"$build/bench-build.log" 2>&1 \
    || { tail -20 "$build/bench-build.log" >&2; die "build failed (log: $build/bench-build.log)"; }
tool=$PWD/$build/format_tarn
overwrite=$PWD/$build/bench/exfat_overwrite_bench

work=$(mktemp -d "$PWD/$build/images.XXXXXX")
cleanup() { rm -rf "$work"; }
trap cleanup EXIT
trap 'exit 130' INT TERM

free=$(df -B1 --output=avail "$work" | tail -1 | tr -d ' ')
[ "$free" -ge "$need_free" ] || die "only $free bytes free under $work; $need_free needed"

can_drop=0
if sync && echo 3 2>/dev/null >/proc/sys/vm/drop_caches; then can_drop=1; fi

# ---- machine facts ----------------------------------------------------------
source_dev=$(findmnt -n -o SOURCE -T "$work")
disk=$(lsblk -n -d -o PKNAME "$source_dev" 2>/dev/null | head -1)
[ -n "$disk" ] || disk=$(basename "$source_dev")
echo "== machine"
echo "cpu:        $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'), $(nproc) cores"
echo "memory:     $(awk '/MemTotal/ {printf "%.1f GiB", $2 / 1048576}' /proc/meminfo)"
echo "kernel:     $(uname -r)"
echo "images in:  $work"
echo "filesystem: $(findmnt -n -o FSTYPE,SOURCE,OPTIONS -T "$work")"
echo "disk:       $disk $(lsblk -n -d -o SIZE,ROTA,MODEL "/dev/$disk" 2>/dev/null | sed 's/  */ /g')" \
     "(rotational flag; scheduler $(cat "/sys/block/$disk/queue/scheduler" 2>/dev/null || echo '?'))"
echo "space:      $(df -h --output=size,used,avail "$work" | tail -1 | sed 's/  */ /g') (size used avail)"
echo "dirty:      vm.dirty_ratio=$(cat /proc/sys/vm/dirty_ratio) vm.dirty_background_ratio=$(cat /proc/sys/vm/dirty_background_ratio)"
echo "caches:     $([ $can_drop = 1 ] && echo 'dropped before every run' || echo 'NOT dropped (not root)')"
echo "versions:   $(mkfs.exfat -V 2>&1 | head -1); $(mkfs.fat --help 2>&1 | head -1);" \
     "dd $(dd --version | head -1 | awk '{print $NF}')"

# ---- measuring one run ------------------------------------------------------
tsv=$build/bench-runs.tsv
printf 'case\tprogram\trun\twall_s\tbytes_written\tmax_rss_kib\tallocated_bytes\tcpu_s\n' >"$tsv"

settle() {
    sync
    if [ $can_drop = 1 ]; then echo 3 >/proc/sys/vm/drop_caches; fi
}

allocated() { [ -e "$1" ] && du -B1 "$1" | cut -f1 || echo 0; }

# measure CASE PROGRAM RUN FILE CMD...: runs CMD once, appends a line to the
# TSV; FILE is the image or output whose allocation is reported.
measure() {
    local case_name=$1 program=$2 run=$3 file=$4
    shift 4
    settle
    local t0 t1 status=0
    t0=$(date +%s%N)
    /usr/bin/time -f '%M %O %U %S' -o "$work/time.out" "$@" >"$work/stdout" 2>"$work/stderr" || status=$?
    t1=$(date +%s%N)
    if [ $status -ne 0 ]; then
        tail -5 "$work/stderr" >&2
        die "$program ($case_name) failed with status $status"
    fi
    local rss outputs user system
    read -r rss outputs user system <"$work/time.out"
    printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$case_name" "$program" "$run" \
        "$(awk -v a="$t0" -v b="$t1" 'BEGIN {printf "%.3f", (b - a) / 1e9}')" \
        $((outputs * 512)) "$rss" "$(allocated "$file")" "$(awk -v u="$user" -v s="$system" 'BEGIN {print u + s}')" \
        >>"$tsv"
}

# median CASE PROGRAM COLUMN (4 wall, 5 bytes, 6 rss, 7 allocated, 8 cpu)
median() {
    awk -F'\t' -v c="$1" -v p="$2" -v k="$3" '$1 == c && $2 == p {print $k}' "$tsv" | sort -g |
        awk '{v[NR] = $1} END {if (NR == 0) exit 1; printf "%.6f\n", (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2}'
}
worst() { awk -F'\t' -v c="$1" -v p="$2" -v k="$3" '$1 == c && $2 == p && $k > m {m = $k} END {print m + 0}' "$tsv"; }

fresh_image() { rm -f "$1"; truncate -s "$2" "$1"; }

# run_case CASE SIZE KIND MKFS [TOOL-ARGS...]: rounds of our program, MKFS
# (mkfs.exfat or mkfs.fat) and dd, interleaved so that drift in the shared
# disk's speed hits all three alike. KIND is quick (format_tarn), overwrite
# (format_tarn --overwrite) or engine-overwrite (exfat_overwrite_bench). dd
# writes the bytes our program wrote in the first round (quick) or the whole
# size (the overwrites).
run_case() {
    local case_name=$1 size=$2 kind=$3 mkfs=$4
    shift 4
    local image=$work/card.img i dd_bytes=$size
    echo "== $case_name ($size bytes)"
    for i in $(seq "$runs"); do
        fresh_image "$image" "$size"
        case $kind in
            quick)
                measure "$case_name" format_tarn "$i" "$image" "$tool" --tca-formatter-progress "$@" "$image"
                if [ "$i" = 1 ]; then dd_bytes=$(tail -1 "$tsv" | cut -f5); fi ;;
            overwrite)
                measure "$case_name" format_tarn-overwrite "$i" "$image" \
                    "$tool" --overwrite --tca-formatter-progress "$@" "$image" ;;
            engine-overwrite) measure "$case_name" exfat_overwrite_bench "$i" "$image" "$overwrite" "$image" ;;
        esac
        fresh_image "$image" "$size"
        measure "$case_name" "$mkfs" "$i" "$image" "$mkfs" "$image"
        rm -f "$image" "$work/dd.out"
        measure "$case_name" dd "$i" "$work/dd.out" \
            dd if=/dev/zero of="$work/dd.out" bs=1M count="$dd_bytes" iflag=count_bytes conv=fsync
        rm -f "$work/dd.out"
    done
}

run_case quick-64G $((64 * gib)) quick mkfs.exfat
run_case quick-2T $((4294967296 * 512)) quick mkfs.exfat --tca-relax
run_case overwrite-4G $((4 * gib)) engine-overwrite mkfs.exfat
run_case fat-2G $((2 * gib)) quick mkfs.fat --tca-relax
run_case fat-32G $((66945024 * 512)) quick mkfs.fat
run_case fat-ow-4G $((4 * gib)) overwrite mkfs.fat
echo "== dry-2T"
fresh_image "$work/card.img" $((4294967296 * 512))
measure dry-2T format_tarn 1 "$work/card.img" "$tool" --dry-run --tca-relax "$work/card.img"
measure dry-2T format_tarn-overwrite 1 "$work/card.img" "$tool" --dry-run --overwrite --tca-relax "$work/card.img"
rm -f "$work/card.img"

# ---- report -----------------------------------------------------------------
echo
echo "== results (median of $runs runs; MB = 10^6 bytes)"
printf '%-13s %-22s %8s %14s %9s %12s\n' case program "wall s" "bytes written" "MB/s" "max RSS KiB"
rows=(quick-64G:format_tarn quick-64G:mkfs.exfat quick-64G:dd
      quick-2T:format_tarn quick-2T:mkfs.exfat quick-2T:dd
      overwrite-4G:exfat_overwrite_bench overwrite-4G:mkfs.exfat overwrite-4G:dd
      fat-2G:format_tarn fat-2G:mkfs.fat fat-2G:dd fat-32G:format_tarn fat-32G:mkfs.fat fat-32G:dd
      fat-ow-4G:format_tarn-overwrite fat-ow-4G:mkfs.fat fat-ow-4G:dd)
for row in "${rows[@]}"; do
    c=${row%%:*} p=${row#*:}
    w=$(median "$c" "$p" 4) b=$(median "$c" "$p" 5) m=$(median "$c" "$p" 6)
    printf '%-13s %-22s %8.3f %14.0f %9.1f %12.0f\n' "$c" "$p" "$w" "$b" \
        "$(awk -v b="$b" -v w="$w" 'BEGIN {print (w > 0 ? b / w / 1e6 : 0)}')" "$m"
done
echo
echo "allocation of the image or output after the run (du) and CPU time (user + system), medians:"
for row in "${rows[@]}"; do
    c=${row%%:*} p=${row#*:}
    printf '  %-13s %-22s %14.0f bytes allocated %8.2f s CPU\n' "$c" "$p" "$(median "$c" "$p" 7)" \
        "$(median "$c" "$p" 8)"
done
echo "raw runs: $tsv"

# ---- targets ----------------------------------------------------------------
echo
failed=0
verdict() { # verdict OK TEXT
    if [ "$1" = 1 ]; then echo "PASS: $2"; else echo "FAIL: $2"; failed=1; fi
}
ratio() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.3f", (b > 0 ? a / b : 0)}'; }

for row in overwrite-4G:exfat_overwrite_bench fat-ow-4G:format_tarn-overwrite; do
    c=${row%%:*} p=${row#*:}
    ow_rate=$(awk -v b="$(median "$c" "$p" 5)" -v w="$(median "$c" "$p" 4)" 'BEGIN {print b / w}')
    dd_rate=$(awk -v b="$(median "$c" dd 5)" -v w="$(median "$c" dd 4)" 'BEGIN {print b / w}')
    r=$(ratio "$ow_rate" "$dd_rate")
    verdict "$(awk -v r="$r" 'BEGIN {print (r >= 0.9)}')" "$c throughput is $r x dd's (target >= 0.9)"
done
for c in quick-64G quick-2T fat-2G fat-32G; do
    r=$(ratio "$(median "$c" format_tarn 4)" "$(median "$c" dd 4)")
    verdict "$(awk -v r="$r" 'BEGIN {print (r <= 1.2)}')" "$c takes $r x dd's time for the same bytes (target <= 1.2)"
done
for row in quick-64G:format_tarn quick-2T:format_tarn overwrite-4G:exfat_overwrite_bench fat-2G:format_tarn \
    fat-32G:format_tarn fat-ow-4G:format_tarn-overwrite; do
    c=${row%%:*} p=${row#*:}
    m=$(worst "$c" "$p" 6)
    verdict "$([ "$m" -lt 16384 ] && echo 1 || echo 0)" "$c $p peaks at $m KiB resident (target < 16384)"
done
for p in format_tarn format_tarn-overwrite; do
    m=$(worst dry-2T "$p" 6)
    verdict "$([ "$m" -lt 65536 ] && echo 1 || echo 0)" "dry-2T $p peaks at $m KiB resident, $(median dry-2T "$p" 4) s (target < 65536)"
done

# ---- optional syscall profile -----------------------------------------------
if [ $syscalls = 1 ]; then
    command -v strace >/dev/null || die "strace is missing"
    profile() { # profile CASE SIZE CMD...
        local case_name=$1 size=$2 image=$work/card.img
        shift 2
        fresh_image "$image" "$size"
        settle
        strace -f -T -o "$work/strace.out" -e trace=pwrite64,pread64,fsync,fdatasync "$@" "$image" >/dev/null 2>&1 \
            || die "$case_name failed under strace"
        rm -f "$image"
        echo "-- $case_name: $*"
        # With -T each line ends in "= result <seconds>".
        awk '
            /pwrite64\(/ { n = $(NF - 1); if (n ~ /^[0-9]+$/) { w++; wb += n; size[n]++ } }
            /pread64\(/  { r++ }
            /fsync\(|fdatasync\(/ { s++; t = $NF; gsub(/[<>]/, "", t); st += t; each = each sprintf(" %.1f", t * 1000) }
            END {
                printf "   pwrite %d calls, %.0f bytes; pread %d calls; fsync %d calls\n", w, wb, r, s
                printf "   fsync time %.1f ms:%s\n", st * 1000, each
                printf "   pwrite sizes:"
                for (k in size) printf " %dx%s", size[k], k
                printf "\n"
            }' "$work/strace.out"
    }
    echo
    echo "== system calls (one run each under strace)"
    profile quick-64G $((64 * gib)) "$tool" --tca-formatter-progress
    profile quick-2T $((4294967296 * 512)) "$tool" --tca-formatter-progress --tca-relax
    profile overwrite-4G $((4 * gib)) "$overwrite"
    profile fat-32G $((66945024 * 512)) "$tool" --tca-formatter-progress
    profile fat-ow-4G $((4 * gib)) "$tool" --tca-formatter-progress --overwrite
fi

exit $failed
