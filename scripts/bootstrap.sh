#!/usr/bin/env bash
# Installs, from Debian packages, everything orkad needs to build and test.
# Idempotent: does nothing when every package is present, and refreshes the
# package lists only when something is missing.
set -euo pipefail

packages=(
    build-essential cmake pkg-config
    libcurl4-openssl-dev libjansson-dev libsqlite3-dev sqlite3
    openssl openvpn psmisc gzip iproute2 util-linux bsdutils tar
    googletest libgtest-dev libgmock-dev
    python3 python3-pytest python3-pytest-xdist
    curl linux-perf
)

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
echo "bootstrap: installing ${missing[*]}"
$SUDO apt-get update
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
