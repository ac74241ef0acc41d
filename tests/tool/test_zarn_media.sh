#!/usr/bin/env bash
# End-to-end tests of the zarn-media tool with real H.264 video made by the
# ffmpeg command-line tool: round trips that must keep every packet's bytes,
# the key-frame and reverse orders, time-range cuts, and every error path with
# its exit code and message. Usage: test_zarn_media.sh PATH/TO/zarn-media
set -uo pipefail

ZM=$(realpath "${1:?usage: test_zarn_media.sh ZARN_MEDIA}")
[ -x "$ZM" ] || { echo "not an executable: $1"; exit 1; }
for tool in ffmpeg ffprobe; do
  command -v "$tool" >/dev/null || { echo "SKIP: $tool not installed"; exit 77; }
done
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
export ZARN_LOG_LEVEL=off
store=$work/store
failures=0

pass() { echo "ok   $1"; }
bad() { echo "FAIL $1"; failures=$((failures + 1)); }

# check NAME COMMAND...: the command must succeed.
check() {
  local name=$1; shift
  if "$@" >"$work/out" 2>"$work/err"; then pass "$name"; else bad "$name (exit $?): $(cat "$work/err")"; fi
}

# expect_fail NAME CODE PATTERN COMMAND...: exits with CODE and says PATTERN on stderr.
expect_fail() {
  local name=$1 code=$2 pattern=$3; shift 3
  "$@" >"$work/out" 2>"$work/err"
  local rc=$?
  if [ "$rc" -ne "$code" ]; then
    bad "$name: exit $rc, wanted $code; stderr: $(cat "$work/err")"
  elif ! grep -q -- "$pattern" "$work/err"; then
    bad "$name: stderr lacks '$pattern': $(cat "$work/err")"
  else
    pass "$name"
  fi
}

# The video packets of a file, one line each: size, flags, MD5 of the bytes.
packets() {
  ffprobe -v error -select_streams v:0 -show_entries packet=size,flags,data_hash -show_data_hash md5 \
          -of csv=p=0 "$1"
}
frame_count() {
  ffprobe -v error -select_streams v:0 -count_frames -show_entries stream=nb_read_frames -of csv=p=0 "$1"
}
# MD5 of every decoded picture, in output order.
picture_md5() { ffmpeg -v error -i "$1" -map 0:v:0 -fps_mode passthrough -f md5 - 2>/dev/null; }
duration() { ffprobe -v error -show_entries format=duration -of csv=p=0 "$1"; }
same() {  # NAME A B: files equal
  if cmp -s "$2" "$3"; then pass "$1"; else bad "$1: $(diff "$2" "$3" | head -5)"; fi
}

clip="-f lavfi -i testsrc=size=160x120:rate=25 -t 3 -c:v libx264 -g 25 -pix_fmt yuv420p"
# shellcheck disable=SC2086
ffmpeg -v error $clip in.mp4 && ffmpeg -v error $clip in.ts || { echo "cannot make test clips"; exit 1; }
packets in.mp4 >in.packets
[ "$(wc -l <in.packets)" -eq 75 ] || { echo "test clip has $(wc -l <in.packets) packets, not 75"; exit 1; }

T0="2024-05-01 12:00:00"
T1="2024-05-01 12:00:01"
T2="2024-05-01 12:00:02"

echo "== MP4 in, MP4/MKV out"
check "record mp4" "$ZM" record --store "$store" --stream 7 --start "$T0" --json in.mp4
grep -q '"frames":75' out && grep -q '"keyFrames":3' out && pass "record counts 75 frames, 3 key" ||
  bad "record summary: $(cat out)"
check "export mp4" "$ZM" export --store "$store" --stream 7 -o out.mp4
packets out.mp4 >out.packets
same "mp4 round trip keeps every packet's bytes, flags and count" in.packets out.packets
awk -v a="$(duration in.mp4)" -v b="$(duration out.mp4)" 'BEGIN { exit !(a - b < 0.05 && b - a < 0.05) }' &&
  pass "exported duration matches" || bad "duration $(duration out.mp4), source $(duration in.mp4)"
check "export mkv" "$ZM" export --store "$store" --stream 7 -o out.mkv
packets out.mkv >mkv.packets
same "mkv round trip keeps every packet" in.packets mkv.packets
[ "$(picture_md5 out.mkv)" = "$(picture_md5 in.mp4)" ] && pass "mkv decodes to the source pictures" ||
  bad "mkv pictures differ"

