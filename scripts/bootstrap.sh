#!/usr/bin/env bash
# Installs, from Debian packages, everything orkad needs to build and test.
# Idempotent: does nothing when every package is present, and refreshes the
# package lists only when something is missing.
#
#     scripts/bootstrap.sh              what the native build, the tests and the
#                                       package need
#     scripts/bootstrap.sh cross ARCH   that, plus the cross compilers, the
#                                       ARCH (arm64, armhf) multiarch libraries
#                                       and qemu-user
set -euo pipefail

packages=(
    build-essential cmake pkg-config
    libcurl4-openssl-dev libjansson-dev libsqlite3-dev sqlite3
    openssl openvpn psmisc gzip iproute2 util-linux bsdutils tar
    googletest libgtest-dev libgmock-dev
    python3 python3-pytest python3-pytest-xdist
    chromium chromium-driver python3-selenium
    dpkg-dev fakeroot lintian file binutils man-db groff-base
    curl linux-perf
    clang libclang-rt-14-dev
)

cross_arches=()
if [ "${1:-}" = "cross" ]; then
    shift
    cross_arches=("$@")
    [ ${#cross_arches[@]} -gt 0 ] || cross_arches=(arm64 armhf)
    for a in "${cross_arches[@]}"; do
        case "$a" in
        arm64 | armhf) ;;
        *) echo "bootstrap: unknown architecture '$a' (arm64 or armhf)" >&2; exit 2 ;;
        esac
        packages+=("crossbuild-essential-$a" "libcurl4-openssl-dev:$a" "libjansson-dev:$a"
            "libsqlite3-dev:$a" "libgtest-dev:$a" "libgmock-dev:$a" "libstdc++6:$a")
    done
    packages+=(qemu-user-static)
fi

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done

if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
    SUDO="sudo"
fi
for a in "${cross_arches[@]}"; do
    if ! dpkg --print-foreign-architectures | grep -qx "$a"; then
        $SUDO dpkg --add-architecture "$a"
    fi
done
echo "bootstrap: installing ${missing[*]}"
# A mirror in the middle of a sync serves a list that does not match its
# index; a second try a little later usually gets a consistent one.
for try in 1 2 3; do
    if $SUDO apt-get update -o Acquire::Retries=3 -q; then
        break
    fi
    [ "$try" -lt 3 ] || echo "bootstrap: package lists incomplete, trying the install anyway" >&2
    sleep 5
done
# Multiarch libraries must be at one version on every architecture: the
# host's, the one asked for, and any other whose libraries are already here
# (arm64 and armhf side by side). When the lists of one architecture lack a
# version another carries (a security update not yet built for armhf, a
# mirror caught mid-sync), align each such library on the newest version that
# every one of them offers; aligning on one architecture's candidate alone
# would make apt remove the other's libraries to fit.
align_arches=()
if [ ${#cross_arches[@]} -gt 0 ]; then
    align_arches=("${cross_arches[@]}")
    for a in arm64 armhf; do
        if [[ " ${align_arches[*]} " != *" $a "* ]] &&
            dpkg-query -W -f='${Status}' "libcurl4-openssl-dev:$a" 2>/dev/null |
            grep -q 'install ok installed'; then
            align_arches+=("$a")
        fi
    done
fi
common_version()
{
    local n=$1 a v
    local -a offered
    mapfile -t offered < <(apt-cache madison "$n" | awk -F'|' '{gsub(/ /, "", $2); print $2}')
    for a in "${align_arches[@]}"; do
        mapfile -t offered < <(comm -12 <(printf '%s\n' "${offered[@]}" | sort -u) \
            <(apt-cache madison "$n:$a" | awk -F'|' '{gsub(/ /, "", $2); print $2}' | sort -u))
    done
    v=""
    for a in "${offered[@]}"; do
        if [ -z "$v" ] || dpkg --compare-versions "$a" gt "$v"; then
            v=$a
        fi
    done
    echo "$v"
}
align=()
if [ ${#align_arches[@]} -gt 0 ]; then
    for _ in 1 2 3 4 5 6 7 8; do
        out=$(apt-get install -s --allow-downgrades --no-install-recommends \
            "${missing[@]}" "${align[@]}" 2>&1) && break
        names=$(echo "$out" | grep -oE "(Depends|Breaks): [a-z0-9.+-]+(:[a-z0-9]+)?" |
            awk '{print $2}' | sed 's/:.*//' | sort -u)
        [ -n "$names" ] || break
        for n in $names; do
            [[ " ${align[*]} " != *" $n="* ]] || continue
            v=$(common_version "$n")
            [ -n "$v" ] || continue
            align+=("$n=$v")
            for a in "${align_arches[@]}"; do
                align+=("$n:$a=$v")
            done
        done
    done
    [ ${#align[@]} -eq 0 ] || echo "bootstrap: aligning ${align[*]}"
fi
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y --no-install-recommends \
    --allow-downgrades -o DPkg::Lock::Timeout=600 "${missing[@]}" "${align[@]}"
