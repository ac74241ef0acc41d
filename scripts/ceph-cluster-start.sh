#!/usr/bin/env bash
# Starts a throw-away single-node Ceph cluster on 127.0.0.1 for tests, CI and benchmarks:
#
#   ceph-cluster-start.sh DIR [--osds 1|3]
#
# One mon, one mgr, N bluestore OSDs on sparse files, one MDS and the CephFS "zarnfs" (pools
# zarnfs_metadata and zarnfs_data, size 1). With 3 OSDs also the erasure-coded data pool zarn_ec_2_1
# (k=2 m=1): the store backend maps a file of 2 data + 1 parity shards to the pool zarn_ec_<k>_<m>.
# A k=2 m=1 pool needs three OSDs to place its shards, so a single-OSD cluster has none.
#
# Everything lives in DIR (made if missing): ceph.conf, zarn-test.env (exports for tests), daemon data,
# logs, sockets, pid files. Nothing goes to /etc/ceph, /var/lib/ceph, /var/log/ceph or /var/run/ceph.
# Returns once an MDS rank is up:active and every PG is active+clean; gives up after
# ZARN_CEPH_START_TIMEOUT seconds (default 120), stops what it started and shows the relevant log.
# Progress goes to stderr; the last line on stdout is the path of ceph.conf.
# Stop with ceph-cluster-stop.sh DIR; crash or restart one daemon with ceph-cluster-daemon.sh.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
daemon_sh=$here/ceph-cluster-daemon.sh

usage() {
  echo "usage: $0 DIR [--osds 1|3]" >&2
  exit 2
}

