#!/usr/bin/env bash
# Builds the fuzz targets with clang and libFuzzer (everything under
# AddressSanitizer + UndefinedBehaviorSanitizer) and fuzzes each for a bounded
# time. Usage: scripts/fuzz.sh [seconds per target, default 10] [ctest -R regex]
# The test command runs it briefly; for a real campaign give minutes:
#   scripts/fuzz.sh 600
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-10}
filter=${2:-}
dir="$root/build-fuzz"
CC=clang CXX=clang++ cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=Debug -DELATECTWN4_FUZZ=ON \
  -DELATECTWN4_FUZZ_SECONDS="$seconds" -DELATECTWN4_INSTALL=OFF >/dev/null
cmake --build "$dir" -j"$(nproc)" --target fuzzers
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
args=(--test-dir "$dir" --output-on-failure -L fuzz)
if [ -n "$filter" ]; then args+=(-R "$filter"); fi
ctest "${args[@]}"
