#!/usr/bin/env bash
# Configures and builds one tree. Usage: scripts/build.sh DIR [cmake options...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=$1
shift
cmake -S "$root" -B "$root/$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" > "$root/$dir.configure.log" 2>&1 ||
  { cat "$root/$dir.configure.log"; exit 1; }
cmake --build "$root/$dir" -j"$(nproc)"
