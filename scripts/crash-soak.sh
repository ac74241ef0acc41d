#!/usr/bin/env bash
# Long crash soak by hand: the crash recovery test with many more kills.
#
#   scripts/crash-soak.sh [--rounds N] [--seed S] [--ceph] [--build DIR]
#
# --rounds: kills per test (default 500); --seed: replay a run; --ceph: the
# Ceph variants only (source DIR/zarn-test.env of a cluster from
# scripts/ceph-cluster-start.sh first), else the local ones.
set -euo pipefail
rounds=500 seed= filter='*Local*' build=build
while [ $# -gt 0 ]; do
  case $1 in
    --rounds) rounds=$2; shift 2 ;;
    --seed) seed=$2; shift 2 ;;
    --ceph) filter='*Ceph*'; shift ;;
    --build) build=$2; shift 2 ;;
    *) sed -n '4,8s/^# \{0,1\}//p' "$0" >&2; exit 2 ;;
  esac
done
if [ "$filter" = '*Ceph*' ] && [ -z "${ZARN_TEST_CEPH_ADDRESS:-}" ]; then
  echo "error: ZARN_TEST_CEPH_ADDRESS is not set; source the cluster's zarn-test.env" >&2
  exit 2
fi
cd "$(dirname "$0")/.."
ninja -C "$build" test_crash_recovery zarn_crash_recorder >/dev/null
export ZARN_CRASH_ROUNDS=$rounds
[ -n "$seed" ] && export ZARN_CRASH_SEED=$seed
exec "$build/tests/recovery/test_crash_recovery" --gtest_filter="$filter"
