#!/usr/bin/env bash
# Cross-builds the COM server for Windows with mingw-w64, 32-bit (i686, the
# host's platform) and 64-bit (x86_64), into build-windows/:
#
#   build-windows/dist/i686/ElatecTWN4.dll      the server a Windows user registers
#   build-windows/dist/x86_64/ElatecTWN4.dll    (regsvr32 ElatecTWN4.dll)
#   build-windows/dist/<arch>/twn4-configure.exe the window of Configure, found beside the DLL
#   build-windows/dist/ElatecTWN4.tlb, .idl     the type library (also inside each DLL)
#   build-windows/dist/ElatecTWN4.h             its interfaces for C/C++ hosts that bind early
#
# and, for the tests under Wine, ElatecTWN4Sim.dll (the same server over
# simulated readers), com_check.exe and fake_dialog.exe (a stand-in for the
# dialog program) in build-windows/<arch>/tests/wine/.
# The type library's IDL is written by twn4-idl from a host build of the same
# tree, so it always follows the member table.
#
#   scripts/build-windows.sh [ARCH...]     ARCH: i686 x86_64 (default both)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=$root/build-windows
archs=("$@")
((${#archs[@]})) || archs=(i686 x86_64)
launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
fi
jobs=${JOBS:-$(nproc)}

cmake -S "$root" -B "$out/host" -DCMAKE_BUILD_TYPE=Release -DELATECTWN4_BUILD_TESTS=OFF \
  -DELATECTWN4_BUILD_BENCH=OFF -DELATECTWN4_INSTALL=OFF "${launcher[@]}" >/dev/null
cmake --build "$out/host" -j"$jobs" --target twn4-idl

for arch in "${archs[@]}"; do
  cmake -S "$root" -B "$out/$arch" --toolchain "$root/cmake/toolchain-mingw-w64.cmake" \
    -DELATECTWN4_MINGW_TRIPLE="$arch-w64-mingw32" \
    -DCMAKE_BUILD_TYPE=Release -DELATECTWN4_IDL_TOOL="$out/host/cli/twn4-idl" "${launcher[@]}" >/dev/null
  cmake --build "$out/$arch" -j"$jobs" --target ElatecTWN4 ElatecTWN4Sim com_check twn4-configure fake_dialog
  mkdir -p "$out/dist/$arch"
  "$arch-w64-mingw32-strip" -o "$out/dist/$arch/ElatecTWN4.dll" "$out/$arch/com/win/ElatecTWN4.dll"
  "$arch-w64-mingw32-strip" -o "$out/dist/$arch/twn4-configure.exe" "$out/$arch/configure/twn4-configure.exe"
  cp "$out/$arch/com/win/ElatecTWN4.tlb" "$out/$arch/com/win/ElatecTWN4.idl" "$out/$arch/com/win/ElatecTWN4.h" "$out/dist/"
done
echo "Windows build: $(cd "$out/dist" && find . -type f | sort | tr '\n' ' ')"
