#!/usr/bin/env bash
# Checks that every Android.bp parses and is formatted as bpfmt (Debian's blueprint-tools) writes
# it: bpfmt fails on a parse error, and prints a diff for a file it would reformat.
#   scripts/check-android-bp.sh          check
#   scripts/check-android-bp.sh --fix    rewrite the files instead
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/apt.sh
pwr_apt_install blueprint-tools git

if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    mapfile -t files < <(git ls-files -- '*.bp')
else
    mapfile -t files < <(find . -path ./build\* -prune -o -name '*.bp' -print | sort)
fi
if [ ${#files[@]} -eq 0 ]; then
    echo "no Android.bp found" >&2
    exit 1
fi
if [ "${1:-}" = --fix ]; then
    bpfmt -w "${files[@]}"
fi
diff=$(bpfmt -d "${files[@]}")
if [ -n "$diff" ]; then
    echo "$diff"
    echo "Android.bp is not formatted as bpfmt writes it (scripts/check-android-bp.sh --fix)" >&2
    exit 1
fi
echo "Android.bp: ${files[*]} parse and are formatted"
