#!/usr/bin/env bash
# Builds the release tool and formats a sparse image that stands in for a
# 32 GiB card (67108864 sectors of 512 bytes: exFAT, TNC class).
set -euo pipefail
cd "$(dirname "$0")/.."

bash tools/install-deps.sh build
cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DQFS_BUILD_TESTS=OFF >/dev/null
cmake --build build/release -j2

image=build/demo-card.img
rm -f "$image"
truncate -s $((67108864 * 512)) "$image"
build/release/format_tarn -v -l DEMO "$image"
echo "Formatted $image (sparse; delete it when done)."
