#!/usr/bin/env bash
# Proves that a cross-built daemon keeps time in 64 bits past 2038-01-19:
#
#     scripts/check-time64.sh TRIPLET BINARY
#     scripts/check-time64.sh arm-linux-gnueabihf build-armhf/common/orkad
#
# On a 32-bit glibc target every interface that carries a time_t (or a
# struct timespec, timeval, stat, ...) exists twice: the old 32-bit one under
# its plain name (time, localtime_r, stat64, ioctl, ...) and the 64-bit one
# glibc 2.34 added (__time64, __localtime64_r, __stat64_time64,
# __ioctl_time64, ...), which _TIME_BITS=64 redirects the calls to. The list
# of pairs is read from the target's own libc, so nothing is guessed: the
# check fails when the binary asks for any plain name that has a 64-bit
# twin, for the old stat entry points, or for an interface of another
# library the daemon links that passes a time_t (or a time in a 32-bit long)
# at that library's own, 32-bit, width:
#   - libcurl: curl_getdate() returns a time_t; in the sources,
#     CURLINFO_FILETIME and CURLOPT_TIMEVALUE carry a time in a long;
#   - libstdc++: std::chrono::system_clock::now() reads the clock through
#     the 32-bit clock_gettime inside the library;
#   - jansson and SQLite have no time in their interfaces (SQLite's dates
#     are its own 64-bit numbers).
# On a target whose time_t is 64 bits by birth (arm64, amd64) libc has no
# such pairs and the check only looks at the other libraries.
set -euo pipefail
cd "$(dirname "$0")/.."

triplet="${1:?usage: scripts/check-time64.sh TRIPLET BINARY}"
bin="${2:?usage: scripts/check-time64.sh TRIPLET BINARY}"
nm="$triplet-nm"
command -v "$nm" > /dev/null || nm=nm
libc="/usr/lib/$triplet/libc.so.6"
[ -f "$libc" ] || { echo "check-time64: no $libc" >&2; exit 2; }

undefined=$("$nm" -D --undefined-only "$bin" | awk '{print $2}' | sed 's/@.*//' | sort -u)

# The 64-bit twins glibc added in 2.34, and the plain names they replace:
# __X_time64 and __X64[_r] stand for X[_r]; X and X64 (the large-file name)
# are both 32-bit, and a name ending in 64 (stat64) also has its short form.
# A 64-bit target's C library has none: its time_t was always 64 bits.
twins=$("$nm" -D --defined-only "$libc" | awk '{print $3}' |
    { grep -E '^__.*64.*@@?GLIBC_2\.3[4-9]' || true; } | sed 's/@.*//' | sort -u)
old=()
for t in $twins; do
    x=${t#___}
    x=${x#__}
    case "$x" in
    *_time64) x=${x%_time64} ;;
    *64_r) x=${x%64_r}_r ;;
    *64) x=${x%64} ;;
    *) continue ;;
    esac
    old+=("$x" "${x}64")
    case "$x" in *64) old+=("${x%64}") ;; esac
done
# The stat entry points of glibc before 2.33, with a 32-bit st_mtime.
old+=(__xstat __xstat64 __fxstat __fxstat64 __lxstat __lxstat64 __fxstatat __fxstatat64)
# Other libraries' interfaces that carry a time at 32 bits on this target.
old+=(curl_getdate _ZNSt6chrono3_V212system_clock3nowEv)

bad=()
for s in "${old[@]}"; do
    if grep -qx -- "$s" <<< "$undefined"; then
        bad+=("$s")
    fi
done
bad=($(printf '%s\n' "${bad[@]}" | sort -u))

# The times the daemon asks for, as they resolve.
used64=$(grep -xE -- "$(printf '%s|' $twins | sed 's/|$//')" <<< "$undefined" || true)

status=0
if [ ${#bad[@]} -gt 0 ]; then
    echo "check-time64: $bin calls 32-bit time interfaces: ${bad[*]}" >&2
    status=1
fi
# Sources: curl options and infos whose time is a long.
if grep -rnE 'CURLINFO_FILETIME\b|CURLOPT_TIMEVALUE\b' base common platform openapi ctl; then
    echo "check-time64: a time passes libcurl in a long (use the _T / _LARGE form)" >&2
    status=1
fi
if [ -n "$twins" ] && [ -z "$used64" ]; then
    echo "check-time64: $bin reads no clock through a 64-bit interface: built without _TIME_BITS=64?" >&2
    status=1
fi
[ "$status" = 0 ] || exit 1
if [ -n "$twins" ]; then
    echo "check-time64: $bin: 64-bit time only ($(echo $used64 | tr ' ' ','))"
else
    echo "check-time64: $bin: time_t is 64 bits on $triplet; no library time interface used"
fi
