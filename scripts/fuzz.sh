#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang (ASan + UBSan) into build-fuzz/ and runs each
# for a bounded time on its seed corpus (fuzz/corpus/<name>/), one after the other. A crash, a
# sanitizer report, a broken invariant or a timeout fails the run; the input is kept under
# build-fuzz/artifacts/<name>/ and can be replayed with: build-fuzz/fuzz/fuzz_<name> <input>.
#   PWR_FUZZ_SECONDS   seconds per target (default 60)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/apt.sh
scripts/setup.sh
pwr_apt_install clang libclang-rt-14-dev

seconds=${PWR_FUZZ_SECONDS:-60}
cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DPWR_SANITIZE=address -DPWR_BUILD_FUZZ=ON -DPWR_BUILD_TESTS=OFF -DPWR_BUILD_BENCH=OFF
list=build-fuzz/fuzz/fuzzers.txt
mapfile -t targets < <(awk '{ print "fuzz_" $1 }' "$list")
if [ ${#targets[@]} -eq 0 ]; then
    echo "no fuzz target is built" >&2
    exit 1
fi
cmake --build build-fuzz -j "${PWR_JOBS:-2}" --target "${targets[@]}"

# The targets' fake device roots go to a scratch directory, on tmpfs when there is one.
scratch_parent=/dev/shm
[ -w "$scratch_parent" ] || scratch_parent=${TMPDIR:-/tmp}
scratch=$(mktemp -d "$scratch_parent/pwrfuzz.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
export TMPDIR=$scratch

status=0
while read -r name program seeds; do
    corpus=build-fuzz/corpus/$name  # what this machine found, kept between local runs
    artifacts=build-fuzz/artifacts/$name
    mkdir -p "$corpus" "$artifacts"
    echo "=== fuzz $name: ${seconds}s"
    if ! "$program" -max_total_time="$seconds" -timeout=25 -rss_limit_mb=2048 \
            -print_final_stats=1 -artifact_prefix="$artifacts/" "$corpus" "$seeds" </dev/null \
            >"build-fuzz/$name.log" 2>&1; then
        tail -n 60 "build-fuzz/$name.log"
        echo "fuzz $name: FAILED (input in $artifacts/)" >&2
        status=1
        continue
    fi
    grep -E '^(stat::number_of_executed_units|stat::peak_rss_mb|#[0-9]+.*DONE)' \
        "build-fuzz/$name.log" || true
    echo "fuzz $name: ok"
done <"$list"
exit $status
