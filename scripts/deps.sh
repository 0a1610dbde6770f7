#!/usr/bin/env bash
# Installs, from Debian's archive, whatever the build and the tests need and
# this machine lacks. Safe to run again: it installs nothing that is present.
# Usage: scripts/deps.sh [--arm] [--ceph]
#   --arm   adds the aarch64 cross tools
#   --ceph  adds the one-node Ceph cluster the S3 store's tests and benchmarks
#           start in a folder of their own (scripts/ceph-fixture.sh): a
#           monitor, an object store daemon, the S3 gateway and the admin tools
set -euo pipefail

# dpkg-dev, file and lintian: building and checking the Debian packages.
# libcurl and pugixml: the agent's WebDAV and S3 stores, libssl-dev (libcrypto)
# the digests of S3 requests; apache2 and openssl: the
# WebDAV server (plain and HTTPS) the tests and the demo start in a folder of
# their own; lighttpd with its WebDAV module, nginx with the DAV extension
# module and rclone: the other WebDAV servers the per-server tests start the
# same way. clang and libclang-rt-dev (libFuzzer): the fuzz targets.
# redis-server: the benchmark's baseline for the agent's connection handling,
# started by scripts/bench.sh on a socket of its own. systemd: systemd-analyze,
# which rates the agent's unit.
packages=(cmake make g++ pkg-config libhiredis-dev libjsoncpp-dev libace-dev
          libgtest-dev googletest clang-format dpkg-dev file lintian
          libcurl4-openssl-dev libpugixml-dev libssl-dev apache2 openssl clang libclang-rt-dev
          libsqlite3-dev libxxhash-dev lighttpd lighttpd-mod-webdav lighttpd-mod-openssl nginx
          libnginx-mod-http-dav-ext rclone redis-server systemd)
for option in "$@"; do
  case $option in
    --arm) packages+=(g++-aarch64-linux-gnu qemu-user) ;;
    --ceph) packages+=(ceph-mon ceph-osd radosgw ceph-common curl) ;;
    *)
      echo "deps: unknown option $option (use --arm, --ceph)" >&2
      exit 2
      ;;
  esac
done

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
"${sudo_cmd[@]}" apt-get update -qq -o DPkg::Lock::Timeout=600
# Installing apache2, lighttpd, nginx, redis-server or the Ceph daemons would
# start the system's services; the tests and the benchmarks start their own.
# A policy-rc.d that refuses every start (exit status 101) holds
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
"${sudo_cmd[@]}" apt-get install -y -qq -o DPkg::Lock::Timeout=600 --no-install-recommends "${missing[@]}"