echo "== orders"
check "export key frames" "$ZM" export --store "$store" --stream 7 --order key -o key.mp4
grep ',K' in.packets >in.key
packets key.mp4 >key.packets
same "key-frame export holds exactly the key frames" in.key key.packets
check "export reverse" "$ZM" export --store "$store" --stream 7 --order reverse -o rev.mp4
# Groups of pictures last to first, each forward: lines 51-75, 26-50, 1-25.
{ sed -n 51,75p in.packets; sed -n 26,50p in.packets; sed -n 1,25p in.packets; } >rev.expected
packets rev.mp4 >rev.packets
same "reverse export: groups backwards, each forward" rev.expected rev.packets
[ "$(frame_count rev.mp4)" = 75 ] && pass "reverse export decodes 75 pictures" || bad "reverse decodes $(frame_count rev.mp4)"
check "export reverse-key" "$ZM" export --store "$store" --stream 7 --order reverse-key -o revkey.mp4
tac in.key >revkey.expected
packets revkey.mp4 >revkey.packets
same "reverse key export: key frames last first" revkey.expected revkey.packets

echo "== time ranges"
check "export one second" "$ZM" export --store "$store" --stream 7 --from "$T1" --to "$T1" -o r1.mp4
sed -n 26,50p in.packets >r1.expected
packets r1.mp4 >r1.packets
same "range [T1, T1] is the second group of pictures" r1.expected r1.packets
# Epoch seconds work as times too; a range starting inside a group starts at its key frame.
check "export from epoch seconds" "$ZM" export --store "$store" --stream 7 --from 1714564801 -o r12.h264
check "reference h264 of the last two groups" ffmpeg -v error -i in.mp4 -c:v copy -bsf:v h264_mp4toannexb \
  -f h264 full.h264
# Lines 26-75 as Annex-B: the exported elementary stream decodes to the source's last 50 pictures.
picture_md5_tail() { ffmpeg -v error -i "$1" -map 0:v:0 -fps_mode passthrough -f framemd5 - 2>/dev/null |
  grep -v '^#' | awk -F, '{print $NF}' | tail -n "$2"; }
[ "$(picture_md5_tail r12.h264 50)" = "$(picture_md5_tail in.mp4 50)" ] &&
  [ "$(frame_count r12.h264)" = 50 ] && pass "range from T1 holds the last 50 pictures" ||
  bad "range from T1: $(frame_count r12.h264) pictures"

echo "== MPEG-TS in"
check "record ts" "$ZM" record --store "$store" --stream 8 --start "$T0" in.ts
check "export annexb" "$ZM" export --store "$store" --stream 8 -o ts.h264
ffmpeg -v error -i in.ts -c:v copy -f h264 ts.reference.h264
same "ts round trip keeps the elementary stream byte for byte" ts.reference.h264 ts.h264
check "export ts-recorded stream to mp4" "$ZM" export --store "$store" --stream 8 -o ts.mp4
[ "$(frame_count ts.mp4)" = 75 ] && [ "$(picture_md5 ts.mp4)" = "$(picture_md5 in.ts)" ] &&
  pass "ts -> mp4 decodes to the same 75 pictures" || bad "ts -> mp4: $(frame_count ts.mp4) pictures"

echo "== H.265 in MKV"
# B-frames, no stored decode times, and two key pictures within the first second.
if ffmpeg -v error -f lavfi -i testsrc=size=160x120:rate=25 -t 2 -c:v libx265 -x265-params log-level=error \
          -g 25 in265.mkv 2>/dev/null; then
  check "record h265 mkv" "$ZM" record --store "$store" --stream 10 --start "$T0" in265.mkv
  packets in265.mkv >in265.packets
  for ext in mkv mp4; do
    check "export h265 $ext" "$ZM" export --store "$store" --stream 10 -o "out265.$ext"
    packets "out265.$ext" >"out265.$ext.packets"
    same "h265 -> $ext keeps every packet" in265.packets "out265.$ext.packets"
    [ "$(picture_md5 "out265.$ext")" = "$(picture_md5 in265.mkv)" ] && pass "h265 -> $ext decodes to the source pictures" ||
      bad "h265 -> $ext pictures differ"
  done
else
  echo "skip H.265: no libx265 in this ffmpeg"
fi

echo "== raw frames and queries"
"$ZM" export --store "$store" --stream 7 -o - >frames.bin 2>err
# 75 frames: the head magic starts each one, the tail magic ends each one.
[ "$(grep -a -o QRAV frames.bin | wc -l)" -ge 75 ] && [ "$(head -c 4 frames.bin)" = QRAV ] &&
  [ "$(grep -a -o qrav frames.bin | wc -l)" -ge 75 ] && pass "raw frames to stdout" || bad "raw frames: $(cat err)"
