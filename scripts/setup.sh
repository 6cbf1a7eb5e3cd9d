#!/usr/bin/env bash
# Installs what a fresh Debian 12 machine needs to build and test the project natively.
set -euo pipefail
PACKAGES=(
    build-essential cmake ninja-build pkg-config
    android-libbase-dev android-liblog-dev libsqlite3-dev sqlite3
    googletest libgtest-dev libgmock-dev libbenchmark-dev
    libtinyxml2-dev nlohmann-json3-dev
    # The phone's capture script is tested under busybox's sh and mksh, stand-ins for the
    # phone's own minimal shell.
    busybox mksh
    # pwr-sim's report page is checked in a real browser.
    chromium
)
source "$(dirname "$0")/lib/apt.sh"
pwr_apt_install "${PACKAGES[@]}"
