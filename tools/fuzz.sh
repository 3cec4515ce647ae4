#!/usr/bin/env bash
# Builds the libFuzzer targets in build/fuzz (clang, AddressSanitizer and
# UBSan) and runs them on their corpora in fuzz/corpus.
#   tools/fuzz.sh [-t seconds | -r runs] [-j jobs] [target...]
# -t: time per target (default 60), -r: executions per target instead,
# -j: targets run at once (default 1), targets: names without "fuzz_" (default all).
# New inputs go to build/fuzz/work/<target>, never to the checked-in corpus;
# an input that fails is kept as build/fuzz/artifacts/<target>-crash-<hash> (or
# leak-, timeout-, oom-): fix the code, then add the input to fuzz/corpus/<target>.
# Ends with a line per target: executions, seconds, executions per second and
# the size of its work corpus; fails when any target failed.
set -euo pipefail
cd "$(dirname "$0")/.."

limit=(-max_total_time=60)
jobs=1
while getopts "t:r:j:" flag; do
    case $flag in
    t) limit=(-max_total_time="$OPTARG") ;;
    r) limit=(-runs="$OPTARG") ;;
    j) jobs=$OPTARG ;;
    *) exit 2 ;;
    esac
done
shift $((OPTIND - 1))
targets=("$@")
[ ${#targets[@]} -ne 0 ] || targets=(options codepage exfat_volume fat12_volume fat16_volume fat32_volume)

build=build/fuzz
CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DQFS_WERROR=ON \
    -DQFS_BUILD_TESTS=OFF -DQFS_BUILD_FUZZERS=ON >/dev/null
cmake --build "$build" -j2 --target "${targets[@]/#/fuzz_}"
mkdir -p "$build/logs" "$build/artifacts"

run_target() {
    local target=$1 build=$2
    shift 2
    mkdir -p "$build/work/$target"
    # -close_fd_mask=3 keeps the tool's messages out; libFuzzer and the sanitizers still report.
    "$build/fuzz/fuzz_$target" "$@" -close_fd_mask=3 -print_final_stats=1 \
        -artifact_prefix="$build/artifacts/$target-" "$build/work/$target" "fuzz/corpus/$target" \
        >"$build/logs/$target.log" 2>&1
}
export -f run_target

failed=0
printf '%s\n' "${targets[@]}" | xargs -P "$jobs" -I{} bash -c 'run_target "$@"' _ {} "$build" "${limit[@]}" ||
    failed=1

printf '%-14s %12s %8s %9s %8s %10s\n' target executions seconds "exec/s" inputs bytes
for target in "${targets[@]}"; do
    log=$build/logs/$target.log
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    seconds=$(sed -n 's/^stat::.*//; s/^Done [0-9]* runs in \([0-9]*\) second.*/\1/p' "$log")
    speed=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
    inputs=$(find "$build/work/$target" "fuzz/corpus/$target" -type f | wc -l)
    bytes=$(cat "$build/work/$target"/* "fuzz/corpus/$target"/* | wc -c)
    printf '%-14s %12s %8s %9s %8s %10s\n' "$target" "${runs:-?}" "${seconds:-?}" "${speed:-?}" "$inputs" "$bytes"
    if ! grep -q '^Done [0-9]* runs' "$log"; then
        failed=1
        echo "fuzz_$target failed; the end of $log:" >&2
        tail -n 40 "$log" >&2
    fi
done
exit $failed
