#!/bin/bash
# The libFuzzer targets of tests/fuzz: build them (clang, build-fuzz/) and
# run them.
#
#   scripts/fuzz.sh ci                   replay every seed corpus, then fuzz
#                                        each target for a few seconds
#   scripts/fuzz.sh run SECONDS [T...]   fuzz the targets (all by default)
#                                        for SECONDS each, one after another
#   scripts/fuzz.sh build                only build
#
# New inputs go to build-fuzz/corpus/<target> (seeded from the repository's
# corpus), crashes to build-fuzz/artifacts/<target>/, and each run's numbers
# to build-fuzz/fuzz-results.txt. As root every target runs in a network
# namespace of its own with no interface up: whatever a command asks for, a
# fuzzed input never reaches a network.
set -euo pipefail

cd "$(dirname "$0")/.."
SRC=$PWD
BUILD=${ORKAD_FUZZ_BUILD:-$SRC/build-fuzz}
CI_SECONDS=${ORKAD_FUZZ_CI_SECONDS:-10}
TARGETS=(heartbeat commands replies listener syslog proc_net stats_kv base64)
JOBS=${JOBS:-2}

build() {
    if [ ! -f "$BUILD/CMakeCache.txt" ]; then
        mkdir -p "$BUILD"
        CC=clang CXX=clang++ cmake -S "$SRC" -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
            -DORKAD_FUZZ=ON -DORKAD_E2E=OFF > "$BUILD/configure.log" 2>&1 ||
            { cat "$BUILD/configure.log"; exit 1; }
    fi
    cmake --build "$BUILD" -j"$JOBS" --target fuzz_targets
}

isolate() {
    if [ "$(id -u)" = 0 ] && command -v unshare > /dev/null; then
        unshare -n "$@"
    else
        "$@"
    fi
}

# fuzz TARGET SECONDS [extra libFuzzer flags...]
fuzz() {
    local t=$1 seconds=$2
    shift 2
    local corpus=$BUILD/corpus/$t artifacts=$BUILD/artifacts/$t
    mkdir -p "$corpus" "$artifacts"
    cp -n "$SRC/tests/fuzz/corpus/$t/"* "$corpus/" 2> /dev/null || true
    local dict=()
    case "$t" in
    heartbeat | commands | replies | listener) dict=(-dict="$SRC/tests/fuzz/json.dict") ;;
    esac
    local log=$BUILD/fuzz-$t.log
    local start=$SECONDS rc=0
    ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:allocator_may_return_null=1} \
        UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1} \
        isolate "$BUILD/tests/fuzz/fuzz_$t" "$corpus" "${dict[@]}" -max_total_time="$seconds" \
        -timeout=20 -rss_limit_mb=2048 -max_len=8192 -print_final_stats=1 \
        -artifact_prefix="$artifacts/" "$@" > "$log" 2>&1 || rc=$?
    local runs
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    local line
    line="$(date -u +%FT%TZ) $t: ${runs:-?} executions in $((SECONDS - start)) s, exit $rc"
    echo "$line" | tee -a "$BUILD/fuzz-results.txt"
    if [ "$rc" != 0 ]; then
        grep -E "ERROR|SUMMARY|==[0-9]+==|runtime error|Test unit written" "$log" | head -20 || true
        echo "fuzz: $t failed, see $log" >&2
        return 1
    fi
}

# Every committed input, crashes found earlier included, runs once.
replay() {
    local t=$1 log=$BUILD/replay-$1.log rc=0
    ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1} isolate "$BUILD/tests/fuzz/fuzz_$t" \
        -runs=0 -timeout=20 "$SRC/tests/fuzz/corpus/$t" > "$log" 2>&1 || rc=$?
    if [ "$rc" != 0 ]; then
        tail -30 "$log"
        echo "fuzz: replaying the $t corpus failed, see $log" >&2
        return 1
    fi
    echo "$t: corpus of $(ls "$SRC/tests/fuzz/corpus/$t" | wc -l) inputs replayed"
}

cmd=${1:-ci}
case "$cmd" in
build)
    build
    ;;
ci)
    build
    failed=0
    for t in "${TARGETS[@]}"; do
        replay "$t" || failed=1
        fuzz "$t" "$CI_SECONDS" || failed=1
    done
    exit $failed
    ;;
run)
    seconds=${2:?usage: scripts/fuzz.sh run SECONDS [target...]}
    shift 2
    [ $# -gt 0 ] && TARGETS=("$@")
    build
    failed=0
    for t in "${TARGETS[@]}"; do
        fuzz "$t" "$seconds" || failed=1
    done
    exit $failed
    ;;
*)
    sed -n '2,17p' "$0"
    exit 2
    ;;
esac
