#!/usr/bin/env bash
# Draws sample timelines with zarn-media: three streams of synthetic video in a
# fresh store under $ZARN_BUILD_DIR/timeline-sample (default build/), with
# recordings that follow each other (a file cut), gaps and a locked span; then
# a picture of the hour (minutes), of the day (hours) and of the month (days).
# Needs a configured build directory (scripts/demo.sh or the README's set-up).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${ZARN_BUILD_DIR:-build}
cmake --build "$build" --target zarn-media >/dev/null
zm=$build/tools/zarn-media
out=$build/timeline-sample
rm -rf "$out"
mkdir -p "$out"
export ZARN_LOG_LEVEL=off
record() {  # STREAM START SECONDS
  "$zm" record --store "$out/store" --synthetic --size 160x120 --stream "$1" --start "$2" --seconds "$3" >/dev/null
}
record 1 "2024-05-01 12:00:00" 300
record 1 "2024-05-01 12:05:00" 300
record 1 "2024-05-01 12:30:00" 600
record 2 "2024-05-01 12:10:00" 900
record 3 "2024-05-01 06:00:00" 600
record 3 "2024-05-10 12:00:00" 600
"$zm" lock --store "$out/store" --stream 1 --from "2024-05-01 12:30:00" --to "2024-05-01 12:39:59" >/dev/null
for picture in "hour|2024-05-01 12:00:00|2024-05-01 12:59:59" "day|2024-05-01 00:00:00|2024-05-01 23:59:59" \
               "month|2024-05-01 00:00:00|2024-05-31 23:59:59"; do
  IFS='|' read -r name from to <<<"$picture"
  "$zm" timeline --store "$out/store" --stream 1 --stream 2 --stream 3 --from "$from" --to "$to" -o "$out/$name.svg"
done
