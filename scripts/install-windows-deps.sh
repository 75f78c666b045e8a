#!/usr/bin/env bash
# Installs, from Debian's packages, what the Windows build and its tests under
# Wine need: the mingw-w64 cross compilers and widl, libgcrypt for the
# simulated cards, Wine's IDL files and stdole2.tlb for the type library,
# and Wine itself, 64-bit and 32-bit (the i386 architecture is added for it).
# Idempotent. Exits non-zero when something cannot be installed.
set -euo pipefail

packages=(mingw-w64 mingw-w64-tools libgcrypt-mingw-w64-dev libwine-dev wine wine64 wine32:i386)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
((${#missing[@]})) || exit 0

echo "Installing: ${missing[*]}"
sudo_cmd=()
if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
export DEBIAN_FRONTEND=noninteractive
if ! dpkg --print-foreign-architectures | grep -qx i386; then
  "${sudo_cmd[@]}" dpkg --add-architecture i386
fi
# A mirror caught mid-sync fails one index; the others still serve.
"${sudo_cmd[@]}" apt-get update -qq || true
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
