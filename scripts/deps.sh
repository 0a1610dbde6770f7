#!/usr/bin/env bash
# Installs, from Debian's archive, whatever the build and the tests need and
# this machine lacks. Safe to run again: it installs nothing that is present.
# Usage: scripts/deps.sh [--arm]   (--arm adds the aarch64 cross tools)
set -euo pipefail

# dpkg-dev, file and lintian: building and checking the Debian packages;
# clang and libclang-rt-dev (libFuzzer): the fuzz targets.
packages=(cmake make g++ pkg-config libhiredis-dev libjsoncpp-dev libace-dev
          libgtest-dev googletest clang-format dpkg-dev file lintian clang libclang-rt-dev)
if [[ "${1:-}" == "--arm" ]]; then
  packages+=(g++-aarch64-linux-gnu qemu-user)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if ((${#missing[@]} == 0)); then
  exit 0
fi

echo "deps: installing ${missing[*]}"
sudo_cmd=()
if [[ $(id -u) -ne 0 ]]; then
  sudo_cmd=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
