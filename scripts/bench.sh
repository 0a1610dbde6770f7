#!/usr/bin/env bash
# Builds Release into build-bench/ and prints the benchmark table: vel next
# to its floor measured in the same run (see bench/vel_bench.cpp). Options
# are passed on (--quick, --only GROUP,...). Assumes the dependencies are
# installed (scripts/deps.sh, which the test command runs).
#
# The agent's connection rows compare it with redis-server: one is started
# here on a Unix socket in a temporary folder (no port, nothing saved) and
# stopped at the end. Without redis-server those rows say so.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
mkdir -p build-bench
scripts/build.sh build-bench -DCMAKE_BUILD_TYPE=Release -DVEL_BUILD_BENCH=ON \
  -DVEL_BUILD_TESTS=OFF -DVEL_INSTALL=OFF > build-bench/build.log 2>&1 ||
  { tail -n 40 build-bench/build.log; exit 1; }

redis_args=()
if command -v redis-server > /dev/null; then
  redis_dir=$(mktemp -d)
  redis_pid=""
  stop_redis() {
    [[ -n $redis_pid ]] && kill "$redis_pid" 2> /dev/null && wait "$redis_pid" 2> /dev/null
    rm -rf "$redis_dir"
  }
  trap stop_redis EXIT
  redis-server --port 0 --unixsocket "$redis_dir/redis.sock" --unixsocketperm 700 \
    --save '' --appendonly no --dir "$redis_dir" --maxclients 10000 \
    > "$redis_dir/redis.log" 2>&1 &
  redis_pid=$!
  for _ in $(seq 100); do
    [[ -S $redis_dir/redis.sock ]] && break
    sleep 0.1
  done
  [[ -S $redis_dir/redis.sock ]] || { echo "redis-server did not start:"; cat "$redis_dir/redis.log"; exit 1; }
  redis_args=(--redis "$redis_dir/redis.sock")
fi
build-bench/bin/vel_bench "${redis_args[@]}" "$@"
