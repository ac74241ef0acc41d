#!/usr/bin/env bash
# Installs what the project needs, then builds and runs the whole test suite
# twice: a normal build and an address+undefined sanitizer build. Warnings are
# errors here. Usage: scripts/test.sh [normal|address|thread ...]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
variants=("$@")
[ ${#variants[@]} -eq 0 ] && variants=(normal address)
for variant in "${variants[@]}"; do
  case "$variant" in
    normal) sanitize=none ;;
    address|thread) sanitize=$variant ;;
    *) echo "unknown variant: $variant" >&2; exit 2 ;;
  esac
  dir=build-test-$variant
  echo "== $variant build ($dir)"
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZARN_SANITIZE="$sanitize" \
        -DZARN_WARNINGS_AS_ERRORS=ON -DZARN_BUILD_BENCH=OFF >/dev/null
  cmake --build "$dir" -j2
  echo "== $variant tests"
  ZARN_LOG_LEVEL=${ZARN_LOG_LEVEL:-off} ctest --test-dir "$dir" -j2 --output-on-failure --timeout 300
done
