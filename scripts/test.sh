#!/usr/bin/env bash
# Checks that the includes follow the README's layout, installs what is
# needed, builds, and runs every test twice: once in a plain build and once
# under AddressSanitizer + UndefinedBehaviorSanitizer. The end-to-end tests go
# through a real pcscd with the vpcd virtual readers. Then the Windows COM
# server, cross-built, under Wine. Ends with the test share.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

echo "== Includes"
scripts/check-includes.sh

scripts/install-deps.sh

scripts/build.sh build -DCMAKE_BUILD_TYPE=RelWithDebInfo
scripts/build.sh build-asan -DCMAKE_BUILD_TYPE=Debug -DELATECTWN4_SANITIZE=ON -DELATECTWN4_BUILD_BENCH=OFF

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
# ELATECTWN4_SKIP_E2E=1 leaves out the runs through pcscd (for a machine
# where another run holds the vpcd ports).
filter=()
if [ "${ELATECTWN4_SKIP_E2E:-0}" = 1 ]; then filter=(-LE e2e); fi
status=0
echo "== Tests (plain build)"
ctest --test-dir build --output-on-failure -j2 "${filter[@]}" || status=1
echo "== Tests (AddressSanitizer + UndefinedBehaviorSanitizer)"
ctest --test-dir build-asan --output-on-failure -j2 "${filter[@]}" || status=1
echo "== Fuzzing (libFuzzer, ${ELATECTWN4_FUZZ_SECONDS:-10} s per target)"
scripts/fuzz.sh "${ELATECTWN4_FUZZ_SECONDS:-10}" || status=1
echo "== Windows COM server under Wine (ELATECTWN4_SKIP_WINDOWS=1 leaves it out)"
if [ "${ELATECTWN4_SKIP_WINDOWS:-0}" = 1 ]; then
  echo "SKIPPED: Windows COM server tests (ELATECTWN4_SKIP_WINDOWS=1)"
elif scripts/install-windows-deps.sh; then
  { scripts/build-windows.sh && scripts/test-windows.sh; } || status=1
elif command -v x86_64-w64-mingw32-g++-posix >/dev/null && command -v wine >/dev/null; then
  echo "SKIPPED: 32-bit Windows tests (wine32 could not be installed); running the 64-bit ones"
  { scripts/build-windows.sh && scripts/test-windows.sh x86_64; } || status=1
else
  echo "SKIPPED: Windows COM server tests (mingw-w64 and Wine could not be installed)"
fi
echo "== Tests against code"
scripts/test-share.sh
exit $status
