#!/usr/bin/env bash
# Builds the example application (examples/) against vel the ways another
# project would, and runs every build twice: in remote mode against the
# reference file agent (started in a temporary folder; the store must then
# hold the committed file) and in local mode alone.
#   prefix      cmake --install of DIR into a temporary prefix, find_package(vel)
#   pkg-config  the same prefix through the pkg-config module vel
#   subdir      add_subdirectory of this source tree
#   fetch       FetchContent from a tarball of this tree (file:// URL)
#   deb         the packages of DIR unpacked with dpkg -x into a temporary
#               root, find_package(vel); the packaged agent serves it
#   deb-static  the same root, g++ and pkg-config --static against libvel.a
# The packaged tool (vel help) runs from the unpacked root as well.
# Usage: scripts/example.sh [DIR]   (default build; run scripts/package.sh DIR first)
# VEL_EXAMPLE_KEEP=1 keeps the temporary folder with every log.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=$root/${1:-build}
jobs=$(nproc)

work=$(mktemp -d)
agent_pid=
cleanup() {
  if [[ -n $agent_pid ]]; then
    kill "$agent_pid" 2>/dev/null || true
    wait "$agent_pid" 2>/dev/null || true
  fi
  if [[ -n ${VEL_EXAMPLE_KEEP:-} ]]; then
    echo "example: kept $work"
  else
    rm -rf "$work"
  fi
}
trap cleanup EXIT

# Runs a command quietly; shows its output when it fails.
quiet() {
  local log=$work/$1.log
  shift
  "$@" > "$log" 2>&1 || { cat "$log"; echo "example: failed: $*" >&2; exit 1; }
}

build_example() {  # NAME cmake-options...
  local name=$1
  shift
  quiet "configure-$name" cmake -S "$root/examples" -B "$work/ex-$name" "$@"
  quiet "build-$name" cmake --build "$work/ex-$name" -j"$jobs"
}

start_agent() {  # AGENT STORE MIRROR UDS OUT
  UDS_ROOT_OSSUSER=$4 "$1" --store "$2" --mirror "$3" > "$5" 2>&1 &
  agent_pid=$!
  for _ in $(seq 100); do
    grep -q ready "$5" 2>/dev/null && return 0
    sleep 0.1
  done
  cat "$5"
  echo "example: the file agent $1 did not start" >&2
  exit 1
}

stop_agent() {
  kill "$agent_pid"
  wait "$agent_pid" 2>/dev/null || true
  agent_pid=
}

run_example() {  # NAME PROGRAM AGENT
  local name=$1 program=$2 agent=$3 run=$work/run-$1 mode
  mkdir -p "$run"/{store,mirror,local,uds,log}
  for mode in local remote; do
    local mirror=$run/$mode
    [[ $mode == remote ]] && mirror=$run/mirror && start_agent "$agent" "$run/store" "$mirror" \
      "$run/uds" "$run/agent.out"
    TARN_ROOT_DIR=$mirror UDS_ROOT_OSSUSER=$run/uds _APP_LOG_DIR=$run/log \
      quiet "run-$name-$mode" "$program" "$mode"
    [[ $mode == remote ]] && stop_agent
    local expected="written by mirror_example in $mode mode"
    local kept=$mirror/example/hello.txt
    [[ $mode == remote ]] && kept=$run/store/example/hello.txt
    if [[ $(cat "$kept" 2>/dev/null) != "$expected" ]]; then
      cat "$work/run-$name-$mode.log"
      echo "example ($name, $mode): $kept does not hold \"$expected\"" >&2
      exit 1
    fi
  done
  echo "== example ($name): local and remote mode passed"
}

agent=$dir/bin/velfileagent

prefix=$work/prefix
quiet install cmake --install "$dir" --prefix "$prefix"
build_example prefix -DCMAKE_PREFIX_PATH="$prefix"
run_example prefix "$work/ex-prefix/mirror_example" "$agent"

pcdir=$(dirname "$(find "$prefix" -name vel.pc)")
PKG_CONFIG_PATH=$pcdir build_example pkg-config -DVEL_EXAMPLE_USE=pkg-config
run_example pkg-config "$work/ex-pkg-config/mirror_example" "$agent"

build_example subdir -DVEL_EXAMPLE_USE=subdirectory -DVEL_EXAMPLE_SOURCE="$root"
run_example subdir "$work/ex-subdir/mirror_example" "$agent"

# The tarball holds the tree's files as they are now, committed or not.
(cd "$root" && git ls-files -z --cached --others --exclude-standard |
  tar --null -T - --transform 's,^,vel/,' -czf "$work/vel.tar.gz")
build_example fetch -DVEL_EXAMPLE_USE=fetch -DVEL_EXAMPLE_SOURCE="file://$work/vel.tar.gz"
run_example fetch "$work/ex-fetch/mirror_example" "$agent"

debroot=$work/debroot
for deb in "$dir"/libvel0_*.deb "$dir"/libvel-dev_*.deb "$dir"/vel-tools_*.deb; do
  dpkg -x "$deb" "$debroot"
done
libdir=$(dirname "$(find "$debroot" -name libvel.so.0)")
build_example deb -DCMAKE_PREFIX_PATH="$debroot/usr"
run_example deb "$work/ex-deb/mirror_example" "$debroot/usr/bin/velfileagent"

# pkg-config names -lvel; -l:libvel.a makes the linker take the archive,
# which then needs everything vel.pc lists for static linking.
libs=$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --static --libs vel)
quiet build-deb-static g++ -std=c++17 -o "$work/ex-deb-static" "$root/examples/mirror_example.cpp" \
  $(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags vel) ${libs/-lvel /-l:libvel.a }
if readelf -d "$work/ex-deb-static" | grep -q 'libvel\.so'; then
  echo "example (deb-static): linked libvel.so instead of libvel.a" >&2
  exit 1
fi
run_example deb-static "$work/ex-deb-static" "$debroot/usr/bin/velfileagent"

LD_LIBRARY_PATH=$libdir quiet tool-help "$debroot/usr/bin/vel" help
grep -q -- '-help' "$work/tool-help.log"
echo "== example: the packaged vel runs with the packaged libvel.so.0"