[ $# -ge 1 ] || usage
dir=$(realpath -m -- "$1")
shift
osds=1
while [ $# -gt 0 ]; do
  case $1 in
    --osds) [ $# -ge 2 ] || usage; osds=$2; shift 2 ;;
    --osds=*) osds=${1#--osds=}; shift ;;
    *) usage ;;
  esac
done
[ "$osds" = 1 ] || [ "$osds" = 3 ] || usage
timeout_s=${ZARN_CEPH_START_TIMEOUT:-120}

conf=$dir/ceph.conf
state=$dir/daemons
marker="# zarn throw-away test cluster"
fs_name=zarnfs
ec_pool=zarn_ec_2_1
# Sparse; only what is written takes disk space (the disk is shared with builds).
osd_block_bytes=$((8 << 30))

say() { echo "ceph-cluster-start: $*" >&2; }
die() { say "error: $*"; exit 1; }

# Refuse to touch a directory that holds something else; a stopped cluster of ours is replaced.
if [ -e "$dir" ]; then
  [ -d "$dir" ] || die "$dir is not a directory"
  if [ -f "$conf" ] && [ "$(head -n 1 "$conf")" = "$marker" ]; then
    running=$("$daemon_sh" "$dir" list)
    [ -z "$running" ] || die "a cluster already runs in $dir ($(echo "$running" | tr '\n' ' '))"
    rm -rf "${dir:?}"/{ceph.conf,zarn-test.env,daemons,run,log,crash,tmp,monmap,mon.*,mgr.*,osd.*,mds.*}
  elif [ -n "$(ls -A "$dir")" ]; then
    die "$dir is not empty and holds no cluster made by this script"
  fi
fi
mkdir -p "$dir"/{daemons,run,log,crash,tmp}

started=no
finish() {
  local rc=$?
  if [ $rc -ne 0 ] && [ $started = yes ]; then
    say "start failed; stopping what was started (data and logs stay in $dir)"
    "$here/ceph-cluster-stop.sh" "$dir" >&2 || true
  fi
}
trap finish EXIT

ceph_cli() { timeout 30 ceph -c "$conf" --connect-timeout 15 "$@"; }
# A setup step: quiet when it works, its output and a stop when it does not.
ceph_do() {
  local out
  out=$(ceph_cli "$@" 2>&1) || die "ceph $* failed: $out"
}

# Listening ports seen now; a port chosen from below the ephemeral range cannot be taken by an
# outgoing connection. Another start running at the same time may still pick the same port: the mon
# then fails to bind and the caller retries with other ports.
free_port() {
  local p _
  for _ in $(seq 200); do
    p=$((20000 + RANDOM % 12000))
    if [ "$p" != "${1:-}" ] && [ -z "$(ss -Hltn "sport = :$p")" ]; then
      echo "$p"
      return 0
    fi
  done
  die "no free TCP port found in 20000-31999"
}

# Not "list | grep -q": grep quitting early fails the pipeline under pipefail.
is_running() { [[ $'\n'$("$daemon_sh" "$dir" list)$'\n' == *$'\n'"$1"$'\n'* ]]; }

log_tail() {  # DAEMON...
  local name log
  for name in "$@"; do
    log=$dir/log/ceph-$name.log
    [ -s "$log" ] || log=$dir/log/$name.out
    echo "--- last lines of $log:" >&2
    tail -n 25 "$log" >&2 2>/dev/null || true
  done
}

deadline=$((SECONDS + timeout_s))
# wait_for WHAT "DAEMONS whose log explains a failure" COMMAND...
wait_for() {
  local what=$1 logs=$2 name
  shift 2
  until "$@"; do
    for name in $logs; do
      is_running "$name" || { say "error: $name exited while waiting for $what"; log_tail "$name"; exit 1; }
    done
    if [ $SECONDS -ge "$deadline" ]; then
      say "error: not ready after ${timeout_s} s: $what"
      # shellcheck disable=SC2086  # a list of daemon names
      log_tail $logs
      exit 1
    fi
    sleep 0.5
  done
}

record() {  # NAME COMMAND... : the line ceph-cluster-daemon.sh starts the daemon from, now and later
  local name=$1
  shift
  printf '%q ' "$@" >"$state/$name.cmd"
  echo >>"$state/$name.cmd"
}

write_conf() {  # MSGR2_PORT MSGR1_PORT
  local section
  {
    echo "$marker"
    cat <<EOF
# Written by scripts/ceph-cluster-start.sh; every path below stays inside $dir.
[global]
fsid = $fsid
# A client given a bare mon_host=127.0.0.1:PORT (any port but 3300 or 6789) tries msgr v2 and v1 at
# that port side by side and keeps what answers; the v2 port is the one tests get (at the v1 port the
# failed v2 attempt logs an error line on every mount). Explicit v1: clients use the second port.
mon host = [v2:127.0.0.1:$1,v1:127.0.0.1:$2]
public addr = 127.0.0.1
cluster addr = 127.0.0.1
run dir = $dir/run
crash dir = $dir/crash
keyring = $dir/\$name.keyring
mon cluster log file = default=$dir/log/ceph.\$channel.log cluster=$dir/log/ceph.log
mon debug dump location = $dir/log/ceph-\$name.tdump

auth cluster required = none
auth service required = none
auth client required = none
mon warn on insecure global id reclaim allowed = false

# One host, one copy: CRUSH places replicas across OSDs, not hosts, and pools of size 1 are allowed.
osd crush chooseleaf type = 0
mon allow pool size one = true
mon warn on pool no redundancy = false
osd pool default size = 1
osd pool default min size = 1
# Few PGs, fixed: the autoscaler would split and merge them while tests run.
osd pool default pg num = 8
osd pool default pgp num = 8
osd pool default pg autoscale mode = off
mon allow pool delete = true
# The shared disk reports about 30 % available, the default warning level; not a cluster problem.
mon data avail warn = 5
# Sooner PG state reports: readiness waits on them.
mgr stats period = 1

# The machine (2 cores, 24 GiB) is shared with builds.
mon memory target = 536870912
osd memory target = 536870912
mds cache memory limit = 134217728
mgr initial modules =
EOF
    # Daemons only: a client given this file must not try to write pid files or logs here.
    for section in mon mgr osd mds; do
      cat <<EOF

[$section]
$section data = $dir/\$name
log file = $dir/log/\$cluster-\$name.log
pid file = $dir/run/\$name.pid
admin socket = $dir/run/\$cluster-\$name.asok
EOF
      case $section in
        mon) cat <<EOF
# Below the memory target, or the mon logs a cache ratio error on every osdmap.
rocksdb cache size = 134217728
# A port taken by a start racing this one is given up after ~3 s, not 15 s; new ports are tried.
ms bind retry count = 3
ms bind retry delay = 1
EOF
          ;;
        osd) cat <<EOF
osd objectstore = bluestore
bluestore block create = true
bluestore block size = $osd_block_bytes
EOF
          ;;
      esac
    done
  } >"$conf.tmp"
  mv "$conf.tmp" "$conf"
}

t0=$SECONDS
fsid=$(uuidgen)

# --- mon ---------------------------------------------------------------------------------------
say "starting $osds-OSD cluster in $dir"
for attempt in 1 2 3; do
  port_v2=$(free_port)
  port_v1=$(free_port "$port_v2")
  write_conf "$port_v2" "$port_v1"
  rm -rf "$dir/mon.a" "$dir/mon.a.keyring" "$dir/monmap"
  monmaptool --create --fsid "$fsid" --addv a "[v2:127.0.0.1:$port_v2,v1:127.0.0.1:$port_v1]" \
    "$dir/monmap" >/dev/null
  # With auth none the mon never checks keys, but mkfs insists on a keyring.
  ceph-authtool --create-keyring "$dir/mon.a.keyring" --gen-key -n mon. --cap mon 'allow *' >/dev/null
  ceph-mon -c "$conf" -i a --mkfs --monmap "$dir/monmap" >"$dir/log/mon.a.mkfs" 2>&1 ||
    { cat "$dir/log/mon.a.mkfs" >&2; die "mon mkfs failed"; }
  record mon.a "$(command -v ceph-mon)" -f -c "$conf" -i a
  started=yes
  "$daemon_sh" "$dir" start mon.a --no-wait
  # The mon exits when its ports are taken (after the messenger's bind retries); a short connect
  # time-out notices that soon.
  until timeout 10 ceph -c "$conf" --connect-timeout 3 -s >/dev/null 2>&1; do
    is_running mon.a || break
    [ $SECONDS -lt "$deadline" ] || { say "error: mon not answering"; log_tail mon.a; exit 1; }
    sleep 0.3
  done
  is_running mon.a && break
  [[ $(tail -n 20 "$dir/log/ceph-mon.a.log" 2>/dev/null) == *"unable to bind"* ]] || { log_tail mon.a; die "mon exited"; }
  say "mon could not bind port $port_v2 or $port_v1 (attempt $attempt); trying others"
  [ "$attempt" -lt 3 ] || { log_tail mon.a; die "mon could not bind"; }
