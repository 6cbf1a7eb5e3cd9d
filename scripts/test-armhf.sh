#!/usr/bin/env bash
# Cross-builds the project and its tests for 32-bit ARM (Debian's arm-linux-gnueabihf toolchain
# against the armhf multiarch packages) into build-armhf/ and runs the whole suite under
# qemu-user (cmake/toolchain-armhf.cmake names the emulator, so ctest runs every test through it).
# Benchmarks are not built for ARM.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/apt.sh
scripts/setup.sh
pwr_apt_install g++-arm-linux-gnueabihf qemu-user
pwr_apt_install_foreign armhf \
    android-libbase-dev:armhf android-liblog-dev:armhf libsqlite3-dev:armhf \
    libgtest-dev:armhf libgmock-dev:armhf libtinyxml2-dev:armhf

qemu-arm --version | head -n 1
cmake -S . -B build-armhf -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake -DPWR_BUILD_BENCH=OFF
cmake --build build-armhf -j "${PWR_JOBS:-2}"
ctest --test-dir build-armhf --output-on-failure -j "${PWR_JOBS:-2}" --timeout 900
