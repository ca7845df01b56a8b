#!/usr/bin/env bash
# usage: install_and_build.sh BUILD-TREE CONSUMER-SOURCE GENERATED CMAKE COMPILER FLAGS...
# Installs the build tree twice below GENERATED/consumer, and builds and runs an application against what was installed,
# through the CMake package and through pkg-config, and a program that finds the functions of GENERATED/c_names.list at
# run time.
set -euo pipefail
build=$1 source=$2 generated=$3 cmake=$4 compiler=$5
shift 5

fail() { echo "$1"; exit 1; }
scratch=$generated/consumer
rm -rf "$scratch"
mkdir -p "$scratch"
install() { DESTDIR=$scratch/root "$cmake" --install "$build" --prefix /opt/test >"$scratch/install.log"; }
install
lock_file=$(find "$scratch/root" -name '*_data.dat')
[ -f "$lock_file" ] || fail "no lock file was installed"
[ "$(stat -c %a "$lock_file")" = 644 ] || fail "not everybody can read the lock file, or some may write it"
inode=$(stat -c %i "$lock_file")
echo kept >"$lock_file"
template=$(find "$scratch/root" -name '*.registry.template')
[ -n "$template" ] || fail "no template was installed"
echo "; kept" >>"$template"
chmod 600 "$template"
install
[ "$(stat -c %i "$lock_file")" = "$inode" ] && [ "$(cat "$lock_file")" = kept ] || fail "the lock file was replaced"
[ "$(stat -c %a "$template") $(tail -n 1 "$template")" = "600 ; kept" ] || fail "the template was replaced"
[ "$("$scratch/root/opt/test/bin/kzreg" --help | wc -l)" -gt 5 ] || fail "kzreg does not run where it was installed"

library=$(find "$scratch/root" -name 'libtraiklofox.so')
"$cmake" -S "$source" -B "$scratch/build" -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_CXX_FLAGS="$*" \
  -DCMAKE_C_FLAGS="$*" -DCMAKE_PREFIX_PATH="$scratch/root/opt/test" >"$scratch/configure.log"
"$cmake" --build "$scratch/build" >"$scratch/build.log" || { cat "$scratch/build.log"; exit 1; }
"$scratch/build/consumer"
"$scratch/build/by_name" "$library" "$generated/c_names.list"

export PKG_CONFIG_PATH=${library%/*}/pkgconfig
pkg-config --exact-version "$(sed -n 's/^set(PACKAGE_VERSION "\(.*\)").*/\1/p' \
  "$(find "$scratch/root" -name traiklofoxConfigVersion.cmake)")" traiklofox || fail "the two packages' versions differ"
# shellcheck disable=SC2046  # lists of options
"$compiler" "$@" -std=c++20 $(pkg-config --cflags traiklofox) "$source/consumer.cpp" $(pkg-config --libs traiklofox) \
  -o "$scratch/with_pkg_config"
LD_LIBRARY_PATH=${library%/*} "$scratch/with_pkg_config"
