#!/usr/bin/env bash
# usage: install_and_build.sh BUILD-TREE CONSUMER-SOURCE SCRATCH CMAKE COMPILER FLAGS...
# Installs the build tree twice below SCRATCH, and builds and runs an application against what was installed, through
# the CMake package and through pkg-config's file.
set -euo pipefail
build=$1 source=$2 scratch=$3 cmake=$4 compiler=$5
shift 5

rm -rf "$scratch"
mkdir -p "$scratch"
install() { DESTDIR=$scratch/root "$cmake" --install "$build" --prefix /opt/test >"$scratch/install.log"; }
install
lock_file=$(find "$scratch/root" -name '*_data.dat')
[ -f "$lock_file" ] || { echo "no lock file was installed"; exit 1; }
inode=$(stat -c %i "$lock_file")
echo kept >"$lock_file"
install
[ "$(stat -c %i "$lock_file")" = "$inode" ] && [ "$(cat "$lock_file")" = kept ] || { echo "the lock file was replaced"; exit 1; }

libraries=$(dirname "$(find "$scratch/root" -name 'libtraiklofox.so')")
"$cmake" -S "$source" -B "$scratch/build" -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_CXX_FLAGS="$*" \
  -DCMAKE_PREFIX_PATH="$scratch/root/opt/test" >"$scratch/configure.log"
"$cmake" --build "$scratch/build" >"$scratch/build.log" || { cat "$scratch/build.log"; exit 1; }
"$scratch/build/consumer"

pc=$libraries/pkgconfig/traiklofox.pc
field() { sed -n "s/^$1: //p" "$pc" | sed "s|\${libdir}|$libraries|; s|\${includedir}|$scratch/root/opt/test/include|"; }
# shellcheck disable=SC2046  # the fields are lists of options
"$compiler" "$@" -std=c++20 $(field Cflags) "$source/consumer.cpp" $(field Libs) -o "$scratch/with_pkg_config"
LD_LIBRARY_PATH=$libraries "$scratch/with_pkg_config"
