#!/usr/bin/env bash
# Tests the Windows COM server under Wine, for each architecture built by
# scripts/build-windows.sh: com_check (type library against the member
# table, Invoke's refusals, the dual interfaces' vtables against IDispatch), then the test server (over simulated readers)
# registered with regsvr32 and driven by one VBScript per family through
# cscript, then unregistered and checked gone. Uses a private WINEPREFIX under
# build-windows/. Prints one line per step and exits with the number of
# failed steps.
#
#   scripts/test-windows.sh [ARCH...]     ARCH: i686 x86_64 (default both)
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=$root/build-windows
archs=("$@")
((${#archs[@]})) || archs=(i686 x86_64)

export WINEPREFIX=$out/wineprefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  wineboot -i >/dev/null 2>&1
fi
trap 'wineserver -k 2>/dev/null' EXIT

failed=0
step() {  # step NAME COMMAND...: runs, reports, counts
  local name=$1
  shift
  if "$@"; then
    echo "ok      $name"
  else
    echo "FAILED  $name (status $?)"
    failed=$((failed + 1))
  fi
}

card_types='HKLM\Software\Brantwick Systems\Pellucid\7.0\Contactless\Card types'
classes='HKLM\Software\Classes'
library_id=$(sed -n 's/.*kLibraryId = "\(.*\)";/\1/p' "$root/com/typelib_ids.h")

for arch in "${archs[@]}"; do
  if [ "$arch" = i686 ]; then system='C:\windows\syswow64'; else system='C:\windows\system32'; fi
  if [ "$arch" = i686 ] && ! wine "$system\\cmd.exe" /c exit 0 >/dev/null 2>&1; then
    echo "FAILED  $arch: this Wine cannot run 32-bit programs (install wine32)"
    failed=$((failed + 1))
    continue
  fi
  view=/reg:32
  [ "$arch" = i686 ] || view=/reg:64
  dir=$out/$arch/tests/wine
  dll=$(winepath -w "$dir/ElatecTWN4Sim.dll")
  wine_in() { wine "$system\\$1" "${@:2}"; }

  step "$arch com_check" wine "$dir/com_check.exe" "$(winepath -w "$out/$arch/com/win/ElatecTWN4.dll")"
  step "$arch com_check (simulated readers)" wine "$dir/com_check.exe" "$dll" "Virtual PCD 00 01" "Virtual PCD 00 00"
  step "$arch regsvr32" wine_in regsvr32.exe /s "$dll"
  registered() { wine_in reg.exe query "$classes\\ElatecTWN4.Encoder\\CLSID" $view >/dev/null 2>&1; }
  library_registered() { wine_in reg.exe query "$classes\\TypeLib\\$library_id" >/dev/null 2>&1; }
  step "$arch class registered" registered
  step "$arch type library registered" library_registered
  # The card-type table the identity script expects, in the 32-bit view the component reads.
  wine_in reg.exe delete "$card_types" /f /reg:32 >/dev/null 2>&1
  wine_in reg.exe add "$card_types" /v DESFire /t REG_SZ /d "31;3B8180;7" /f /reg:32 >/dev/null 2>&1
  wine_in reg.exe add "$card_types" /v "Add new cards" /t REG_DWORD /d 1 /f /reg:32 >/dev/null 2>&1
  # A script that stops on a run-time error never prints its final line,
  # and cscript exits 0 then: the line is required as well as status 0.
  family() {
    local output script=$out/scripts/$1.vbs
    mkdir -p "$out/scripts"
    cat "$root/tests/wine/check.vbs" "$root/tests/wine/$1.vbs" >"$script"
    output=$(wine_in cscript.exe //nologo "$(winepath -w "$script")" 2>&1)
    local status=$?
    printf '%s\n' "$output" | grep -v "^$1: " >&2
    printf '%s\n' "$output" | grep -qE "^$1: [0-9]+ checks, 0 failed" && [ "$status" -eq 0 ]
  }
  for script in identity mifare desfire errors args; do
    step "$arch $script.vbs" family "$script"
  done
  recorded() { wine_in reg.exe query "$card_types" /reg:32 2>/dev/null | grep -q "Unknown ("; }
  step "$arch unknown ATR recorded" recorded
  step "$arch regsvr32 /u" wine_in regsvr32.exe /u /s "$dll"
  step "$arch class gone" eval '! registered'
  step "$arch type library gone" eval '! library_registered' 
  step "$arch CreateObject fails" wine_in cscript.exe //nologo "$(winepath -w "$root/tests/wine/unregistered.vbs")"
done
echo "Windows COM server under Wine: $failed step(s) failed"
exit $failed
