#!/usr/bin/env bash
# Prepares the arm64 sysroot for the aarch64 cross build: downloads Debian's
# arm64 packages of hiredis, jsoncpp, ACE, GoogleTest, libcurl, pugixml,
# OpenSSL's libcrypto, SQLite and xxHash
# with what they need at run time (headers, libraries
# and CMake files) and unpacks them with `dpkg -x` into a folder. Nothing is
# installed on this machine: apt runs with a private state and package-list
# folder next to the sysroot, configured for the arm64 architecture only, and
# reads the Debian archive entries of this machine's apt sources. libc and
# libstdc++ come from the cross toolchain (g++-aarch64-linux-gnu), not from
# here, except the character-set converters (gconv modules) of Debian's arm64
# libc6, which the cross toolchain lacks and iconv loads at run time: they are
# copied to usr/lib/aarch64-linux-gnu/gconv (the emulator is given GCONV_PATH).
# Packages already unpacked are not downloaded again.
# Usage: scripts/arm64-sysroot.sh [SYSROOT]   (default build-arm64/sysroot)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
sysroot=${1:-$root/build-arm64/sysroot}
mkdir -p "$sysroot"
sysroot=$(cd "$sysroot" && pwd)
work=$sysroot.apt          # private apt state, lists and downloaded .debs
stamps=$sysroot/.unpacked  # one file per unpacked package: its version

# The -dev packages and what they need at run time, minus what the cross
# toolchain provides (libc6, libgcc-s1, libstdc++6, gcc-12-base). `googletest`
# (sources only, architecture "all") is not needed: libgtest-dev ships the
# built static libraries.
# libcurl and pugixml are the agent's WebDAV and S3 stores (libssl-dev the
# S3 store's digests), SQLite and xxHash its sync record; the closure below brings
# the libraries libcurl needs at run time (TLS, HTTP/2, ...), which the
# emulated programs load from here.
packages=(libhiredis-dev libhiredis0.14 libjsoncpp-dev libjsoncpp25
          libace-dev libace-7.0.8 libgtest-dev libcurl4-openssl-dev libcurl4
          libpugixml-dev libpugixml1v5 libssl-dev libssl3 libsqlite3-dev libsqlite3-0
          libxxhash-dev libxxhash0)
from_toolchain='^(libc6|libgcc-s1|libstdc\+\+6|gcc-12-base|googletest)$'

all_unpacked() {
  local p
  for p in "${packages[@]}" libc6-gconv; do
    [[ -f $stamps/$p ]] || return 1
  done
}
if all_unpacked; then
  exit 0
fi

mkdir -p "$work"/{lists/partial,cache/archives/partial,debs,sources.list.d} "$stamps"
: > "$work/status"

# The Debian archive entries this machine's apt uses (same mirror, suites and
# components), re-declared for arm64. Falls back to the public Debian 12
# archive when apt knows of none.
keyring=/usr/share/keyrings/debian-archive-keyring.gpg
opts="arch=arm64"
[[ -r $keyring ]] && opts+=" signed-by=$keyring"
apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT) $(ORIGIN)' \
  'Identifier: Packages' 2>/dev/null |
  awk -v opts="$opts" '$4 == "Debian" { print "deb [" opts "] " $1, $2, $3 }' |
  sort -u > "$work/sources.list"
if [[ ! -s $work/sources.list ]]; then
  cat > "$work/sources.list" <<EOF
deb [$opts] http://deb.debian.org/debian bookworm main
deb [$opts] http://deb.debian.org/debian bookworm-updates main
deb [$opts] http://deb.debian.org/debian-security bookworm-security main
EOF
fi

apt_opts=(
  -o "Dir::State=$work" -o "Dir::State::Lists=$work/lists"
  -o "Dir::State::status=$work/status" -o "Dir::Cache=$work/cache"
  -o "Dir::Etc::SourceList=$work/sources.list"
  -o "Dir::Etc::SourceParts=$work/sources.list.d"
  -o "APT::Architecture=arm64" -o "APT::Architectures=arm64"
  -o "Acquire::Languages=none" -o "APT::Sandbox::User=$(id -un)"
  -q
)

echo "arm64-sysroot: reading Debian's arm64 package lists"
apt-get "${apt_opts[@]}" update > "$work/update.log" 2>&1 || {
  cat "$work/update.log"
  exit 1
}

# Everything the wanted packages depend on, less the toolchain's own packages
# and virtual names ("<libc-dev>", which a real package of the closure or the
# toolchain provides).
mapfile -t closure < <(
  apt-cache "${apt_opts[@]}" depends --recurse --no-recommends --no-suggests \
    --no-conflicts --no-breaks --no-replaces --no-enhances "${packages[@]}" |
    grep -v '^ ' | grep -v '^<' | sed 's/:arm64$//' | grep -Ev "$from_toolchain" | sort -u)

cd "$work/debs"
# awk reads each answer to its end: a reader that stopped at the first match
# would kill apt-cache with SIGPIPE, which pipefail turns into a failure.
for p in "${closure[@]}"; do
  version=$(apt-cache "${apt_opts[@]}" show --no-all-versions "$p:arm64" |
            awk '/^Version:/ && v == "" { v = $2 } END { print v }')
  if [[ -f $stamps/$p && $(cat "$stamps/$p") == "$version" ]]; then
    continue
  fi
  rm -f "${p}"_*_arm64.deb "${p}"_*_all.deb
  echo "arm64-sysroot: $p $version"
  apt-get "${apt_opts[@]}" download "$p:arm64" > /dev/null
  # Packages of every architecture ("all") come as such.
  dpkg -x "$(compgen -G "${p}_*_arm64.deb" || compgen -G "${p}_*_all.deb")" "$sysroot"
  echo "$version" > "$stamps/$p"
done
# Only the gconv folder of libc6: the toolchain's libc is the one that runs.
if [[ ! -f $stamps/libc6-gconv ]]; then
  echo "arm64-sysroot: gconv modules of libc6"
  rm -rf libc6_*_arm64.deb "$work/libc6"
  apt-get "${apt_opts[@]}" download libc6:arm64 > /dev/null
  dpkg -x libc6_*_arm64.deb "$work/libc6"
  mkdir -p "$sysroot/usr/lib/aarch64-linux-gnu"
  rm -rf "$sysroot/usr/lib/aarch64-linux-gnu/gconv"
  cp -a "$work/libc6/usr/lib/aarch64-linux-gnu/gconv" "$sysroot/usr/lib/aarch64-linux-gnu/"
  rm -rf "$work/libc6"
  apt-cache "${apt_opts[@]}" show --no-all-versions libc6:arm64 |
    awk '/^Version:/ && v == "" { v = $2 } END { print v }' > "$stamps/libc6-gconv"
fi
all_unpacked || { echo "arm64-sysroot: some packages are missing" >&2; exit 1; }
echo "arm64-sysroot: ready in $sysroot"