check "clips" "$ZM" clips --store "$store" --stream 7 --json
grep -q '"begin":{"utc":"2024-05-01 12:00:00"' out && grep -q '"end":{"utc":"2024-05-01 12:00:02"' out &&
  pass "clips span the recording" || bad "clips: $(cat out)"
check "files" "$ZM" files --store "$store" --stream 7
grep -q 'media_7/2024/05/01/120000_120002_264_' out && pass "files lists the closed record file" ||
  bad "files: $(cat out)"
check "status" "$ZM" status --store "$store" --stream 7
# One line for the hour, a character per minute: only the first minute is recorded.
[ "$(cat out)" = "2024-05-01 12:00  #$(printf '.%.0s' $(seq 59))" ] && pass "status marks the recorded minute" ||
  bad "status: $(cat out)"
check "info" "$ZM" info --store "$store" --streams 0-9 --json
grep -q '"stream":7,"codec":"h264"' out && grep -q '"stream":8' out && ! grep -q '"stream":3' out &&
  ! grep -q '"stream":10' out && pass "info finds the streams among 0-10 that have recordings" ||
  bad "info: $(cat out)"

echo "== locks"
check "lock" "$ZM" lock --store "$store" --stream 7 --from "$T0" --to "$T2"
check "lock again" "$ZM" lock --store "$store" --stream 7 --from "$T0" --to "$T2" --json
grep -q '"locked":true' out && pass "lock answers in JSON" || bad "lock --json: $(cat out)"
check "files after two locks" "$ZM" files --store "$store" --stream 7 --json
grep -q '"locks":2' out && grep -q '_264_2_1.qrv' out && pass "the two locks are in the file's name" ||
  bad "files after lock: $(cat out)"
check "unlock one" "$ZM" unlock --store "$store" --stream 7 --from "$T0" --to "$T2" --json
grep -q '"locksLeft":1' out && pass "unlock takes one lock off" || bad "unlock: $(cat out)"
check "unlock all" "$ZM" unlock --store "$store" --stream 7 --from "$T0" --to "$T2" --all
grep -q '0 lock(s) left' out && pass "unlock --all takes every lock off" || bad "unlock --all: $(cat out)"
check "info after unlocking" "$ZM" info --store "$store" --streams 7-7 --json
grep -q '"lockedFilesMiB":0' out && grep -q '"ledgerMiB":0' out && pass "info: nothing locked, ledger 0" ||
  bad "info after unlocking: $(cat out)"

echo "== synthetic"
check "record synthetic" "$ZM" record --store "$store" --stream 9 --synthetic --seconds 2 --fps 10 \
  --start "2024-05-01 13:00:00"
check "export synthetic" "$ZM" export --store "$store" --stream 9 -o syn.mp4
[ "$(frame_count syn.mp4)" = 20 ] && pass "synthetic: 20 pictures decode" || bad "synthetic: $(frame_count syn.mp4)"

echo "== errors"
"$ZM" files --store "$store" --stream 7 >files.before
printf 'not a video\n' >text.txt
ffmpeg -v error -f lavfi -i sine -t 1 audio.wav
ffmpeg -v error -f lavfi -i testsrc=size=64x48:rate=5 -t 1 -c:v mpeg4 mpeg4.mkv
expect_fail "missing input" 4 "cannot read 'missing.mp4'" "$ZM" record --store "$store" --stream 7 missing.mp4
expect_fail "text file" 4 "cannot read 'text.txt'" "$ZM" record --store "$store" --stream 7 text.txt
expect_fail "audio only" 4 "is not video" "$ZM" record --store "$store" --stream 7 audio.wav
expect_fail "other codec" 4 "only H.264 and H.265" "$ZM" record --store "$store" --stream 7 mpeg4.mkv
expect_fail "overlapping record" 2 "already has recordings" "$ZM" record --store "$store" --stream 7 --start "$T1" in.mp4
expect_fail "unknown stream" 5 "unknown stream 42" "$ZM" export --store "$store" --stream 42 -o x.mp4
expect_fail "unknown stream clips" 5 "unknown stream 42" "$ZM" clips --store "$store" --stream 42
expect_fail "inverted range" 2 "empty time range" "$ZM" export --store "$store" --stream 7 --from "$T2" --to "$T0" -o x.mp4
expect_fail "range without recordings" 5 "nothing is recorded for stream 7" \
  "$ZM" export --store "$store" --stream 7 --from "2024-05-01 14:00:00" --to "2024-05-01 15:00:00" -o x.mp4
