#!/usr/bin/env bash
# Controls single daemons of a throw-away cluster made by ceph-cluster-start.sh, so tests can crash a
# daemon, bring it back and evict clients they killed.
#
#   ceph-cluster-daemon.sh DIR stop DAEMON [--kill]   SIGTERM, SIGKILL after 15 s; --kill: SIGKILL at once
#   ceph-cluster-daemon.sh DIR start DAEMON [--no-wait]
#                                                     start from the recorded command line and wait (120 s)
#                                                     until it is back in service
#   ceph-cluster-daemon.sh DIR evict CLIENT_ID        drop a CephFS client session now
#   ceph-cluster-daemon.sh DIR list                   names of the daemons that run, one a line
#
# DAEMON is a Ceph daemon name: mon.a, mgr.a, osd.0, mds.a. Progress and errors go to stderr.
#
# State in DIR/daemons: NAME.cmd holds the daemon's command line, shell-quoted; NAME.pid the pid of the
# instance this script started last. The start script writes the .cmd files and launches through here.
set -euo pipefail

usage() {
  sed -n '5,12s/^# \{0,1\}//p' "$0" >&2
  exit 2
}

[ $# -ge 2 ] || usage
dir=$(realpath -m -- "$1")
action=$2
shift 2
conf=$dir/ceph.conf
state=$dir/daemons
if [ ! -f "$conf" ] || [ ! -d "$state" ]; then
  echo "error: $dir holds no cluster made by ceph-cluster-start.sh" >&2
  exit 1
fi

# Every ceph call gets a time limit: with the mon gone the CLI would otherwise retry for minutes.
ceph_cli() { timeout 30 ceph -c "$conf" --connect-timeout 15 "$@"; }

cmd=()
load_cmd() {
  [ -f "$state/$1.cmd" ] || { echo "error: no daemon $1 recorded in $state" >&2; exit 1; }
  eval "cmd=($(<"$state/$1.cmd"))"
}

# A zombie passes kill -0 and a pid can be reused by now, so a daemon counts as running only while
# /proc shows exactly its recorded command line under the recorded pid. (An MDS that re-executes
# itself, as after "fs fail", keeps its pid and argv, so it stays recognised.)
running() {
  local pid have want
  pid=$(cat "$state/$1.pid" 2>/dev/null) || return 1
  [[ $pid =~ ^[0-9]+$ ]] || return 1
  have=$(tr '\0' '\n' 2>/dev/null <"/proc/$pid/cmdline") || return 1
  load_cmd "$1"
  want=$(printf '%s\n' "${cmd[@]}")
  [ -n "$have" ] && [ "$have" = "$want" ]
}

# Fully gone, or a zombie whose other threads are gone too: only then are its listening ports, its pid
# file lock and the bluestore file lock released. (The kernel empties cmdline before it closes the files
# of an exiting process, and a thread-group leader shows Z while its other threads still exit holding the
# shared file table: a new instance started then fails on the pid file lock.)
exited() {
  local stat tasks
  stat=$(cat "/proc/$1/stat" 2>/dev/null) || return 0
  stat=${stat##*) }
  [ "${stat%% *}" = Z ] || return 1
  tasks=$(ls "/proc/$1/task" 2>/dev/null | wc -l)
  [ "$tasks" -le 1 ]
}

wait_exit() {  # PID SECONDS
  local deadline=$((SECONDS + $2))
  while ! exited "$1"; do
    [ $SECONDS -lt "$deadline" ] || return 1
    sleep 0.2
  done
}

launch() {
  local name=$1
  load_cmd "$name"
  mkdir -p "$dir/log" "$dir/tmp"
  # -f keeps the daemon in the foreground, so $! is the daemon itself and not a parent that forks and
  # exits. setsid: the cluster must outlive the caller's process group (a test runner ending its job).
  # No stdio inherited: a caller reading our stdout through a pipe must not wait for the daemons.
  (cd "$dir" && TMPDIR=$dir/tmp exec setsid "${cmd[@]}" </dev/null >>"$dir/log/$name.out" 2>&1) &
  echo $! >"$state/$name.pid"
}

log_tail() {
  local log=$dir/log/ceph-$1.log
  [ -f "$log" ] || log=$dir/log/$1.out
  echo "--- last lines of $log:" >&2
  tail -n 25 "$log" >&2 2>/dev/null || true
}

# In service as seen by the new instance itself where possible: right after a crash the mon still
# lists the dead instance as up (osd: until heartbeat grace, mds: until beacon grace).
in_service() {
  local name=$1 asok=$dir/run/ceph-$1.asok
  case $name in
    mon.*) ceph_cli -s >/dev/null 2>&1 ;;
    mgr.*)  # the mgr map names the active instance by its global id, which only the instance knows
      local gid
      gid=$(ceph --admin-daemon "$asok" status 2>/dev/null | jq -e .inst.name.num) || return 1
      ceph_cli mgr dump -f json 2>/dev/null |
        jq -e --argjson gid "$gid" '.available and .active_gid == $gid' >/dev/null ;;
    osd.*) ceph --admin-daemon "$asok" status 2>/dev/null | jq -e '.state == "active"' >/dev/null ;;
    mds.*) ceph --admin-daemon "$asok" status 2>/dev/null | jq -e '.state == "up:active"' >/dev/null ;;
    *) return 1 ;;
  esac
}

