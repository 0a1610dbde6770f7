#!/usr/bin/env bash
# A one-node Ceph cluster with an S3 gateway, for the S3 store's tests and
# benchmarks: one monitor, one object store daemon keeping its objects in
# memory (memstore), and the gateway (radosgw, beast front end) on a free
# loopback port. Authentication between the daemons is off, pools keep one
# copy, there is no manager. Everything lives in the folder given: its
# configuration, its pid files, its logs. No system service or system
# configuration is touched; Debian's packages are installed by
# `scripts/deps.sh --ceph`.
#
# Usage:
#   scripts/ceph-fixture.sh start DIR [--owner PID|parent] [--lifetime SECONDS]
#                                     [--replace] [--allow-missing]
#       Creates DIR (which must not hold a cluster already: --replace stops
#       and removes one that is there first) and starts the
#       cluster there; returns once the gateway answers, after about three
#       seconds. DIR/cluster.env then holds, as shell assignments:
#         S3_ENDPOINT=http://127.0.0.1:PORT    the gateway
#         S3_HTTPS_ENDPOINT=https://127.0.0.1:PORT2
#         S3_CA_FILE=DIR/gateway.crt           the certificate it presents there
#         S3_BUCKET=vel                        an empty bucket, made
#         AWS_ACCESS_KEY_ID=...                an S3 user's keys
#         AWS_SECRET_ACCESS_KEY=...
#         AWS_REGION=us-east-1
#       With --owner the cluster is killed within a second of that process
#       ("parent": the one that started this script) ending; with --lifetime
#       once that many seconds have passed (default 3600): a watchdog in the
#       background, so that no aborted run leaves daemons behind.
#       Exit status 0 when it runs, 3 when the Ceph programs are not
#       installed (DIR/unavailable says which; nothing is started; 0 with
#       --allow-missing), 1 when it does not come up (the end of the
#       daemons' logs is printed).
#   scripts/ceph-fixture.sh stop DIR
#       Kills every daemon of the cluster in DIR (SIGKILL, by the pids in
#       DIR/run: at once, where SIGTERM takes seconds) and removes DIR.
set -euo pipefail

usage() {
  sed -n '/^# Usage:/,/^set -euo/p' "$0" | sed '$d; s/^# \{0,1\}//' >&2
  exit 2
}

