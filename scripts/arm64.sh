#!/usr/bin/env bash
# The 64-bit Arm delivery: cross-builds the library, the tool, the reference
# agent and the tests for aarch64 into build-arm64/ (tool: build-arm64/bin/vel)
# and runs the whole suite there under qemu-aarch64; then builds the arm64
# Debian packages (build-arm64/*.deb) and checks them (scripts/package.sh).
# Installs what is missing first (scripts/deps.sh --arm --ceph) and prepares the
# arm64 sysroot from Debian's packages (scripts/arm64-sysroot.sh).
# Usage: scripts/arm64.sh
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
dir=build-arm64
start=$SECONDS

scripts/deps.sh --arm --ceph
scripts/arm64-sysroot.sh "$root/$dir/sysroot"

echo "== $dir: cross build for aarch64"
scripts/build.sh "$dir" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-aarch64.cmake" \
  -DVEL_ARM64_SYSROOT="$root/$dir/sysroot"
built=$SECONDS
file "$dir/bin/vel"
file -b "$dir/bin/vel" | grep -q 'ARM aarch64' || {
  echo "$dir/bin/vel is not an aarch64 executable" >&2
  exit 1
}

echo "== $dir: running the suite under qemu-aarch64"
ctest --test-dir "$dir" --output-on-failure -j"$(nproc)" --timeout 300
tested=$SECONDS

echo "== $dir: Debian packages for arm64"
scripts/package.sh "$dir" arm64 aarch64-linux-gnu-nm
echo "== $dir: build $((built - start)) s, suite under qemu $((tested - built)) s," \
  "packages $((SECONDS - tested)) s"
