#!/usr/bin/env bash
# Builds the project and its whole test suite with clang under a sanitizer and runs the suite:
#   scripts/test-sanitize.sh address   AddressSanitizer + UndefinedBehaviorSanitizer (build-asan/)
#   scripts/test-sanitize.sh thread    ThreadSanitizer (build-tsan/)
# Clang also checks the lock annotations (GUARDED_BY, REQUIRES) with -Wthread-safety, and
# -Werror makes any finding fail the build.
set -euo pipefail
cd "$(dirname "$0")/.."
kind=${1:?usage: scripts/test-sanitize.sh address|thread}
case "$kind" in
    address) build=build-asan ;;
    thread) build=build-tsan ;;
    *) echo "usage: scripts/test-sanitize.sh address|thread" >&2; exit 2 ;;
esac
source scripts/lib/apt.sh
scripts/setup.sh
pwr_apt_install clang libclang-rt-14-dev

# Every report fails its test at once; UBSan's are fatal through -fno-sanitize-recover.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
# atexit_sleep_ms: each test is its own process, and the default second at every exit adds up.
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:atexit_sleep_ms=50}

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DPWR_SANITIZE="$kind" -DPWR_BUILD_BENCH=OFF
cmake --build "$build" -j "${PWR_JOBS:-2}"
ctest --test-dir "$build" --output-on-failure -j "${PWR_JOBS:-2}" --timeout 600
