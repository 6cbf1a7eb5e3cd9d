#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds the plug-in and its device simulator, and simulates
# the bundled game scenario: a game whose GPU load settles and then climbs, on simulated time.
# Prints the timeline (events, locks, modes; without the feature's log lines) and the summary,
# and writes the full timeline, the summary, a Chrome trace and an SVG plot to build/sim/game/.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build --target pwr-sim pwr-replay
build/host/sim/pwr-sim configs/sim/game-climb.json --brief --out build/sim/game "$@"
