#!/usr/bin/env bash
# Installs, from Debian's archive, whatever the build and the tests need and
# this machine lacks. Safe to run again: it installs nothing that is present.
# Usage: scripts/deps.sh [--arm]   (--arm adds the aarch64 cross tools)
set -euo pipefail

# dpkg-dev, file and lintian: building and checking the Debian packages.
# libcurl and pugixml: the agent's WebDAV store; apache2 and openssl: the
# WebDAV server (plain and HTTPS) the tests and the demo start in a folder of
# their own. clang and libclang-rt-dev (libFuzzer): the fuzz targets.
# redis-server: the benchmark's baseline for the agent's connection handling,
# started by scripts/bench.sh on a socket of its own. systemd: systemd-analyze,
# which rates the agent's unit.
packages=(cmake make g++ pkg-config libhiredis-dev libjsoncpp-dev libace-dev
          libgtest-dev googletest clang-format dpkg-dev file lintian
          libcurl4-openssl-dev libpugixml-dev apache2 openssl clang libclang-rt-dev
          libsqlite3-dev libxxhash-dev redis-server systemd)
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
# Installing apache2 or redis-server would start the system's service; the
# tests and the benchmarks start their own. A policy-rc.d that refuses every start (exit status 101) holds
# for this install only; one that was there before is put back.
policy=/usr/sbin/policy-rc.d
saved=""
if [[ -e $policy ]]; then
  saved=$(mktemp)
  "${sudo_cmd[@]}" cp -p "$policy" "$saved"
fi
restore_policy() {
  if [[ -n $saved ]]; then
    "${sudo_cmd[@]}" mv -f "$saved" "$policy"
  else
    "${sudo_cmd[@]}" rm -f "$policy"
  fi
}
trap restore_policy EXIT
printf '#!/bin/sh\nexit 101\n' | "${sudo_cmd[@]}" tee "$policy" > /dev/null
"${sudo_cmd[@]}" chmod 755 "$policy"
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
