#!/usr/bin/env bash
# Installs, from Debian's packages, everything the build, the tests and the
# simulator need: GTK 3 for the Configure dialogs, and Xvfb, xdotool and
# ImageMagick for the tests that drive their window. Idempotent: packages
# already present are left alone.
set -euo pipefail

packages=(
  build-essential cmake g++ pkg-config git
  libpcsclite-dev pcscd vsmartcard-vpcd
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  libssl-dev nlohmann-json3-dev
  clang libclang-rt-14-dev
  libgtk-3-dev fonts-dejavu-core
  xvfb xdotool imagemagick
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if ((${#missing[@]})); then
  echo "Installing: ${missing[*]}"
  sudo_cmd=()
  if [ "$(id -u)" -ne 0 ]; then sudo_cmd=(sudo); fi
  export DEBIAN_FRONTEND=noninteractive
  "${sudo_cmd[@]}" apt-get update -qq
  "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