start() {
  local name=$1 wait=$2 deadline=$((SECONDS + 120))
  if running "$name"; then
    echo "$name already runs (pid $(cat "$state/$name.pid"))" >&2
  else
    launch "$name"
    echo "$name started (pid $(cat "$state/$name.pid"))" >&2
  fi
  [ "$wait" = yes ] || return 0
  # The instance must still run once the cluster answers: an old instance still exiting, or another one
  # nobody recorded, can answer for it.
  until in_service "$name" && running "$name"; do
    if ! running "$name"; then
      echo "error: $name exited while starting" >&2
      log_tail "$name"
      return 1
    fi
    if [ $SECONDS -ge "$deadline" ]; then
      echo "error: $name not back in service after 120 s" >&2
      log_tail "$name"
      return 1
    fi
    sleep 0.5
  done
  echo "$name is in service" >&2
}

stop() {
  local name=$1 how=$2 pid
  load_cmd "$name"
  if ! running "$name"; then
    rm -f "$state/$name.pid"
    echo "$name is not running" >&2
    return 0
  fi
  pid=$(cat "$state/$name.pid")
  if [ "$how" = term ]; then
    kill -TERM "$pid" 2>/dev/null || true
    # An MDS waits for the mon to acknowledge that it leaves: about 4 s, 10 s with the mon gone.
    wait_exit "$pid" 15 || echo "$name ignored SIGTERM for 15 s; killing it" >&2
  fi
  exited "$pid" || kill -KILL "$pid" 2>/dev/null || true
  wait_exit "$pid" 15 || { echo "error: $name (pid $pid) survives SIGKILL" >&2; return 1; }
  rm -f "$state/$name.pid"
  echo "$name stopped" >&2
}

case $action in
  start)
    [ $# -ge 1 ] || usage
    wait=yes
    [ "${2:-}" = --no-wait ] && wait=no
    start "$1" "$wait"
    ;;
  stop)
    [ $# -ge 1 ] || usage
    how=term
    [ "${2:-}" = --kill ] && how="kill"
    stop "$1" "$how"
    ;;
  evict)
    [ $# -eq 1 ] || usage
    [[ $1 =~ ^[0-9]+$ ]] || usage
    mds=
    for f in "$state"/mds.*.cmd; do
      f=${f##*/}
      running "${f%.cmd}" && mds=${f%.cmd}
    done
    [ -n "$mds" ] || { echo "error: no MDS runs" >&2; exit 1; }
    ceph_cli tell "$mds" client evict "id=$1"
    ;;
  list)
    for f in "$state"/*.cmd; do
      [ -e "$f" ] || continue
      f=${f##*/}
      if running "${f%.cmd}"; then echo "${f%.cmd}"; fi
    done
    ;;
  *) usage ;;
esac
