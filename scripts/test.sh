#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds the project and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build
ctest --test-dir build --output-on-failure -j2
