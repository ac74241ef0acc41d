#!/usr/bin/env bash
# Installs the Debian packages the project builds with (dpkg-dev and file for
# the .deb packages, help2man for the man pages). Idempotent: when every
# package is already present it prints nothing and touches nothing.
#   scripts/install-deps.sh            what a local-store build needs
#   scripts/install-deps.sh ceph       also libcephfs (the CephFS backend) and the
#                                      daemons of the throw-away test cluster
#   scripts/install-deps.sh fuzz       also clang and its runtime (libFuzzer)
# The extras combine: scripts/install-deps.sh ceph fuzz.
set -euo pipefail
packages=(build-essential cmake ninja-build pkg-config
          libjsoncpp-dev zlib1g-dev libgtest-dev libgmock-dev libbenchmark-dev
          libavformat-dev libavcodec-dev libavutil-dev ffmpeg
          dpkg-dev file help2man)
for extra in "$@"; do
  case "$extra" in
    ceph) packages+=(libcephfs-dev ceph-mon ceph-mgr ceph-osd ceph-mds ceph-common) ;;
    fuzz) packages+=(clang libclang-rt-14-dev) ;;
    *) echo "usage: $0 [ceph] [fuzz]" >&2; exit 2 ;;
  esac
done
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
