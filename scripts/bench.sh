#!/usr/bin/env bash
# Builds Release into build-bench/ and prints the benchmark table: vel next
# to its floor measured in the same run (see bench/vel_bench.cpp). Options
# are passed on (--quick, --only GROUP,...). Assumes the dependencies are
# installed (scripts/deps.sh, which the test command runs).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
mkdir -p build-bench
scripts/build.sh build-bench -DCMAKE_BUILD_TYPE=Release -DVEL_BUILD_BENCH=ON \
  -DVEL_BUILD_TESTS=OFF -DVEL_INSTALL=OFF > build-bench/build.log 2>&1 ||
  { tail -n 40 build-bench/build.log; exit 1; }
build-bench/bin/vel_bench "$@"
