#!/usr/bin/env bash
# Fuzzes one target for a bounded time, starting from its seeds.
# Usage: run_fuzzer.sh <fuzzer> <seed-dir> <work-dir> <seconds>
# New inputs go to <work-dir>/corpus, never into the source tree; a crash
# leaves its input in <work-dir> and fails the test. Keep an interesting input
# by copying it into the seed directory.
set -euo pipefail
fuzzer=$1 seeds=$2 work=$3 seconds=$4
mkdir -p "$work/corpus"
exec "$fuzzer" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
  -artifact_prefix="$work/" "$work/corpus" "$seeds"
