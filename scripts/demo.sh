#!/usr/bin/env bash
# The main job: installs what is needed, builds the component and the twn4
# tool, and personalises a MIFARE Classic 1K card and a DESFire card on the
# built-in simulator.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

scripts/install-deps.sh
cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DELATECTWN4_BUILD_TESTS=OFF \
      -DELATECTWN4_BUILD_BENCH=OFF >/dev/null
cmake --build build-release --target twn4 -j"$(nproc)"

twn4=build-release/cli/twn4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
state=$work/card.json
# The card-type table that maps ATRs to card types, as an administrator keeps it.
cp -r examples/registry "$work/registry"
export ELATECTWN4_REGISTRY_DIR=$work/registry

echo
echo "Component: $("$twn4" --simulate mifare1k GetInformation | sed -n 's/^GetInformation = //p')"
echo
"$twn4" --simulate "mifare1k:$state" --script examples/personalise-mifare1k.twn4
echo
echo "== The card itself now refuses a write with key A (it may only read):"
if "$twn4" --simulate "mifare1k:$state" WriteDataBloc 4 A0A1A2A3A4A5 0 FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF; then
  echo "unexpected: the write was accepted" >&2
  exit 1
fi
echo
echo "== A DESFire card: keys of its own, data in each communication mode, a backup, a value and a record file"
desfire=$work/desfire.json
"$twn4" --simulate "desfire:$desfire" --script examples/personalise-desfire.twn4
echo
echo "== In a later session the factory key no longer opens the DESFire card:"
if "$twn4" --simulate "desfire:$desfire" DESFireSelectRoot 0000000000000000; then
  echo "unexpected: the factory key was accepted" >&2
  exit 1
fi
echo
echo "== Its own read key does: the enciphered file and the value file"
"$twn4" --simulate "desfire:$desfire" Parameters "Conformance=card" -- \
  DESFireSelectApplication 010203 1 0F1E2D3C4B5A69788796A5B4C3D2E1F0 -- \
  DESFireReadData 3 0 0 "" false -- DESFireGetValue 5
echo
echo "Done: the cards' contents are as read back above."
