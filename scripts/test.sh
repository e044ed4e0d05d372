#!/usr/bin/env bash
# Runs every test orkad has: installs what is missing, builds the daemon and
# the tests, runs the unit and end-to-end suites, a two-minute fault soak and
# the crash-recovery test, the quick bench on the release build, the fuzz
# targets (scripts/fuzz.sh ci), the unit tests again under AddressSanitizer
# (leak detection on) and UndefinedBehaviorSanitizer with the full road end to
# end and a leak check of the running daemon, the unit and end-to-end suites under
# ThreadSanitizer, and last the ARM cross builds (scripts/cross.sh ci).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/bootstrap.sh

jobs=$(nproc)
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$jobs"
# Every end-to-end test can run here (root, the native build): a skip would
# pass unseen inside the one CTest test, so it fails instead.
(cd build && ORKAD_NO_SKIPS=1 ctest --output-on-failure -j"$jobs")

# The fault soak, two minutes of faults at random against the lab while
# commands and syslog lines keep coming, and twenty kill -9 of the working
# child (tests/soak; --minutes N for a longer soak).
ORKAD_SOURCE="$PWD" /usr/bin/python3 -m pytest -q -s -p no:cacheprovider tests/soak --minutes 2

# The release build of the daemon is what the bench and the packages use: it
# must compile too (at -O3 the compiler sees more). The quick bench builds it
# and keeps the measuring harness working; its figures are not checked.
/usr/bin/python3 -m bench.daemon_costs --quick --build build-release --jobs "$jobs"

# Every input the daemon parses, fuzzed: the seed corpora replayed and each
# libFuzzer target run briefly (clang, build-fuzz/; tests/fuzz).
bash scripts/fuzz.sh ci

# The deliberate crash on exit is a real SIGSEGV: the sanitizer must not take
# it over. Leak detection is on: a unit test that leaves memory behind fails.
export ASAN_OPTIONS=handle_segv=0:detect_leaks=1
export UBSAN_OPTIONS=print_stacktrace=1
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DORKAD_SANITIZE=ON -DORKAD_E2E=OFF
cmake --build build-asan -j"$jobs"
(cd build-asan && ctest --output-on-failure -j"$jobs" -L unit)
# And the daemon end to end: its own start-up, supervision and signal
# handling, then every command in one reply, after which the running child
# is asked to look for leaks (SIGURG, in this build only) and must find none.
ORKAD_NO_SKIPS=1 ORKAD_SANITIZED=1 ORKAD_LEAK_CHECK=1 ORKAD_BIN="$PWD/build-asan/common/orkad" ORKAD_SOURCE="$PWD" \
    /usr/bin/python3 -m pytest -q -p no:cacheprovider tests/e2e/test_entry.py \
    tests/e2e/test_full_road.py
unset ASAN_OPTIONS UBSAN_OPTIONS

# ThreadSanitizer: the unit tests and the end-to-end suite with the daemon
# under test built with it. A report fails the unit test (exit status 66) or,
# for a daemon, the end-to-end test whose temporary folder it lands in
# (tests/e2e/fixtures.py). The tests that never start this daemon
# (scripts/e2e-daemon-tests.sh) ran above already and are left out here, and
# so is the 20-daemon fleet (time; docs/hardening.md).
# shellcheck source=scripts/e2e-daemon-tests.sh
. scripts/e2e-daemon-tests.sh
export TSAN_OPTIONS="handle_segv=0:halt_on_error=0:exitcode=66:second_deadlock_stack=1:suppressions=$PWD/tests/tsan.supp"
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DORKAD_TSAN=ON -DORKAD_E2E=OFF
cmake --build build-tsan -j"$jobs" --target orkad unit_tests
# Most unit tests spend their time waiting for the lab controller, so they
# run two per core here.
(cd build-tsan && ctest --output-on-failure -j$((jobs * 2)) -L unit)
ORKAD_SANITIZED=1 ORKAD_BIN="$PWD/build-tsan/common/orkad" ORKAD_SOURCE="$PWD" \
    /usr/bin/python3 -m pytest -q -n "$jobs" -p no:cacheprovider tests/e2e \
    "${e2e_lab_only[@]}" --ignore=tests/e2e/test_lab_fleet.py \
    --deselect tests/e2e/test_watchdog.py::test_a_slow_controller_never_trips_it
unset TSAN_OPTIONS
# The ARM boards: arm64 and armhf built, their unit, entry and full-road
# tests run under qemu-user, both packaged.
bash scripts/cross.sh ci
