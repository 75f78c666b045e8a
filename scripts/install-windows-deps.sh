#!/usr/bin/env bash
# Installs, from Debian's packages, what the Windows build and its tests under
# Wine need: the mingw-w64 cross compilers and widl, libgcrypt for the
# simulated cards, Wine's IDL files and stdole2.tlb for the type library,
# and Wine itself, 64-bit and 32-bit (the i386 architecture is added for it).
# 32-bit Wine starts 32-bit Linux programs; on a kernel built without 32-bit
# support those run under qemu's user-mode emulator instead, registered with
# binfmt_misc (until the next boot, so every run checks again).
# Idempotent. Exits non-zero when something cannot be installed.
set -euo pipefail

# A 96-byte 32-bit x86 program that exits with status 42.
runs_i386() {
  local probe status=0
  probe=$(mktemp)
  printf '\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x03\x00\x01\x00\x00\x00\x54\x80\x04\x08'\
'\x34\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x34\x00\x20\x00\x01\x00\x00\x00\x00\x00\x00\x00'\
'\x01\x00\x00\x00\x00\x00\x00\x00\x00\x80\x04\x08\x00\x80\x04\x08\x60\x00\x00\x00\x60\x00\x00\x00'\
'\x05\x00\x00\x00\x00\x10\x00\x00\xb8\x01\x00\x00\x00\xbb\x2a\x00\x00\x00\xcd\x80' >"$probe"
  chmod +x "$probe"
  "$probe" 2>/dev/null || status=$?
  rm -f "$probe"
  [ "$status" = 42 ]
}

packages=(mingw-w64 mingw-w64-tools libgcrypt-mingw-w64-dev libwine-dev wine wine64 wine32:i386)
emulate_i386=0
if ! runs_i386; then
  emulate_i386=1
  packages+=(qemu-user-static)
fi

sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
export DEBIAN_FRONTEND=noninteractive

install_packages() {
  local missing=() p
  for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
      missing+=("$p")
    fi
  done
  ((${#missing[@]})) || return 0

  echo "Installing: ${missing[*]}"
  if ! dpkg --print-foreign-architectures | grep -qx i386; then
    "${sudo_cmd[@]}" dpkg --add-architecture i386
  fi
  install() { "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "$@"; }

  # A mirror caught mid-sync fails one index; the others still serve.
  update_log=$(mktemp)
  trap 'rm -f "$update_log"' EXIT
  "${sudo_cmd[@]}" apt-get update -qq 2>&1 | tee "$update_log" || true
  if install "${missing[@]}"; then return 0; fi

  # wine32 needs every i386 library at exactly the version of its installed
  # amd64 twin. When a mirror's i386 index no longer matches its signed Release
  # ("File has unexpected size ... Mirror sync in progress?"), apt drops it and
  # the security updates installed for amd64 have no i386 twins. The index file
  # itself is still served: read it as a flat source for this one install, then
  # pin any twin the resolver still gives up on to the amd64 version. That index
  # is unsigned, so the source is removed again as soon as the install is over.
  mapfile -t failed < <(grep -oE "Failed to fetch [^ ]+/dists/[^ ]+/binary-i386/Packages[^ ]*" "$update_log" |
    sed -E 's|^Failed to fetch ||')
  if ((${#failed[@]})); then
    flat=/etc/apt/sources.list.d/elatectwn4-i386-fallback.list
    trap 'rm -f "$update_log"; "${sudo_cmd[@]}" rm -f "$flat"' EXIT
    for url in "${failed[@]}"; do
      base=${url%%/dists/*}
      folder=${url#"$base"/}
      folder=${folder%/*}/
      echo "apt dropped $url; reading it unsigned, for this install only" >&2
      echo "deb [trusted=yes arch=i386] $base $folder"
    done | "${sudo_cmd[@]}" tee "$flat" >/dev/null
    "${sudo_cmd[@]}" apt-get update -qq 2>/dev/null || true
  fi

  pins=()
  for _ in 1 2 3 4 5 6 7 8; do
    if plan=$(apt-get install -s --no-install-recommends "${missing[@]}" "${pins[@]}" 2>&1); then
      install "${missing[@]}" "${pins[@]}"
      return 0
    fi
    added=0
    while read -r twin; do
      version=$(dpkg-query -W -f='${Version}' "$twin:amd64" 2>/dev/null) || continue
      pin="$twin:i386=$version"
      [[ " ${pins[*]} " == *" $pin "* ]] && continue
      apt-cache madison "$twin:i386" | awk -v v="$version" '$3 == v {f = 1} END {exit !f}' || continue
      pins+=("$pin")
      added=1
    done < <(grep -oE "Depends: [^ ]+:i386" <<<"$plan" | sed -E 's/^Depends: //; s/:i386$//' | sort -u)
    ((added)) || break
  done
  echo "$plan" | tail -20 >&2
  return 1
}

# The kernel hands 32-bit x86 programs to qemu; "F" opens the emulator now,
# so it also serves programs started inside other mount namespaces.
register_i386_emulator() {
  local misc=/proc/sys/fs/binfmt_misc entry=elatectwn4-i386
  [ -e "$misc/$entry" ] && return 0
  [ -e "$misc/register" ] || "${sudo_cmd[@]}" mount -t binfmt_misc binfmt_misc "$misc"
  printf '%s' ":$entry:M::\\x7fELF\\x01\\x01\\x01\\x00\\x00\\x00\\x00\\x00\\x00\\x00\\x00\\x00\\x02\\x00\\x03\\x00"\
":\\xff\\xff\\xff\\xff\\xff\\xfe\\xfe\\x00\\xff\\xff\\xff\\xff\\xff\\xff\\xff\\xff\\xfe\\xff\\xff\\xff"\
":/usr/bin/qemu-i386-static:F" | "${sudo_cmd[@]}" tee "$misc/register" >/dev/null
}

install_packages
if ((emulate_i386)); then
  echo "This kernel does not run 32-bit x86 programs: they run under qemu-i386-static"
  register_i386_emulator
  runs_i386 || { echo "32-bit x86 programs still do not run" >&2; exit 1; }
fi
