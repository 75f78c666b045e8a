#!/usr/bin/env bash
# Tests the Windows COM server under Wine, for each architecture built by
# scripts/build-windows.sh: com_check (type library against the member
# table, Invoke's refusals, the dual interfaces' vtables against IDispatch), then the test server (over simulated readers)
# registered with regsvr32 and driven by one VBScript per family through
# cscript, Configure's window played with xdotool on a private Xvfb (when
# Xvfb, xdotool and ImageMagick's import are there; screenshots in
# build-windows/<arch>/screenshots/), then unregistered and checked gone. Uses
# a private WINEPREFIX under build-windows/. Prints one line per step and
# exits with the number of failed steps.
#
#   scripts/test-windows.sh [ARCH...]     ARCH: i686 x86_64 (default both)
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=$root/build-windows
archs=("$@")
((${#archs[@]})) || archs=(i686 x86_64)

export WINEPREFIX=$out/wineprefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
# A prefix made while Wine could run only 64-bit programs never gains the
# 32-bit system folder: start it again.
if [[ " ${archs[*]} " == *" i686 "* && -f "$WINEPREFIX/system.reg" &&
  ! -f "$WINEPREFIX/drive_c/windows/syswow64/cmd.exe" ]]; then
  rm -rf "$WINEPREFIX"
fi
# Debian's wine starts every program through the 32-bit loader once wine32 is
# installed, and that loader may run emulated: each architecture gets its own.
loader_for() {
  local loader=/usr/lib/wine/wine64
  [ "$1" = i686 ] && loader=/usr/lib/wine/wine
  if [ -x "$loader" ]; then echo "$loader"; else type -P wine; fi
}
wine() { "$WINELOADER" "$@"; }
# A prefix maps / to Z:, so a Unix path needs no Wine process to translate it.
winepath() {
  local path
  path=$(realpath -m "$2")
  printf 'Z:%s\n' "${path//\//\\}"
}
export WINELOADER
WINELOADER=$(loader_for "${archs[0]}")
# Making a prefix runs Wine's own set-up, many minutes when its 32-bit half is
# emulated. A pristine prefix per Wine version and bitness is kept in the
# cache (ELATECTWN4_WINE_CACHE) and each run starts from a copy of it.
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  kind=64
  [[ " ${archs[*]} " == *" i686 "* ]] && kind=wow64
  cache=${ELATECTWN4_WINE_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/elatectwn4}
  template=$cache/wineprefix-$("$(loader_for x86_64)" --version | tr -c 'A-Za-z0-9.\n' '_')-$kind
  if [ ! -f "$template/system.reg" ]; then
    echo "Making a Wine prefix in $template (once per Wine version)"
    rm -rf "$template.new"
    mkdir -p "$cache"
    WINEPREFIX=$template.new wine wineboot.exe -i >/dev/null 2>&1
    WINEPREFIX=$template.new wineserver -w
    # A set-up that failed half-way is never kept for the next runs.
    if [ -f "$template.new/system.reg" ]; then mv "$template.new" "$template"; else rm -rf "$template.new"; fi
  fi
  if [ ! -f "$template/system.reg" ]; then
    echo "FAILED  Wine could not set up a prefix"
    exit 1
  fi
  rm -rf "$WINEPREFIX"
  cp -a "$template" "$WINEPREFIX"
fi
trap 'wineserver -k 2>/dev/null' EXIT

# Configure's window: configure_window.vbs calls Configure twice while
# play_configure answers each window with keys, as a person would.
await() {  # await TITLE: the visible window of that title, within a minute
  local id
  for _ in $(seq 600); do
    id=$(xdotool search --onlyvisible --name "^$1\$" 2>/dev/null | head -n 1)
    [ -n "$id" ] && echo "$id" && return 0
    sleep 0.1
  done
  echo "no window \"$1\"" >&2
  return 1
}
await_gone() {
  for _ in $(seq 600); do
    xdotool search --onlyvisible --name "^$1\$" >/dev/null 2>&1 || return 0
    sleep 0.1
  done
  echo "window \"$1\" still open" >&2
  return 1
}
play_configure() {  # play_configure SCREENSHOT_DIR
  local id
  id=$(await "Encoder configuration") && import -window "$id" "$1/configure.png" &&
    xdotool key alt+t && id=$(await "Encoder test") &&
    sleep 2 && import -window "$id" "$1/test.png" && # a probe or two came back by now
    xdotool key Escape && await_gone "Encoder test" && xdotool key Escape &&
    await "Configuration de l'encodeur" >/dev/null && xdotool key Down Return
}
configure_window() {
  local shots=$out/$arch/screenshots xvfb display script=$out/scripts/configure_window.vbs status
  mkdir -p "$shots" "$out/scripts"
  cat "$root/tests/wine/check.vbs" "$root/tests/wine/configure_window.vbs" >"$script"
  rm -f "$out/xvfb.display"
  Xvfb -displayfd 5 -screen 0 1024x768x24 -nolisten tcp 5>"$out/xvfb.display" 2>/dev/null &
  xvfb=$!
  for _ in $(seq 100); do
    [ -s "$out/xvfb.display" ] && break
    sleep 0.1
  done
  display=:$(head -n 1 "$out/xvfb.display")
  # Wine's desktop process must start on this display, not on none: the
  # prefix's processes must be gone before the next one starts. A first
  # short program brings the desktop up; under load it may come too late for
  # the program Configure starts, whose window then has no display driver.
  wineserver -k 2>/dev/null
  wineserver -w
  DISPLAY=$display wine_in cmd.exe /c exit
  DISPLAY=$display ELATECTWN4_CONFIGURE_PROGRAM=$(winepath -w "$out/$arch/configure/twn4-configure.exe") \
    wine_in cscript.exe //nologo "$(winepath -w "$script")" >"$out/scripts/configure_window.out" 2>&1 &
  local host=$!
  DISPLAY=$display play_configure "$shots"
  status=$?
  # A window left open would keep Configure waiting: ending this prefix's
  # Wine processes ends it.
  [ $status -eq 0 ] || wineserver -k 2>/dev/null
  wait $host
  wineserver -k 2>/dev/null
  kill "$xvfb"
  wait "$xvfb" 2>/dev/null
  grep -v "^configure_window: " "$out/scripts/configure_window.out" >&2
  [ $status -eq 0 ] && grep -qE "^configure_window: [0-9]+ checks, 0 failed" "$out/scripts/configure_window.out"
}

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
  WINELOADER=$(loader_for "$arch")
  if [ "$arch" = i686 ] && ! wine "$system\\cmd.exe" /c exit 0 >/dev/null 2>&1; then
    echo "FAILED  $arch: this Wine cannot run 32-bit programs (install wine32)"
    failed=$((failed + 1))
    continue
  fi
  # Under emulation each 32-bit program start costs the better part of a
  # minute: the 32-bit run keeps what depends on the architecture (vtables,
  # registry view, Variant layout through the scripts that pass arguments).
  emulated=0
  [ "$arch" = i686 ] && [ -e /proc/sys/fs/binfmt_misc/elatectwn4-i386 ] && emulated=1
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
  if ((!emulated)); then
    wine_in reg.exe delete "$card_types" /f /reg:32 >/dev/null 2>&1
    wine_in reg.exe add "$card_types" /v DESFire /t REG_SZ /d "31;3B8180;7" /f /reg:32 >/dev/null 2>&1
    wine_in reg.exe add "$card_types" /v "Add new cards" /t REG_DWORD /d 1 /f /reg:32 >/dev/null 2>&1
  fi
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
  # configure.vbs finds fake_dialog.exe here, and the test server's folder is where
  # Configure looks for its dialog program when the environment names none.
  export TEST_DIR="$(winepath -w "$dir")\\"
  scripts=(identity mifare desfire errors args configure)
  ((emulated)) && scripts=(mifare desfire args) &&
    echo "skipped $arch identity.vbs errors.vbs configure.vbs configure_window.vbs (32-bit programs run emulated)"
  for script in "${scripts[@]}"; do
    step "$arch $script.vbs" family "$script"
  done
  if ((emulated)); then
    :
  elif command -v Xvfb >/dev/null && command -v xdotool >/dev/null && command -v import >/dev/null; then
    step "$arch configure_window.vbs" configure_window
  else
    echo "skipped $arch configure_window.vbs (needs Xvfb, xdotool and import)"
  fi
  recorded() { wine_in reg.exe query "$card_types" /reg:32 2>/dev/null | grep -q "Unknown ("; }
  ((emulated)) || step "$arch unknown ATR recorded" recorded
  step "$arch regsvr32 /u" wine_in regsvr32.exe /u /s "$dll"
  step "$arch class gone" eval '! registered'
  step "$arch type library gone" eval '! library_registered' 
  step "$arch CreateObject fails" wine_in cscript.exe //nologo "$(winepath -w "$root/tests/wine/unregistered.vbs")"
done
echo "Windows COM server under Wine: $failed step(s) failed"
exit $failed
