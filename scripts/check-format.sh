#!/usr/bin/env bash
# Checks that every tracked C++ file is formatted as .clang-format says (clang-format 14, the
# Debian 12 version). Prints the offending lines and fails if any file is not.
#   scripts/check-format.sh          check
#   scripts/check-format.sh --fix    reformat the files in place instead
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/apt.sh
pwr_apt_install clang-format git

if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
    mapfile -t files < <(git ls-files -- '*.cpp' '*.cc' '*.h' '*.hpp')
else
    mapfile -t files < <(find . -path ./build\* -prune -o \
        \( -name '*.cpp' -o -name '*.cc' -o -name '*.h' -o -name '*.hpp' \) -print | sort)
fi
clang-format --version
echo "${#files[@]} files"
if [ "${1:-}" = --fix ]; then
    clang-format -i --style=file "${files[@]}"
else
    clang-format --dry-run -Werror --style=file "${files[@]}"
fi
echo "format: ok"
