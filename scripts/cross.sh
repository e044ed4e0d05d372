#!/usr/bin/env bash
# Cross-builds orkad for an ARM board and proves the ARM binaries run:
#
#     scripts/cross.sh arm64 | armhf [--build-only | --daemon-only] [--package]
#     scripts/cross.sh ci      what CI runs: arm64 built and tested, the armhf
#                              daemon built
#
# Installs what is missing (the cross compilers, the ARCH multiarch libraries,
# qemu-user; scripts/bootstrap.sh cross ARCH), builds the daemon and the unit
# tests in build-ARCH/ with the toolchain file from cmake/, then, unless
# --build-only, runs the unit tests and the entry-point end-to-end tests
# (version, usage, supervision and restart, signals, log rotation) on the ARM
# binaries under qemu-user. --daemon-only builds the daemon alone. --package
# also makes the .deb in build-ARCH/.
set -euo pipefail
cd "$(dirname "$0")/.."

arch="${1:-}"
shift || true
if [ "$arch" = "ci" ]; then
    bash "$0" arm64
    exec bash "$0" armhf --daemon-only
fi
case "$arch" in
arm64) triplet=aarch64-linux-gnu; qemu=qemu-aarch64-static ;;
armhf) triplet=arm-linux-gnueabihf; qemu=qemu-arm-static ;;
*) echo "usage: scripts/cross.sh arm64|armhf [--build-only|--daemon-only] [--package] | ci" >&2
   exit 2 ;;
esac
run_tests=1
unit_tests=unit_tests
package=0
for opt in "$@"; do
    case "$opt" in
    --build-only) run_tests=0 ;;
    --daemon-only) run_tests=0; unit_tests="" ;;
    --package) package=1 ;;
    *) echo "cross: unknown option '$opt'" >&2; exit 2 ;;
    esac
done

bash scripts/bootstrap.sh cross "$arch"

jobs=$(nproc)
dir="build-$arch"
cmake -S . -B "$dir" -DCMAKE_TOOLCHAIN_FILE="cmake/$triplet.cmake" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DORKAD_E2E=OFF
# The daemon and the unit tests only: no benchmark programs.
cmake --build "$dir" -j"$jobs" --target orkad $unit_tests

file "$dir/common/orkad"
size=$(
    tmp=$(mktemp)
    "$triplet-strip" -o "$tmp" "$dir/common/orkad"
    stat -c %s "$tmp"
    rm -f "$tmp"
)
echo "cross: $arch orkad stripped: $size bytes"

if [ "$package" = 1 ]; then
    cmake --build "$dir" -j"$jobs" --target orkad orkad_package_docs
    (cd "$dir" && cpack)
fi

if [ "$run_tests" = 1 ]; then
    # ctest runs every unit test through the emulator the toolchain file
    # names. Two at a time is what qemu on two cores bears without the timing
    # tests going astray.
    (cd "$dir" && ctest --output-on-failure -j2 -L unit --timeout 300)
    ORKAD_EMULATOR="$qemu -L /" ORKAD_BIN="$PWD/$dir/common/orkad" ORKAD_SOURCE="$PWD" \
        /usr/bin/python3 -m pytest -q -p no:cacheprovider tests/e2e/test_entry.py
fi
