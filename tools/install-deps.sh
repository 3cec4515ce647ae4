#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, only those
# that are missing. Pass "build" for the tool alone, "test" (default) for
# the tests and their independent checkers, the fuzz targets (clang and its
# libFuzzer), Qt 6 for the desktop front end and Xvfb (with a font) for its
# end-to-end test, "package" for the tool
# and its Debian package (cpack -G DEB), "bench" for the benchmarks
# (bench/run_benchmarks.sh) and the programs they compare with.
set -euo pipefail

what=${1:-test}
packages=(cmake ninja-build g++ make)
if [ "$what" = test ]; then
    packages+=(libgtest-dev libgmock-dev exfatprogs dosfstools gdisk fdisk e2fsprogs util-linux mtools time strace
        groff-base man-db dpkg-dev python3 python3-fusepy fuse3
        qt6-base-dev xvfb xauth fonts-dejavu-core clang libclang-rt-14-dev)
fi
if [ "$what" = package ]; then
    packages+=(dpkg-dev)
fi
if [ "$what" = bench ]; then
    packages+=(exfatprogs dosfstools coreutils time strace f3 python3-fusepy fuse3)
fi

missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo=sudo
echo "Installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# A package run that was cut off earlier leaves dpkg refusing every install
# until its configuration is finished; finishing it is what apt asks for.
$sudo dpkg --configure -a
$sudo apt-get update -qq
$sudo apt-get install -y -qq "${missing[@]}" >/dev/null
