#!/usr/bin/env bash
# zarn-media on a directory whose MediaConfig.cfg names two local disks: a
# closed record file put on disk 1 is shown waiting (info) and local (files),
# the other stays in the store, migrate moves exactly it, and afterwards both
# lie in the store, the disks hold nothing and the stream still exports whole.
# Usage: test_zarn_media_local.sh PATH/TO/zarn-media
set -uo pipefail

ZM=$(realpath "${1:?usage: test_zarn_media_local.sh ZARN_MEDIA}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
export ZARN_LOG_LEVEL=off
failures=0
pass() { echo "ok   $1"; }
bad() { echo "FAIL $1"; failures=$((failures + 1)); }
has() {  # NAME PATTERN: out holds PATTERN
  grep -q -- "$2" out && pass "$1" || bad "$1: no '$2' in $(cat out)"
}
run() {  # COMMAND...: must exit 0, output in out
  "$ZM" "$@" >out 2>err || bad "$1 exited $?: $(cat err)"
}

# Two recordings of stream 7 in a scratch store, made before the disks are
# configured; the second file then goes to disk 1 as a store outage leaves it.
for start in "2024-05-01 12:00:00" "2024-05-01 12:00:10"; do
  "$ZM" record --store st --synthetic --size 160x120 --stream 7 --start "$start" --seconds 4 >/dev/null ||
    { echo "cannot record"; exit 1; }
done
day=media_7/2024/05/01
moved=$(cd st && ls $day/120010_*.qrv) && kept=$(cd st && ls $day/120000_*.qrv) || { echo "unexpected files"; exit 1; }
mkdir -p d0 "d1/$day" && mv "st/$moved" "d1/$moved"
printf '{ "enable_cfg": 1, "stdfile_disk": ["%s/d0", "%s/d1"] }\n' "$work" "$work" >MediaConfig.cfg
size=$(stat -c %s "d1/$moved")

echo "== before migration"
run info --store st --streams 7-7 --json
has "info: disk 1 has the file waiting" "\"disk\":1,\"path\":\"$work/d1\",\"usable\":true,.*\"awaitingFiles\":1,\"awaitingBytes\":$size}"
has "info: disk 0 has nothing waiting" "\"disk\":0,.*\"awaitingFiles\":0,\"awaitingBytes\":0}"
has "info: stream 7 has both files, one waiting" "\"stream\":7,.*\"files\":2,.*\"awaitingFiles\":1,\"awaitingBytes\":$size}"
run files --store st --stream 7
has "files: the moved file lies on disk 1" "^$moved .* local:1$"
has "files: the other file lies in the store" "^$kept .* store$"

echo "== migrate"
run migrate --store st --json
has "migrate moves the one file" "\"movedFiles\":1,\"movedBytes\":$size,\"failedFiles\":0,\"waitingFiles\":0,\"leftFiles\":0"
[ -f "st/$moved" ] && [ ! -e "d1/$moved" ] && pass "the file is in the store and gone from the disk" ||
  bad "after migrate: $(find st d1 -name '*.qrv')"
run files --store st --stream 7 --json
[ "$(grep -o '"where":"[a-z:0-9]*"' out | sort | uniq -c | tr -s ' ')" = ' 2 "where":"store"' ] &&
  pass "files: both in the store" || bad "files after migrate: $(cat out)"
run info --store st --streams 7-7
has "info: nothing waiting for stream 7" "^  7 .* 2 file(s).*awaiting migration 0 file(s)"
has "info: nothing waiting on disk 1" "^  1 .*/d1  usable, .*awaiting migration 0 file(s)"

rm MediaConfig.cfg
run export --store st --stream 7 -o all.mp4
has "the store alone exports both files' frames" "exported 200 frames"
run info --store st --streams 7-7
grep -q "local disks\|awaiting" out && bad "info without local disks mentions them: $(cat out)" ||
  pass "info without local disks is unchanged"
"$ZM" migrate --store st >out 2>err
[ $? -eq 2 ] && grep -q 'no "stdfile_disk"' err && pass "migrate without local disks: usage error" ||
  bad "migrate without local disks: $(cat err)"

[ "$failures" -eq 0 ] || { echo "$failures failure(s)"; exit 1; }
echo "all local store checks passed"
