#!/usr/bin/env bash
# The main job on a fresh Debian 12 machine (as root): installs what the build
# needs, builds, makes a 5-second H.264 test clip with ffmpeg, records it into
# ./zarn-store with zarn-media, lists its clips, exports it back to MP4 and
# shows with ffprobe that the export decodes to as many frames as the clip.
# ZARN_BUILD_DIR picks the build directory (default build); the clip and the
# export stay in its demo/ directory and the store in ./zarn-store.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
build=${ZARN_BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DZARN_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" --target zarn-media
zm=$build/tools/zarn-media
out=$build/demo
mkdir -p "$out"
ffmpeg -v error -y -f lavfi -i testsrc=size=640x360:rate=25 -t 5 -c:v libx264 -g 25 -pix_fmt yuv420p \
       "$out/clip.mp4"
# Stream 1, starting now: a later run adds a new recording to the same stream,
# and the export takes this run's five seconds only
# (after the last one when the clock has not moved past it yet).
start=$(date -u +%s)
last=$("$zm" files --store ./zarn-store --stream 1 --json 2>/dev/null |
       grep -o '"end":{"utc":"[^"]*","epoch":[0-9]*' | grep -o '[0-9]*$' | sort -n | tail -n 1 || true)
if [ -n "$last" ] && [ "$last" -ge "$start" ]; then start=$((last + 2)); fi
echo "== record $out/clip.mp4 as stream 1"
"$zm" record --store ./zarn-store --stream 1 --start "$start" "$out/clip.mp4"
echo "== clips"
"$zm" clips --store ./zarn-store --stream 1
echo "== export to $out/export.mp4"
"$zm" export --store ./zarn-store --stream 1 --from "$start" --to "$((start + 4))" -o "$out/export.mp4"
count() {
  ffprobe -v error -select_streams v:0 -count_frames -show_entries stream=nb_read_frames -of csv=p=0 "$1"
}
source_frames=$(count "$out/clip.mp4")
export_frames=$(count "$out/export.mp4")
echo "== ffprobe: clip.mp4 decodes $source_frames frames, export.mp4 decodes $export_frames frames"
if [ "$source_frames" != "$export_frames" ]; then
  echo "MISMATCH" >&2
  exit 1
fi
echo "OK: the export decodes to the same $export_frames frames"
