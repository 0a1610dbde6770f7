#!/usr/bin/env bash
# Runs every test: installs missing dependencies, checks formatting and the
# agent's systemd unit (systemd-analyze security, at most 2.5), builds
# the normal tree (build/) and runs the whole suite; builds the Debian
# packages there (build/*.deb) and checks them (architecture, lintian,
# exported symbols); builds and runs the example against the install tree,
# pkg-config, add_subdirectory, FetchContent and the unpacked packages; then
# builds the ASan+UBSan tree (build-asan/) and the ThreadSanitizer tree
# (build-tsan/) and runs the suite in both (the stress test and the fault
# matrix are part of it); then runs every fuzz target for 10 s
# (scripts/fuzz.sh, build-fuzz/). With --arm it then cross-builds for aarch64
# (build-arm64/), runs the suite again under qemu and builds and checks the
# arm64 packages. The end-to-end suites run against every kind of store; for
# the WebDAV one the tests start an Apache httpd of their own (and, for the
# per-server scenario, lighttpd, nginx and rclone), for the S3 one each
# suite run starts a one-node Ceph cluster (scripts/ceph-fixture.sh; all
# installed by scripts/deps.sh, never as system services), which the
# emulated agent reaches as well.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

arm=0
[[ "${1:-}" == "--arm" ]] && arm=1

if ((arm)); then scripts/deps.sh --arm --ceph; else scripts/deps.sh --ceph; fi
scripts/format.sh --check

# The arm64 sysroot is mostly downloading: it is fetched while the native
# trees build, and waited for before the cross build.
sysroot_pid=
if ((arm)); then
  mkdir -p build-arm64
  scripts/arm64-sysroot.sh "$root/build-arm64/sysroot" > build-arm64/sysroot.log 2>&1 &
  sysroot_pid=$!
fi

# The agent's unit is rated by systemd's own check; above 2.5 it fails.
echo "== the agent's unit: systemd-analyze security"
unit_report=$(systemd-analyze security --offline=true tools/fileagent/velfileagent.service 2>&1) || true
exposure=$(sed -n 's/.*Overall exposure level for velfileagent.service: \([0-9.]*\).*/\1/p' <<< "$unit_report")
echo "exposure level ${exposure:-unknown} (at most 2.5)"
if ! awk -v level="$exposure" 'BEGIN { exit !(level != "" && level <= 2.5) }'; then
  echo "$unit_report"
  echo "!! tools/fileagent/velfileagent.service is rated above 2.5"
  exit 1
fi

run_suite() {
  local dir=$1
  echo "== $dir: running the suite"
  ctest --test-dir "$dir" --output-on-failure -j"$(nproc)" --timeout 300
}

echo "== build: normal"
scripts/build.sh build
run_suite build

echo "== build: Debian packages"
scripts/package.sh build "$(dpkg --print-architecture)"

echo "== build: the example application, built the ways other projects use vel"
scripts/example.sh build

echo "== build-asan: AddressSanitizer + UndefinedBehaviorSanitizer"
# -O1, as the sanitizer's own guidance has it: the instrumented code builds
# in about two thirds of the time -O2 takes, and reports the same faults.
scripts/build.sh build-asan -DVEL_SANITIZE=ON -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g -DNDEBUG" \
  -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -g -DNDEBUG"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite build-asan

echo "== build-tsan: ThreadSanitizer"
scripts/build.sh build-tsan -DVEL_TSAN=ON
# Every process writes its reports to build-tsan/tsan-reports/ (the tests,
# and the agent and the tool they start, whose exit not every test checks):
# any report there fails the run.
reports="$root/build-tsan/tsan-reports"
rm -rf "$reports" && mkdir -p "$reports"
tsan_status=0
TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 log_path=$reports/report" \
  run_suite build-tsan || tsan_status=$?
if compgen -G "$reports/report*" > /dev/null; then
  cat "$reports"/report*
  echo "!! ThreadSanitizer reported the races above"
  tsan_status=1
fi
((tsan_status == 0)) || exit "$tsan_status"

# Each target runs 10 s here, a smoke run on top of its corpus; longer runs
# are scripts/fuzz.sh SECONDS.
echo "== build-fuzz: every fuzz target for 10 s"
scripts/fuzz.sh 10

if ((arm)); then
  if ! wait "$sysroot_pid"; then
    cat build-arm64/sysroot.log
    echo "!! the arm64 sysroot could not be made"
    exit 1
  fi
  cat build-arm64/sysroot.log
  scripts/arm64.sh
fi
