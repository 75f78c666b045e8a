#!/usr/bin/env bash
# Prints the test share: lines of C and C++ source under tests/ against the
# lines of all other C and C++ source of the project, and their ratio.
#
#   test-share.sh [SOURCE_ROOT]
set -euo pipefail
root=${1:-$(cd "$(dirname "$0")/.." && pwd)}
cd "$root"

code_folders=(cipher command registry mifare desfire encoder com configure sim cli include bench)

lines() {
    local existing=()
    for folder in "$@"; do [ -d "$folder" ] && existing+=("$folder"); done
    [ ${#existing[@]} -gt 0 ] || { echo 0; return; }
    find "${existing[@]}" -type f \( -name '*.c' -o -name '*.cpp' -o -name '*.h' -o -name '*.hpp' \) -print0 |
        xargs -0 cat | wc -l
}

tests=$(lines tests)
code=$(lines "${code_folders[@]}")
awk -v t="$tests" -v c="$code" 'BEGIN {
    ratio = c > 0 ? t / c : 0
    printf "Test share: %d lines of tests against %d lines of code: %.2f\n", t, c, ratio
}'
