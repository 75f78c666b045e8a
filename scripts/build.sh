#!/usr/bin/env bash
# Configures and builds one tree. Usage: scripts/build.sh <build-dir> [cmake options...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=$1
shift
cmake -S "$root" -B "$dir" "$@" >/dev/null
cmake --build "$dir" -j"$(nproc)"
