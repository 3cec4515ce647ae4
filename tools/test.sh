#!/usr/bin/env bash
# Builds everything and runs every test: once in a debug build with the
# trace compiled in, once more under AddressSanitizer and UBSan; then runs
# each fuzz target for a few seconds on its corpus, so that an input that
# once failed fails again.
# Loop-device tests need root; without it they skip and say why.
set -euo pipefail
cd "$(dirname "$0")/.."

bash tools/install-deps.sh test

run_suite() {
    local dir=$1; shift
    cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DQFS_WERROR=ON "$@" >/dev/null
    cmake --build "$dir" -j2
    ctest --test-dir "$dir" -j2 --output-on-failure --timeout 600
}

run_suite build/test
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 run_suite build/sanitize -DQFS_SANITIZE=ON
bash tools/fuzz.sh -t 5 -j 2
