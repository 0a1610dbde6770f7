#!/usr/bin/env bash
# The main job: installs what is missing, builds, creates a small demo store,
# starts the reference file agent on it and runs the tool against it:
# update (pull from the service), a local edit, commit (push back) and ls.
# Everything lives in build/demo/ and is recreated on every run.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

scripts/deps.sh
scripts/build.sh build > build.log 2>&1 || { tail -50 build.log; exit 1; }
echo "== built build/bin/vel and build/bin/velfileagent (full log: build.log)"

demo="$root/build/demo"
rm -rf "$demo"
mkdir -p "$demo/store/docs/notes" "$demo/mirror" "$demo/uds" "$demo/log"
printf 'Welcome to the demo store.\n' > "$demo/store/docs/readme.txt"
printf 'first note\n' > "$demo/store/docs/notes/monday.txt"
printf 'second note\n' > "$demo/store/docs/notes/tuesday.txt"

export UDS_ROOT_OSSUSER="$demo/uds"   # the agent's socket lives below this
export TARN_ROOT_DIR="$demo/mirror"   # the local mirror
export _APP_LOG_DIR="$demo/log"       # velsdk.log goes here

agent_out="$demo/agent.out"
build/bin/velfileagent --store "$demo/store" --mirror "$demo/mirror" \
  --journal "$demo/journal.jsonl" > "$agent_out" 2>&1 &
agent=$!
trap 'kill "$agent" 2>/dev/null; wait "$agent" 2>/dev/null || true' EXIT
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

show "store (the service) before" "$demo/store"
show "mirror before" "$demo/mirror"

step update docs
show "mirror after update (pulled from the service)" "$demo/mirror"

echo
echo "== editing the mirror copy of docs/readme.txt"
printf 'Edited in the mirror, then committed.\n' >> "$demo/mirror/docs/readme.txt"

step commit docs/readme.txt
echo "-- store copy of docs/readme.txt after commit:"
sed 's/^/   /' "$demo/store/docs/readme.txt"

step ls docs

echo
echo "== the agent received $(wc -l < "$demo/journal.jsonl") requests (build/demo/journal.jsonl);"
echo "   the library's log is build/demo/log/velsdk.log"
