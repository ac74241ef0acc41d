#!/usr/bin/env bash
# zarn-media timeline and stats against real files: the picture's recorded and
# locked spans are the store's clip list, its cut lies where two recordings
# meet; stats puts each counter of a statistics file on its own line.
# Usage: test_zarn_media_observe.sh PATH/TO/zarn-media
set -uo pipefail

ZM=$(realpath "${1:?usage: test_zarn_media_observe.sh ZARN_MEDIA}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
export ZARN_LOG_LEVEL=off
failures=0
pass() { echo "ok   $1"; }
bad() { echo "FAIL $1"; failures=$((failures + 1)); }
same() {  # NAME EXPECTED GOT
  if [ "$2" = "$3" ]; then pass "$1"; else bad "$1: wanted [$2], got [$3]"; fi
}
expect_exit() {  # NAME CODE COMMAND...
  local name=$1 code=$2; shift 2
  "$@" >out 2>err
  local rc=$?
  [ "$rc" -eq "$code" ] && pass "$name" || bad "$name: exit $rc, wanted $code: $(cat err)"
}

record() {  # STREAM START SECONDS
  "$ZM" record --store st --synthetic --size 160x120 --stream "$1" --start "$2" --seconds "$3" >/dev/null
}
record 7 "2024-05-01 12:00:00" 10 && record 7 "2024-05-01 12:00:10" 10 && record 7 "2024-05-01 12:05:00" 10 &&
  record 8 "2024-05-01 12:02:00" 20 && "$ZM" lock --store st --stream 7 --from "2024-05-01 12:05:00" \
  --to "2024-05-01 12:05:05" >/dev/null || { echo "cannot make the recordings"; exit 1; }

echo "== timeline"
from="2024-05-01 11:00:00"
to="2024-05-01 12:59:59"
if ! "$ZM" timeline --store st --stream 7 --stream 8 --from "$from" --to "$to" -o t.svg >out 2>err; then
  echo "timeline failed: $(cat err)"; exit 1
fi
# "begin end" of the picture's spans of KIND in STREAM's row.
svg_spans() {
  grep -o "<rect class=\"$2\" data-stream=\"$1\" data-begin=\"[0-9]*\" data-end=\"[0-9]*\"" t.svg |
    sed 's/.*data-begin="\([0-9]*\)" data-end="\([0-9]*\)"/\1 \2/'
}
# "begin end" of STREAM's clips (end excluded, as drawn); only the locked ones with "locked".
clip_spans() {
  "$ZM" clips --store st --stream "$1" --from "$from" --to "$to" --clip-seconds 86400 --json |
    grep -o '"begin":{[^}]*"epoch":[0-9]*},"end":{[^}]*"epoch":[0-9]*},"size":[0-9]*,"locked":[a-z]*' |
    sed 's/.*"epoch":\([0-9]*\)},"end".*"epoch":\([0-9]*\)},.*"locked":\([a-z]*\)/\1 \2 \3/' |
    awk -v only="${2:-}" 'only == "" || $3 == "true" { print $1, $2 + 1 }'
}
for stream in 7 8; do
  expected=$(clip_spans $stream)
  [ -n "$expected" ] || bad "stream $stream has no clips"
  same "stream $stream: the recorded spans are the clip list" "$expected" "$(svg_spans $stream recorded)"
done
same "stream 7: the locked span is the locked clip" "$(clip_spans 7 locked)" "$(svg_spans 7 locked)"
cut=$(date -u -d "2024-05-01 12:00:10" +%s)
same "stream 7: one cut, where the second recording continues the first" \
  "data-time=\"$cut\"" "$(grep -o 'class="cut" data-stream="7" data-time="[0-9]*"' t.svg | grep -o 'data-time=.*')"
grep -q 'class="cut" data-stream="8"' t.svg && bad "stream 8 has a cut" || pass "stream 8: one file, no cut"
expect_exit "no -o" 2 "$ZM" timeline --store st --stream 7
expect_exit "no --stream" 2 "$ZM" timeline --store st -o x.svg
expect_exit "nothing recorded and no range" 5 "$ZM" timeline --store st --stream 99 -o x.svg

echo "== stats"
cat >mediasdk.stat <<'JSON'
{
   "ctime" : "1714564800",
   "file.split.count" : 2,
   "index.rebuild.failed.count" : 6,
   "index.rebuild.success.count" : 5,
   "ip" : "",
   "loop.overwrite.delete.capacity" : 9,
   "loop.overwrite.failed.count" : 8,
   "loop.overwrite.success.count" : 7,
   "name" : "media-sdk",
   "stream.avg" : 4,
   "stream.count" : 1,
   "write.failed.count" : 3,
   "write.success.count" : 30
}
JSON
if "$ZM" stats --file mediasdk.stat >out 2>err; then
  for line in "written          2024-05-01 12:00:00 UTC" "stream writers   1 recording now" "  files cut      2" \
              "  files closed   30 (3 failed)" "  write rate     4 MiB/s" "  index rebuilds 5 (6 failed)" \
              "  recycled files 7 (8 failed), 9 MiB freed"; do
    grep -qF -- "$line" out && pass "stats: $line" || bad "stats lacks '$line': $(cat out)"
  done
else
  bad "stats: $(cat err)"
fi
expect_exit "stats of a missing file" 4 "$ZM" stats --file nowhere.stat
grep -q "cannot read the statistics file nowhere.stat" err && pass "stats names the missing file" ||
  bad "stats error: $(cat err)"

[ "$failures" -eq 0 ] || { echo "$failures failure(s)"; exit 1; }
echo "all timeline and stats checks passed"
