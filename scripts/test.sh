#!/usr/bin/env bash
# Runs every test orkad has: installs what is missing, builds the daemon and
# the tests, runs the unit and end-to-end suites, then the unit tests again
# under AddressSanitizer and UndefinedBehaviorSanitizer, and last the ARM
# cross builds (scripts/cross.sh ci).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/bootstrap.sh

jobs=$(nproc)
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$jobs"
(cd build && ctest --output-on-failure -j"$jobs")

# The fault soak, two minutes of faults at random against the lab while
# commands and syslog lines keep coming, and twenty kill -9 of the working
# child (tests/soak; --minutes N for a longer soak).
ORKAD_SOURCE="$PWD" /usr/bin/python3 -m pytest -q -s -p no:cacheprovider tests/soak --minutes 2

# The release build of the daemon is what the bench and the packages use: it
# must compile too (at -O3 the compiler sees more). The quick bench builds it
# and keeps the measuring harness working; its figures are not checked.
/usr/bin/python3 bench/daemon_costs.py --quick --build build-release --jobs "$jobs"

# The deliberate crash on exit is a real SIGSEGV: the sanitizer must not take
# it over.
export ASAN_OPTIONS=handle_segv=0:detect_leaks=0
export UBSAN_OPTIONS=print_stacktrace=1
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DORKAD_SANITIZE=ON -DORKAD_E2E=OFF
cmake --build build-asan -j"$jobs"
(cd build-asan && ctest --output-on-failure -j"$jobs" -L unit)
# And the daemon's own start-up, supervision and signal handling, end to end.
ORKAD_SANITIZED=1 ORKAD_BIN="$PWD/build-asan/common/orkad" ORKAD_SOURCE="$PWD" \
    /usr/bin/python3 -m pytest -q -p no:cacheprovider tests/e2e/test_entry.py
# The ARM boards: arm64 built, its unit and entry tests run under qemu-user;
# the armhf daemon built.
bash scripts/cross.sh ci
