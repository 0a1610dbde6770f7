#!/usr/bin/env bash
# The main job: installs what is missing, builds, creates a small demo store,
# starts the reference file agent on it and runs the tool against it:
# update (pull from the service), a local edit, commit (push back) and ls.
# Everything lives in build/demo/ and is recreated on every run.
#
# With --webdav the store is a WebDAV server: Apache (mod_dav) started for
# the demo in the foreground on a free loopback port, from a configuration
# in a temporary folder that also holds its document root (the store; a
# folder the server's user can reach) and that is removed at the end. No
# system service or configuration is touched. The agent talks to it with
# --webdav.
# Usage: scripts/demo.sh [--webdav]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

webdav=0
[[ "${1:-}" == "--webdav" ]] && webdav=1

scripts/deps.sh
scripts/build.sh build > build.log 2>&1 || { tail -50 build.log; exit 1; }
echo "== built build/bin/vel and build/bin/velfileagent (full log: build.log)"

demo="$root/build/demo"
rm -rf "$demo"
mkdir -p "$demo/mirror" "$demo/uds" "$demo/log"
store="$demo/store"
pids=()
davroot=""
cleanup() {
  local pid
  for pid in "${pids[@]}"; do
    kill "$pid" 2>/dev/null
    wait "$pid" 2>/dev/null || true
  done
  [[ -n $davroot ]] && rm -rf "$davroot"
  return 0
}
trap cleanup EXIT
if ((webdav)); then
  davroot=$(mktemp -d /tmp/vel-demo-webdav.XXXXXX)
  chmod 711 "$davroot"
  store="$davroot/store"
fi
mkdir -p "$store/docs/notes"
printf 'Welcome to the demo store.\n' > "$store/docs/readme.txt"
printf 'first note\n' > "$store/docs/notes/monday.txt"
printf 'second note\n' > "$store/docs/notes/tuesday.txt"

store_args=(--store "$store")
if ((webdav)); then
  # A port nothing listens on.
  port=0
  for _ in $(seq 50); do
    candidate=$((20000 + RANDOM % 30000))
    if ! (exec 3<>"/dev/tcp/127.0.0.1/$candidate") 2>/dev/null; then
      port=$candidate
      break
    fi
  done
  ((port)) || { echo "no free port for the WebDAV server"; exit 1; }
  mkdir -p "$davroot/run" "$davroot/lock"
  modules=/usr/lib/apache2/modules
  {
    echo "ServerRoot \"$davroot\""
    echo "ServerName 127.0.0.1"
    echo "Listen 127.0.0.1:$port"
    echo "PidFile \"$davroot/run/httpd.pid\""
    echo "DefaultRuntimeDir \"$davroot/run\""
    echo "Mutex file:$davroot/run default"
    echo "ErrorLog \"$davroot/error.log\""
    for m in mpm_event authz_core alias dav dav_fs; do
      echo "LoadModule ${m}_module $modules/mod_$m.so"
    done
    # Apache started as root serves as www-data.
    if [[ $(id -u) -eq 0 ]]; then echo "User www-data"; echo "Group www-data"; fi
    echo "DavLockDB \"$davroot/lock/DavLock\""
    echo "Alias /dav \"$store\""
    echo "<Directory \"$store\">"
    echo "  Dav On"
    echo "  Require all granted"
    echo "</Directory>"
  } > "$davroot/httpd.conf"
  if [[ $(id -u) -eq 0 ]]; then chown -R www-data:www-data "$store" "$davroot/lock"; fi
  /usr/sbin/apache2 -f "$davroot/httpd.conf" -DFOREGROUND &
  pids+=($!)
  for _ in $(seq 100); do
    (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && break
    sleep 0.1
  done
  (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null ||
    { echo "the WebDAV server did not start:"; cat "$davroot/error.log"; exit 1; }
  echo "== WebDAV server (Apache, mod_dav) serving $store at http://127.0.0.1:$port/dav/"
  store_args=(--webdav "http://127.0.0.1:$port/dav/")
fi

export UDS_ROOT_OSSUSER="$demo/uds"   # the agent's socket lives below this
export TARN_ROOT_DIR="$demo/mirror"   # the local mirror
export _APP_LOG_DIR="$demo/log"       # velsdk.log goes here

agent_out="$demo/agent.out"
build/bin/velfileagent "${store_args[@]}" --mirror "$demo/mirror" \
  --journal "$demo/journal.jsonl" > "$agent_out" 2>&1 &
pids=("$!" "${pids[@]}")  # the agent stops first
for _ in $(seq 100); do
  grep -q ready "$agent_out" 2>/dev/null && break
  sleep 0.1
done
grep -q ready "$agent_out" || { echo "the file agent did not start:"; cat "$agent_out"; exit 1; }
echo "== reference file agent listening on $UDS_ROOT_OSSUSER/velfileagent/velfileagent.sock"

show() {
  echo "-- $1:"
  (cd "$2" && find . -mindepth 1 | sort | sed 's/^/   /')
}

step() {
  echo
  echo "\$ vel $*"
  build/bin/vel "$@" && echo "(exit status 0)" || echo "(exit status $?)"
}

show "store (the service) before" "$store"
show "mirror before" "$demo/mirror"

step update docs
show "mirror after update (pulled from the service)" "$demo/mirror"

echo
echo "== editing the mirror copy of docs/readme.txt"
printf 'Edited in the mirror, then committed.\n' >> "$demo/mirror/docs/readme.txt"

step commit docs/readme.txt
echo "-- store copy of docs/readme.txt after commit:"
sed 's/^/   /' "$store/docs/readme.txt"

step ls docs

echo
echo "== the agent received $(wc -l < "$demo/journal.jsonl") requests (build/demo/journal.jsonl);"
echo "   the library's log is build/demo/log/velsdk.log"