(($# >= 2)) || usage
command=$1
dir=$2
shift 2

# Each daemon's pid file holds the id of a process whose name is known: a
# pid that was reused since is left alone.
kill_cluster() {
  local run=$1/run pidfile pid name
  [[ -d $run ]] || return 0
  for pidfile in "$run"/*.pid; do
    [[ -f $pidfile ]] || continue
    pid=$(cat "$pidfile" 2>/dev/null || true)
    name=$(basename "$pidfile" .pid)
    [[ $pid =~ ^[0-9]+$ && $pid != "$BASHPID" ]] || continue
    case $(cat "/proc/$pid/comm" 2>/dev/null || true) in
      ceph-mon | ceph-osd | radosgw | bash) kill -KILL "$pid" 2>/dev/null || true ;;
    esac
    [[ $name == watchdog ]] || rm -f "$pidfile"
  done
  rm -f "$run/watchdog.pid"
}

if [[ $command == stop ]]; then
  kill_cluster "$dir"
  rm -rf "$dir"
  exit 0
fi
[[ $command == start ]] || usage

owner=""
lifetime=3600
replace=0
allow_missing=0
while (($#)); do
  case $1 in
    --owner) owner=$2; shift 2 ;;
    --lifetime) lifetime=$2; shift 2 ;;
    --replace) replace=1; shift ;;
    --allow-missing) allow_missing=1; shift ;;
    *) usage ;;
  esac
done
[[ $owner != parent ]] || owner=$PPID
if ((replace)) && [[ -d $dir ]]; then
  kill_cluster "$dir"
  rm -rf "$dir"
fi

mkdir -p "$dir"
dir=$(cd "$dir" && pwd)
if [[ -e $dir/ceph.conf ]]; then
  echo "ceph-fixture: $dir already holds a cluster" >&2
  exit 1
fi
rm -f "$dir/unavailable"

missing=()
for program in ceph-mon ceph-osd radosgw radosgw-admin monmaptool osdmaptool ceph python3 curl \
  openssl; do
  command -v "$program" > /dev/null || missing+=("$program")
done
if ((${#missing[@]})); then
  echo "the Ceph programs are not installed (missing: ${missing[*]}; scripts/deps.sh --ceph installs them)" \
    > "$dir/unavailable"
  echo "ceph-fixture: not started: $(cat "$dir/unavailable")" >&2
  ((allow_missing)) && exit 0
  exit 3
fi

# Free loopback ports: bound by the kernel's choice, released, then taken
# by the daemons a moment later.
read -r mon_port rgw_port tls_port < <(python3 -c '
import socket
socks = [socket.socket() for _ in range(3)]
for s in socks:
    s.bind(("127.0.0.1", 0))
print(*(s.getsockname()[1] for s in socks))')

fsid=$(cat /proc/sys/kernel/random/uuid)
osd_uuid=$(cat /proc/sys/kernel/random/uuid)
key=$(head -c 10 /dev/urandom | od -An -tx1 | tr -d ' \n' | tr a-f A-F)
secret=$(head -c 30 /dev/urandom | base64 | tr -d '/+=\n')
mkdir -p "$dir"/{mon,osd,rgw,run,log}
conf=$dir/ceph.conf
# A self-signed certificate for the gateway's HTTPS port.
openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=127.0.0.1 \
  -addext subjectAltName=IP:127.0.0.1 -keyout "$dir/gateway.key" -out "$dir/gateway.crt" \
  > /dev/null 2>&1 || { echo "ceph-fixture: openssl could not make a certificate" >&2; exit 1; }

# paxos propose interval: the gateway creates its pools one monitor
# proposal after another on its first start; at the default of one second
# that takes about 9 s. The object store daemon's own crush update at start
# can race the monitor ("wrong fsid"): the crush map is written here.
cat > "$conf" <<EOF
[global]
fsid = $fsid
mon host = v2:127.0.0.1:$mon_port
public addr = 127.0.0.1
ms bind ipv6 = false
ms bind msgr1 = false
auth cluster required = none
auth service required = none
auth client required = none
keyring = /dev/null
run dir = $dir/run
admin socket = $dir/run/\$name.asok
pid file = $dir/run/\$name.pid
log file = $dir/log/\$name.log
osd pool default size = 1
osd pool default min size = 1
osd pool default pg num = 8
osd pool default pgp num = 8
osd pool default pg autoscale mode = off
mon allow pool size one = true
mon warn on pool no redundancy = false
mon osd auto mark in = true
mon data avail warn = 1
mon data avail crit = 0
paxos propose interval = 0.1

[mon]
mon data = $dir/mon

[osd]
osd data = $dir/osd
osd objectstore = memstore
memstore device bytes = 8589934592
osd crush update on start = false

[client.rgw.fixture]
rgw frontends = beast tcp_nodelay=1 endpoint=127.0.0.1:$rgw_port ssl_endpoint=127.0.0.1:$tls_port ssl_certificate=$dir/gateway.crt ssl_private_key=$dir/gateway.key
rgw data = $dir/rgw
# the gateway asks for an encrypted monitor connection unless told otherwise
ms mon client mode = crc
rgw thread pool size = 64
rgw enable usage log = false
# deleted and replaced objects give their space back within seconds
rgw gc obj min wait = 0
rgw gc processor period = 2
EOF

fail() {
  echo "ceph-fixture: $1" >&2
  for log in "$dir"/log/*.log; do
    [[ -f $log ]] && { echo "--- $log" >&2; tail -n 15 "$log" >&2; }
  done
  kill_cluster "$dir"
  exit 1
}

# A daemon detaches itself; its standard streams go to its log folder, so
# that whoever started this script (ctest) does not wait on them.
daemon() {
  "$@" < /dev/null >> "$dir/log/daemons.out" 2>&1 || fail "$1 did not start"
}

monmaptool --create --fsid "$fsid" --addv a "[v2:127.0.0.1:$mon_port]" "$dir/monmap" > /dev/null
# One object store daemon in the crush map (host "localhost" under the root
# "default"), created with the monitor.
osdmaptool "$dir/osdmap" --createsimple 1 --fsid "$fsid" > /dev/null 2>&1
ceph-mon -c "$conf" -i a --mkfs --monmap "$dir/monmap" --osdmap "$dir/osdmap" > /dev/null 2>&1 ||
  fail "the monitor's store could not be made"
daemon ceph-mon -c "$conf" -i a
ceph -c "$conf" --connect-timeout 20 osd new "$osd_uuid" 0 > /dev/null 2>&1 ||
  fail "the monitor did not register the object store daemon"
ceph-osd -c "$conf" -i 0 --mkfs --osd-uuid "$osd_uuid" > /dev/null 2>&1 ||
  fail "the object store daemon's store could not be made"
daemon ceph-osd -c "$conf" -i 0
# The user, while the gateway starts.
radosgw-admin -c "$conf" -n client.rgw.fixture user create --uid=vel --display-name=vel \
  --access-key="$key" --secret="$secret" > "$dir/log/user.json" 2>&1 &
user_pid=$!
daemon radosgw -c "$conf" -n client.rgw.fixture
wait "$user_pid" || fail "the S3 user could not be made"

for ((i = 0; i < 600; ++i)); do
  code=$(curl -s -o /dev/null -w '%{http_code}' --max-time 2 "http://127.0.0.1:$rgw_port/" || true)
  [[ $code == 200 ]] && break
  sleep 0.05
done
[[ $code == 200 ]] || fail "the gateway did not answer on port $rgw_port"
# The first bucket makes the gateway create its data pools: done here, so
# that no test waits for it.
code=$(curl -s -o /dev/null -w '%{http_code}' --max-time 30 -X PUT \
  --aws-sigv4 aws:amz:us-east-1:s3 --user "$key:$secret" \
  -H "x-amz-content-sha256: UNSIGNED-PAYLOAD" "http://127.0.0.1:$rgw_port/vel" || true)
[[ $code == 200 ]] || fail "the gateway did not make the bucket (HTTP $code)"

cat > "$dir/cluster.env" <<EOF
S3_ENDPOINT=http://127.0.0.1:$rgw_port
S3_HTTPS_ENDPOINT=https://127.0.0.1:$tls_port
S3_CA_FILE=$dir/gateway.crt
S3_BUCKET=vel
AWS_ACCESS_KEY_ID=$key
AWS_SECRET_ACCESS_KEY=$secret
AWS_REGION=us-east-1
EOF
chmod 600 "$dir/cluster.env"

# The watchdog: gone with its owner, or at the end of its lifetime.
(
  trap '' HUP
  end=$((SECONDS + lifetime))
  while ((SECONDS < end)); do
    [[ -z $owner ]] || kill -0 "$owner" 2>/dev/null || break
    sleep 1
  done
  kill_cluster "$dir"
) < /dev/null > /dev/null 2>&1 &
echo $! > "$dir/run/watchdog.pid"
disown
echo "ceph-fixture: S3 gateway at http://127.0.0.1:$rgw_port (cluster in $dir)"
