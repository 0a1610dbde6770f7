#!/usr/bin/env bash
# Builds the libFuzzer targets with clang into build-fuzz/ and runs each for
# SECONDS (default 30) on a scratch copy of its corpus (fuzz/corpus/<target>/),
# so the checkout stays clean. Fails when a target crashes, leaks, trips a
# sanitizer or breaks one of its checks; the input that did it is kept as
# build-fuzz/artifacts/<target>-crash-<sha1> (add it to the corpus once
# fixed). Prints executions per second and the total of each target.
#
#   scripts/fuzz.sh            # 30 s per target (CI runs 10)
#   scripts/fuzz.sh 3600       # a long run: one hour per target
#   FUZZ_TARGETS="paths_fuzz codeset_fuzz" scripts/fuzz.sh 600
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

seconds=${1:-30}
if ! [[ "$seconds" =~ ^[1-9][0-9]*$ ]]; then
  echo "usage: scripts/fuzz.sh [SECONDS]" >&2
  exit 2
fi

cmake -S "$root" -B "$root/build-fuzz" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DVEL_BUILD_FUZZ=ON \
  -DVEL_BUILD_TESTS=OFF -DVEL_BUILD_TOOLS=OFF -DVEL_INSTALL=OFF \
  > "$root/build-fuzz.configure.log" 2>&1 || { cat "$root/build-fuzz.configure.log"; exit 1; }
cmake --build "$root/build-fuzz" --target vel_fuzzers -j"$(nproc)"

targets=${FUZZ_TARGETS:-$(cd fuzz && ls -- *_fuzz.cpp | sed 's/\.cpp$//')}
scratch=$(mktemp -d "${TMPDIR:-/tmp}/velfuzz-run.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
mkdir -p build-fuzz/artifacts

summary=()
failed=0
for target in $targets; do
  echo "== fuzz: $target for ${seconds} s"
  corpus="$scratch/$target"
  mkdir -p "$corpus"
  cp -- fuzz/corpus/"$target"/* "$corpus"/
  log="build-fuzz/$target.log"
  status=0
  # -timeout: one input running this long is a hang; -rss_limit_mb: the
  # reply and request caps keep every target far below it.
  "build-fuzz/bin/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="build-fuzz/artifacts/$target-" "$corpus" \
    > "$log" 2>&1 || status=$?
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
  if ((status != 0)); then
    failed=1
    echo "!! $target failed (exit status $status); its log: $log"
    grep -v '^#\|^INFO' "$log" | head -60
    summary+=("$(printf '%-20s FAILED after %s execs' "$target" "${execs:-?}")")
  else
    summary+=("$(printf '%-20s %10s execs/s %12s execs in %s s' "$target" "$rate" "$execs" "$seconds")")
  fi
done

echo "== fuzz: summary"
printf '%s\n' "${summary[@]}"
exit "$failed"
