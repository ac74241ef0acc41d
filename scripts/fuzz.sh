#!/usr/bin/env bash
# Builds the libFuzzer targets with clang under the address and undefined
# sanitizers, makes their seed corpora from a real recording, and runs each
# target for a bounded time. Exits non-zero when a target finds a crash, a
# leak, undefined behaviour or a broken invariant (the reproducer is kept in
# build-fuzz/findings/).
# Usage: scripts/fuzz.sh [SECONDS_PER_TARGET]   (default 60)
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
dir=build-fuzz
CC=clang CXX=clang++ cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZARN_FUZZ=ON \
  -DZARN_SANITIZE=address -DZARN_BUILD_TESTS=OFF -DZARN_BUILD_BENCH=OFF -DZARN_BUILD_TOOLS=OFF >/dev/null
cmake --build "$dir" -j2 --target fuzz_frame fuzz_record_name fuzz_record_file fuzz_config fuzz_index_fixer zarn_fuzz_seeds
corpus=$dir/corpus
rm -rf "$corpus" && mkdir -p "$corpus" "$dir/findings"
"$dir/tests/fuzz/zarn_fuzz_seeds" "$corpus"
status=0
for target in frame record_name record_file config index_fixer; do
  echo "== fuzz_$target, ${seconds} s"
  log=$dir/fuzz_$target.log
  if ! ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
       "$dir/tests/fuzz/fuzz_$target" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 \
       -artifact_prefix="$dir/findings/$target-" "$corpus/$target" >"$log" 2>&1; then
    status=1
    echo "fuzz_$target FOUND A FAULT:"; tail -n 40 "$log"
  fi
  grep -E '^Done [0-9]+ runs' "$log" || true
  grep -E '#[0-9]+.*(cov|ft):' "$log" | tail -n 1 || true
done
exit $status
