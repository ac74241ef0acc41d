#!/usr/bin/env bash
# The library as a user gets it: `cmake --install` into a temporary prefix and
# the .deb files of install.packages unpacked into another. Both trees must hold
# exactly the public files; a host built out of tree with find_package (against
# the install) and with pkg-config (against the unpacked packages) must run
# against a fresh local-directory store, loading the library of that tree; the
# packaged tool must run from where it was unpacked.
# Usage: test_install.sh BUILD_DIR PACKAGE_DIR VERSION [HOST_FLAGS]
set -uo pipefail

build=$(realpath "${1:?usage: test_install.sh BUILD_DIR PACKAGE_DIR VERSION [HOST_FLAGS]}")
packages=$(realpath "$2")
version=$3
host_flags=${4:-}
source_dir=$(cd "$(dirname "$0")/../.." && pwd)
host_main=$source_dir/tests/abi/host_main.cpp
major=${version%%.*}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

pass() { echo "ok   $1"; }
bad() { echo "FAIL $1"; failures=$((failures + 1)); }
# run NAME COMMAND...: the command must succeed; its output is kept in $work/log.
run() {
  local name=$1; shift
  if "$@" >"$work/log" 2>&1; then pass "$name"; else bad "$name (exit $?): $(tail -20 "$work/log")"; return 1; fi
}
# The files and links of a tree, relative to it, sorted; man pages as a pattern,
# since every command of the tool has one.
listing() { (cd "$1" && find . ! -type d | sed 's|^\./||; s|^\(share/man/man1/\)zarn-media-[a-z-]*\.1\.gz$|\1zarn-media-COMMAND.1.gz|' | sort -u); }

