#!/usr/bin/env bash
# Cross-builds orkad for an ARM board and proves the ARM binaries run:
#
#     scripts/cross.sh arm64 | armhf [--build-only | --daemon-only] [--package]
#     scripts/cross.sh ci      what CI runs: arm64 and armhf built, tested and
#                              packaged, then bench/arm_costs.py --quick
#     scripts/cross.sh e2e arm64 | armhf [PYTEST ARGS...]
#                              the end-to-end suite against the ARM daemon
#
# Installs what is missing (the cross compilers, the ARCH multiarch libraries,
# qemu-user; scripts/bootstrap.sh cross ARCH), builds the daemon and the unit
# tests in build-ARCH/ with the toolchain file from cmake/, then, unless
# --build-only, runs the unit tests and the entry-point end-to-end tests
# (version, usage, supervision and restart, signals, log rotation) and the full
# road (every command in one heartbeat reply) on the ARM binaries under
# qemu-user. Every daemon built is checked for 32-bit time
# interfaces (scripts/check-time64.sh). --daemon-only builds the daemon alone. --package
# also makes the .deb in build-ARCH/.
#
# "e2e ARCH" builds the ARCH daemon and runs every end-to-end test that starts
# a daemon against it under qemu-user; the lab controller, the simulated
# switch's files and the OpenVPN peer stay native. Arguments after ARCH go to
# pytest (-k, -x, a test file...).
set -euo pipefail
cd "$(dirname "$0")/.."

arch="${1:-}"
shift || true
e2e=0
if [ "$arch" = "e2e" ]; then
    e2e=1
    arch="${1:-}"
    shift || true
fi
if [ "$arch" = "ci" ]; then
    # Both architectures' libraries in one go, aligned on one version.
    bash scripts/bootstrap.sh cross arm64 armhf
    bash "$0" arm64 --package
    bash "$0" armhf --package
    # Both daemons as the boards see them (size, libraries, CPU per heartbeat
    # under qemu-user against the native release daemon), briefly: it keeps
    # bench/arm_costs.py working; its figures are not checked.
    exec /usr/bin/python3 -m bench.arm_costs --quick --reuse
fi
case "$arch" in
arm64) triplet=aarch64-linux-gnu; qemu=qemu-aarch64-static ;;
armhf) triplet=arm-linux-gnueabihf; qemu=qemu-arm-static ;;
*)
    echo "usage: scripts/cross.sh arm64|armhf [--build-only|--daemon-only] [--package] | ci" >&2
    echo "       scripts/cross.sh e2e arm64|armhf [pytest arguments]" >&2
    exit 2
    ;;
esac
run_tests=1
unit_tests=unit_tests
package=0
pytest_args=()
if [ "$e2e" = 1 ]; then
    run_tests=0
    unit_tests=""
    pytest_args=("$@")
    set --
fi
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
# Optimised as the native build, without its debug information: it is most
# of the compile time, and the package strips it anyway.
cmake -S . -B "$dir" -DCMAKE_TOOLCHAIN_FILE="cmake/$triplet.cmake" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -DNDEBUG" \
    -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O2 -DNDEBUG" -DORKAD_E2E=OFF
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
bash scripts/check-time64.sh "$triplet" "$dir/common/orkad"

if [ "$package" = 1 ]; then
    cmake --build "$dir" -j"$jobs" --target orkad orkadctl orkad_package_docs
    (cd "$dir" && cpack)
    version=$(sed -n 's/^project(orkad VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
    deb="$dir/orkad_${version}_$arch.deb"
    dpkg-deb -I "$deb"
    # lintian's errors fail the build; its warnings are shown.
    lintian --tag-display-limit 0 "$deb" | tee "$dir/lintian.txt" || true
    if grep -q '^E: ' "$dir/lintian.txt"; then
        echo "cross: lintian found errors in $deb" >&2
        exit 1
    fi
fi

if [ "$run_tests" = 1 ]; then
    # ctest runs every unit test through the emulator the toolchain file
    # names. Most of a test's time is spent waiting (on the lab controller,
    # on its own deadlines), so one more than the cores keeps them busy.
    #
    # Left out, for what qemu-user does rather than what the daemon does:
    # - the client MAC lookups (SIOCGARP): qemu declares that ioctl as
    #   read-only and never copies the request in, so the kernel sees no
    #   address family and answers EPFNOSUPPORT;
    # - the failed thread creation: it is provoked with RLIMIT_AS, which qemu
    #   accepts and does not apply (it would starve the emulator itself);
    # - the live core dump's core file: under qemu the emulator writes the
    #   guest's core itself, under a name of its own, or none;
    # - the statistics pace tests: they tick through a whole period while
    #   the sender posts the previous one, which under emulation outlasts
    #   them, and periods that come due during one post make one document;
    # - the allocator's second start: the test program starts itself again,
    #   and without binfmt_misc the host kernel cannot run an ARM program, so
    #   the exec fails under qemu-user (the daemon then goes on as started,
    #   which the entry tests cover).
    emulator_bound='NetTest\.ClientMac|WorkTest\.ThreadLimitIsFortyAndFailedCreation'
    emulator_bound+='|OrkadTest\.LiveCoredump'
    emulator_bound+='|StatsTest\.(SamplesEveryFiveTicks|IntervalNotAMultipleOfFive)'
    emulator_bound+='|AllocatorTest\.(RunsItselfAgain|KeepsTheEnvironmentsOwnTunables|TheCacheIsOnWithout)'
    (cd "$dir" && ctest --output-on-failure -j$((jobs + 1)) -L unit --timeout 300 \
        -E "^($emulator_bound)")
    ORKAD_EMULATOR="$qemu -L /" ORKAD_BIN="$PWD/$dir/common/orkad" ORKAD_SOURCE="$PWD" \
        /usr/bin/python3 -m pytest -q -p no:cacheprovider tests/e2e/test_entry.py \
        tests/e2e/test_full_road.py
fi

if [ "$e2e" = 1 ]; then
    # Every end-to-end test that starts a daemon, as the ThreadSanitizer run
    # of scripts/test.sh picks them, one at a time: each daemon under qemu
    # keeps a core busy while it starts.
    # shellcheck source=scripts/e2e-daemon-tests.sh
    . scripts/e2e-daemon-tests.sh
    # Left out, for what qemu-user does rather than what the daemon does:
    # - the fleet: twenty switches, each daemon emulated, on a machine of a
    #   few cores; their start-up deadlines are the native daemon's.
    emulator_bound=(
        --ignore=tests/e2e/test_lab_fleet.py
    )
    ORKAD_EMULATOR="$qemu -L /" ORKAD_BIN="$PWD/$dir/common/orkad" ORKAD_SOURCE="$PWD" \
        /usr/bin/python3 -m pytest -q -p no:cacheprovider tests/e2e \
        "${e2e_lab_only[@]}" "${emulator_bound[@]}" "${pytest_args[@]}"
fi
