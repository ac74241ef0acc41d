#!/usr/bin/env bash
# Installs the Debian packages the project builds with. Idempotent: when every
# package is already present it prints nothing and touches nothing.
set -euo pipefail
packages=(build-essential cmake ninja-build pkg-config
          libjsoncpp-dev zlib1g-dev libgtest-dev libgmock-dev libbenchmark-dev
          libavformat-dev libavcodec-dev libavutil-dev ffmpeg)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
