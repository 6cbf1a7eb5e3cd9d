#!/usr/bin/env bash
# Installs what a fresh Debian 12 machine needs to build and test the project natively.
set -euo pipefail
PACKAGES=(
    build-essential cmake ninja-build pkg-config
    android-libbase-dev android-liblog-dev libsqlite3-dev sqlite3
    googletest libgtest-dev libgmock-dev libbenchmark-dev
    libtinyxml2-dev nlohmann-json3-dev
)
missing=()
for p in "${PACKAGES[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
    SUDO=""
    [ "$(id -u)" -ne 0 ] && SUDO=sudo
    $SUDO apt-get update
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
fi