done
# The devicehealth module would create its pool (and a PG that is not clean yet) at some moment
# after the OSDs come up, possibly after we reported ready; file-backed OSDs have no SMART data anyway.
ceph_do config set mgr mgr/devicehealth/enable_monitoring false --force
say "mon.a answers on 127.0.0.1:$port_v2 (msgr v2) and :$port_v1 (v1) after $((SECONDS - t0)) s"

# --- mgr, OSDs, MDS ------------------------------------------------------------------------------
mkdir -p "$dir/mgr.a"
record mgr.a "$(command -v ceph-mgr)" -f -c "$conf" -i a
"$daemon_sh" "$dir" start mgr.a --no-wait

# bluestore mkfs takes a few seconds per OSD: run them side by side.
mkfs_pids=()
for _ in $(seq "$osds"); do
  uuid=$(uuidgen)
  id=$(ceph_cli osd new "$uuid")
  mkdir -p "$dir/osd.$id"
  ceph-osd -c "$conf" -i "$id" --mkfs --osd-uuid "$uuid" >"$dir/log/osd.$id.mkfs" 2>&1 &
  mkfs_pids+=("$!:$id")
done
for entry in "${mkfs_pids[@]}"; do
  id=${entry#*:}
  wait "${entry%%:*}" || { cat "$dir/log/osd.$id.mkfs" >&2; die "osd.$id mkfs failed"; }
  record "osd.$id" "$(command -v ceph-osd)" -f -c "$conf" -i "$id"
  "$daemon_sh" "$dir" start "osd.$id" --no-wait
done
osd_names=$(seq -f 'osd.%g' 0 $((osds - 1)) | tr '\n' ' ')

mkdir -p "$dir/mds.a"
record mds.a "$(command -v ceph-mds)" -f -c "$conf" -i a
"$daemon_sh" "$dir" start mds.a --no-wait

# --- file system -------------------------------------------------------------------------------
ceph_do osd pool create "${fs_name}_metadata"
ceph_do osd pool create "${fs_name}_data"
ceph_do fs new "$fs_name" "${fs_name}_metadata" "${fs_name}_data"
# There is only one MDS; a missing standby is expected, not a health problem.
ceph_do fs set "$fs_name" standby_count_wanted 0

osds_up() { [ "$(ceph_cli osd stat -f json 2>/dev/null | jq -r .num_up_osds)" = "$osds" ]; }
if [ "$osds" = 3 ]; then
  # allow_ec_overwrites is accepted only once the mon knows the OSDs are bluestore, from their boot.
  wait_for "$osds OSDs up" "$osd_names" osds_up
  ceph_do osd erasure-code-profile set "$ec_pool" k=2 m=1 crush-failure-domain=osd
  ceph_do osd pool create "$ec_pool" erasure "$ec_pool"
  ceph_do osd pool set "$ec_pool" allow_ec_overwrites true
  ceph_do fs add_data_pool "$fs_name" "$ec_pool"
fi

# --- ready -----------------------------------------------------------------------------------------
mds_active() {
  ceph_cli fs get "$fs_name" -f json 2>/dev/null |
    jq -e '[.mdsmap.info[] | select(.state == "up:active")] | length >= 1' >/dev/null
}
# Counted against the PGs the osdmap defines: right after a pool is made the mgr may not know its PGs
# yet and would report the older ones all clean.
pgs_clean() {
  local want stat
  want=$(ceph_cli osd pool ls detail -f json 2>/dev/null | jq '[.[].pg_num] | add // 0') || return 1
  stat=$(ceph_cli pg stat -f json 2>/dev/null) || return 1
  jq -e --argjson want "$want" '.pg_summary as $s | $want > 0 and $s.num_pgs == $want and
    ([$s.num_pg_by_state[] | select(.name == "active+clean") | .num] | add // 0) == $want' \
    <<<"$stat" >/dev/null
}
wait_for "MDS up:active" "mds.a mon.a" mds_active
wait_for "all PGs active+clean" "mgr.a $osd_names" pgs_clean
say "ready after $((SECONDS - t0)) s"

{
  printf 'export ZARN_CEPH_CONF=%q\n' "$conf"
  printf 'export ZARN_TEST_CEPH_ADDRESS=%q\n' "ceph://127.0.0.1:$port_v2/zarn-tests"
  printf 'export ZARN_TEST_CEPH_DIR=%q\n' "$dir"
  printf 'export ZARN_TEST_CEPH_OSDS=%q\n' "$osds"
} >"$dir/zarn-test.env"
echo "$conf"
