#!/usr/bin/env bash
# Writes the golden files of pwr-sim's deterministic output anew (tests/sim/golden/: the brief
# timeline and the summary of each bundled scenario) from the current build, for a change of that
# output that is intended. Review the diff before committing it.
#   scripts/update-goldens.sh [BUILD_DIR]      (default: build)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
cmake --build "$build" --target pwr_sim_tests pwr-sim
PWR_UPDATE_GOLDENS=1 "$build/tests/pwr_sim_tests" --gtest_filter='Scenarios/GoldenTest.*'
git status --short tests/sim/golden
