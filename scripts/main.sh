#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds the plug-in and its replay tool, and replays the
# bundled game scenario: a game started and stopped in PSM mode 2, then the light mode.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build --target pwr-replay
build/host/tools/pwr-replay configs/game.xml configs/game.events "$@"
