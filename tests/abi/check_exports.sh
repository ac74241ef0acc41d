#!/usr/bin/env bash
# Fails when the shared library exports any dynamic symbol other than the
# members of Velto::Zarn::CMediaClient, or does not export its constructor.
set -euo pipefail
lib="$1"
symbols=$(nm -D --defined-only "$lib" | awk '{ $1=""; $2=""; sub(/^  /, ""); print }' | c++filt)
bad=$(printf '%s\n' "$symbols" | grep -v -E '^Velto::Zarn::CMediaClient::' | grep -v -E '^$' || true)
if [ -n "$bad" ]; then
  echo "unexpected exported symbols:"; printf '%s\n' "$bad"; exit 1
fi
printf '%s\n' "$symbols" | grep -q -E '^Velto::Zarn::CMediaClient::CMediaClient\(\)' || { echo "constructor not exported"; exit 1; }
printf '%s\n' "$symbols" | grep -q -E '^Velto::Zarn::CMediaClient::initialize\(' || { echo "initialize not exported"; exit 1; }
count=$(printf '%s\n' "$symbols" | grep -c -E '^Velto::Zarn::CMediaClient::' || true)
echo "exported symbols: $count, all members of Velto::Zarn::CMediaClient"
