#!/usr/bin/env bash
# Stops the throw-away cluster that ceph-cluster-start.sh started in DIR:
#
#   ceph-cluster-stop.sh DIR [--wipe]
#
# Ends only the daemons whose pids DIR records (other clusters on this machine keep running).
# Idempotent: with nothing running, or no cluster in DIR at all, it exits 0. --wipe removes DIR
# afterwards (only a DIR that holds a cluster made by the start script).
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
daemon_sh=$here/ceph-cluster-daemon.sh
marker="# zarn throw-away test cluster"

usage() {
  echo "usage: $0 DIR [--wipe]" >&2
  exit 2
}
[ $# -ge 1 ] || usage
[ $# -le 2 ] || usage
dir=$(realpath -m -- "$1")
wipe=no
if [ $# -eq 2 ]; then
  [ "$2" = --wipe ] || usage
  wipe=yes
fi
conf=$dir/ceph.conf

say() { echo "ceph-cluster-stop: $*" >&2; }

ours=no
[ -f "$conf" ] && [ -d "$dir/daemons" ] && [ "$(head -n 1 "$conf")" = "$marker" ] && ours=yes
if [ $ours = no ]; then
  say "no cluster in $dir; nothing to stop"
  exit 0
fi

mapfile -t running < <("$daemon_sh" "$dir" list)
if [ ${#running[@]} -gt 0 ]; then
  say "stopping ${running[*]}"
  # The rank goes down through the mon first: "fs fail" takes under a second ("fs set down true" is
  # as clean but took 17 s here). The MDS then re-executes itself as a standby, same pid, and leaves
  # on SIGTERM without holding a rank the mon would have to fail over.
  if [[ " ${running[*]} " == *" mon.a "* && " ${running[*]} " == *" mds."* ]]; then
    timeout 20 ceph -c "$conf" --connect-timeout 10 fs fail zarnfs >/dev/null 2>&1 ||
      say "could not fail the file system; the MDS may need SIGKILL"
  fi
  # The mon goes last: OSDs and the MDS tell it they are leaving and would otherwise wait for it.
  pids=()
  for name in "${running[@]}"; do
    [ "$name" = mon.a ] && continue
    "$daemon_sh" "$dir" stop "$name" &
    pids+=($!)
  done
  rc=0
  for pid in "${pids[@]}"; do wait "$pid" || rc=1; done
  "$daemon_sh" "$dir" stop mon.a || rc=1
  left=$("$daemon_sh" "$dir" list)
  if [ -n "$left" ] || [ $rc -ne 0 ]; then
    say "error: could not stop all daemons; still running: ${left:-none}"
    exit 1
  fi
else
  say "nothing runs in $dir"
fi

if [ $wipe = yes ]; then
  rm -rf -- "$dir"
  say "removed $dir"
fi