expected="bin/zarn-media
include/ZarnMediaClient.h
lib/cmake/ZarnMediaSDK/ZarnMediaSDKConfig.cmake
lib/cmake/ZarnMediaSDK/ZarnMediaSDKConfigVersion.cmake
lib/cmake/ZarnMediaSDK/ZarnMediaSDKTargets-relwithdebinfo.cmake
lib/cmake/ZarnMediaSDK/ZarnMediaSDKTargets.cmake
lib/libZarnMediaClient.so
lib/libZarnMediaClient.so.$major
lib/libZarnMediaClient.so.$version
lib/pkgconfig/zarn-media-client.pc
share/man/man1/zarn-media-COMMAND.1.gz
share/man/man1/zarn-media.1.gz"
# The build type names one file of the CMake package.
build_type=$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$build/CMakeCache.txt" | tr '[:upper:]' '[:lower:]')
expected=${expected//relwithdebinfo/${build_type:-noconfig}}

echo "== cmake --install"
prefix=$work/prefix
run "install into a temporary prefix" cmake --install "$build" --prefix "$prefix" || exit 1
got=$(listing "$prefix")
[ "$got" = "$expected" ] && pass "the prefix holds exactly the public files" ||
  bad "installed files differ from the public set:$(diff <(echo "$expected") <(echo "$got") | grep '^[<>]')"
soname=$(readelf -d "$prefix/lib/libZarnMediaClient.so.$version" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = "libZarnMediaClient.so.$major" ] && pass "SONAME $soname" || bad "SONAME '$soname'"
[ "$(readlink "$prefix/lib/libZarnMediaClient.so")" = "libZarnMediaClient.so.$major" ] &&
  pass "the development link names the SONAME" || bad "libZarnMediaClient.so -> $(readlink "$prefix/lib/libZarnMediaClient.so")"

echo "== packages"
runtime=$packages/libzarnmediaclient${major}_${version}_amd64.deb
dev=$packages/libzarnmediaclient-dev_${version}_amd64.deb
tool=$packages/zarn-media_${version}_amd64.deb
for deb in "$runtime" "$dev" "$tool"; do
  [ -f "$deb" ] || { bad "no package $deb"; exit 1; }
done
root=$work/unpacked
for deb in "$runtime" "$dev" "$tool"; do dpkg-deb -x "$deb" "$root" || bad "unpack $deb"; done
got=$(listing "$root/usr")
[ "$got" = "$expected" ] && pass "the packages hold exactly the installed files" ||
  bad "packaged files differ from the installed ones:$(diff <(echo "$expected") <(echo "$got") | grep '^[<>]')"
depends() { dpkg-deb -f "$1" Depends; }
depends "$runtime" | grep -q 'libjsoncpp[0-9]* (>= ' && depends "$runtime" | grep -q 'libstdc++6 (>= ' &&
  pass "the runtime package's dependencies come from the library" || bad "runtime Depends: $(depends "$runtime")"
for deb in "$dev" "$tool"; do
  depends "$deb" | grep -q "libzarnmediaclient$major (= $version)" && pass "$(basename "$deb") needs this runtime" ||
    bad "$(basename "$deb") Depends: $(depends "$deb")"
done
depends "$tool" | grep -q 'libavformat[0-9]* (>= ' && pass "the tool package needs the FFmpeg libraries" ||
  bad "tool Depends: $(depends "$tool")"
dpkg-deb -I "$runtime" shlibs 2>/dev/null | grep -qx "libZarnMediaClient $major libzarnmediaclient$major (>= $version)" &&
  pass "the runtime package declares its shared library" || bad "shlibs: $(dpkg-deb -I "$runtime" shlibs 2>&1)"

# check_host NAME BINARY TREE: the host loads the library of TREE and talks to a fresh store.
check_host() {
  local name=$1 binary=$2 tree=$3
  local loaded
  loaded=$(ldd "$binary" | sed -n 's/.*libZarnMediaClient[^ ]* => \([^ ]*\).*/\1/p')
  case "$loaded" in
    "$tree"/lib/*) pass "$name loads the library of its tree" ;;
    *) bad "$name loads '$loaded', not from $tree/lib" ;;
  esac
  if (cd "$work" && "$binary" "$work/store-$name") >"$work/log" 2>&1 && grep -qx "host ok" "$work/log"; then
    pass "$name runs against a local store"
  else
    bad "$name: $(tail -5 "$work/log")"
  fi
}

echo "== host with find_package, against the install"
if run "configure with find_package(ZarnMediaSDK)" cmake -S "$source_dir/tests/install/host" -B "$work/host-cmake" \
       -G Ninja -DCMAKE_PREFIX_PATH="$prefix" -DHOST_SOURCE="$host_main" -DCMAKE_CXX_FLAGS="$host_flags" &&
   run "build with ZarnMediaSDK::ZarnMediaClient" cmake --build "$work/host-cmake"; then
  check_host find_package "$work/host-cmake/zarn_installed_host" "$prefix"
fi

echo "== host with pkg-config, against the unpacked packages"
export PKG_CONFIG_PATH=$root/usr/lib/pkgconfig
[ "$(pkg-config --modversion zarn-media-client)" = "$version" ] && pass "pkg-config finds version $version" ||
  bad "pkg-config --modversion: $(pkg-config --modversion zarn-media-client 2>&1)"
# shellcheck disable=SC2046,SC2086
if run "build with pkg-config zarn-media-client" g++ -std=c++17 $host_flags "$host_main" -o "$work/host-pc" \
       $(pkg-config --cflags --libs zarn-media-client); then
  LD_LIBRARY_PATH=$root/usr/lib check_host pkg-config "$work/host-pc" "$root/usr"
fi

echo "== the packaged tool, where it was unpacked"
if run "zarn-media info on the store the host made" "$root/usr/bin/zarn-media" info --store "$work/store-pkg-config"; then
  grep -q '^capacity' "$work/log" && pass "the tool reports the store's capacity" || bad "tool: $(cat "$work/log")"
fi

[ "$failures" -eq 0 ] || { echo "$failures failure(s)"; exit 1; }
echo "all install checks passed"