expect_fail "bad time" 2 "is not a time" "$ZM" clips --store "$store" --stream 7 --from "2024-02-30 00:00:00"
expect_fail "no store" 3 "no store at" "$ZM" clips --store "$work/nothing" --stream 7
mkdir -p "$work/some-dir"
expect_fail "a directory that is no store" 3 "it has no media_system" "$ZM" files --store "$work/some-dir" --stream 7
[ -e "$work/some-dir/media_system" ] && bad "a read-only command made a store of a directory" ||
  pass "read-only commands leave other directories alone"
touch plain.file
expect_fail "store is a file" 3 "cannot open the store" "$ZM" record --store plain.file --stream 7 in.mp4
expect_fail "unknown output type" 2 "unknown output type" "$ZM" export --store "$store" --stream 7 -o x.avi
expect_fail "unwritable output" 4 "cannot write" "$ZM" export --store "$store" --stream 7 -o "$work/no/dir/x.mp4"
expect_fail "unknown option" 2 "unknown option --bogus" "$ZM" clips --store "$store" --stream 7 --bogus
expect_fail "missing stream" 2 "--stream ID is required" "$ZM" files --store "$store"
expect_fail "unknown command" 2 "unknown command" "$ZM" frobnicate
expect_fail "delete of an inverted range" 2 "empty time range" "$ZM" delete --store "$store" --stream 7 --from "$T2" --to "$T0"
expect_fail "delete needs a range" 2 "--from and --to are both required" "$ZM" delete --store "$store" --stream 7
expect_fail "policy needs one limit" 2 "exactly one of" "$ZM" policy --store "$store" --stream 7
ls x.* >/dev/null 2>&1 && bad "a failed export left an output file" || pass "failed exports leave no output file"
"$ZM" files --store "$store" --stream 7 >files.after
same "failed commands changed no recording" files.before files.after
check "recording still exports intact" "$ZM" export --store "$store" --stream 7 -o again.mp4
packets again.mp4 >again.packets
same "recording intact after the failures" in.packets again.packets

echo "== recycling and deletion"
check "policy dry run" "$ZM" policy --store "$store" --stream 7 --hours 24 --dry-run
grep -q "would remove .*media_7/2024/05/01/120000_120002.*time policy" out && pass "policy --dry-run names the file and why" ||
  bad "policy --dry-run: $(cat out)"
check "discard" "$ZM" discard --store "$store" --stream 9 --hours 1
check "maintain" "$ZM" maintain --store "$store" --json
grep -q 'media_9/' out && ! grep -q 'media_7/' out && pass "maintain empties the discarded stream and nothing else" ||
  bad "maintain: $(cat out)"
expect_fail "the discarded stream is gone" 5 "stream 9" "$ZM" files --store "$store" --stream 9
ls "$store/media_system" | grep -q discard && bad "the discard marker outlived its stream" ||
  pass "the discard marker went with the stream's last file"
expect_fail "delete: a range or all" 2 "not both" "$ZM" delete --store "$store" --stream 7 --all --from "$T0"
check "delete all" "$ZM" delete --store "$store" --stream 7 --all
expect_fail "a deleted stream is gone" 5 "stream 7" "$ZM" files --store "$store" --stream 7

# A recorder killed mid-file: nothing is listed until repair, which says what it
# did, exits 0, and finds nothing the second time; the video then exports.
crash=$work/crash
"$ZM" record --store "$crash" --stream 5 --synthetic --realtime --seconds 30 >/dev/null 2>&1 &
rec=$!
sleep 3
kill -KILL "$rec"; wait "$rec" 2>/dev/null
expect_fail "a killed recorder's file is not listed" 5 "nothing is recorded" "$ZM" files --store "$crash" --stream 5
check "repair dry run" "$ZM" repair --store "$crash" --dry-run --json
grep -q '"outcome": *"would rebuild"' out || bad "dry run did not report the file: $(cat out)"
check "repair" "$ZM" repair --store "$crash" --stream 5
grep -q "rebuilt with [1-9][0-9]* key frames" out || bad "repair did not rebuild the file: $(cat out)"
check "repair again" "$ZM" repair --store "$crash"
grep -q "nothing to repair" out || bad "a second repair found work: $(cat out)"
check "a repaired recording exports" "$ZM" export --store "$crash" --stream 5 -o crashed.mp4
[ "$(frame_count crashed.mp4)" -gt 25 ] || bad "the repaired recording holds $(frame_count crashed.mp4) frames"
expect_fail "repair refuses a directory without a store" 3 "no store at" "$ZM" repair --store "$work/none"

for cmd in record export clips files status lock unlock policy delete info repair maintain migrate discard; do
  "$ZM" "$cmd" --help >help.txt 2>&1 && grep -q "usage: zarn-media $cmd" help.txt || bad "$cmd --help"
done
pass "every command has --help"

echo "== $failures failure(s)"
[ "$failures" -eq 0 ]
