#!/usr/bin/env bash
# Installs a built tree into a temporary prefix and builds this folder's consumer against it three
# ways: find_package with the shared library (the default), find_package with
# pelora_USE_STATIC_LIBS=ON, and plain g++ with pkg-config. Each one must run and print 42.
#
# usage: tests/install/check.sh BUILD_DIR
# Environment (each unset one is read from BUILD_DIR/CMakeCache.txt):
#   CXX               the compiler
#   CXXFLAGS          compile and link flags for the consumer; must carry the sanitizer flags
#                     (-fsanitize=...) when the library was built with them
#   CMAKE_GENERATOR   the generator for the consumer
#   CMAKE_BUILD_TYPE  the consumer's build type
set -euo pipefail

build=${1:?usage: tests/install/check.sh BUILD_DIR}
build=$(cd "$build" && pwd)
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
[ -f "$build/CMakeCache.txt" ] || { echo "check.sh: $build is not a CMake build directory" >&2; exit 2; }

cache() { sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt" | head -n 1; }
if [ -z "${CXXFLAGS+set}" ]; then
  CXXFLAGS=$(cache CMAKE_CXX_FLAGS)
  sanitize=$(cache PELORA_SANITIZE)
  [ -z "$sanitize" ] || CXXFLAGS="$CXXFLAGS -fsanitize=$sanitize -fno-omit-frame-pointer"
fi
CXX=${CXX:-$(cache CMAKE_CXX_COMPILER)}
CMAKE_GENERATOR=${CMAKE_GENERATOR:-$(cache CMAKE_GENERATOR)}
CMAKE_BUILD_TYPE=${CMAKE_BUILD_TYPE-$(cache CMAKE_BUILD_TYPE)}
export CMAKE_GENERATOR

work=$(mktemp -d "${TMPDIR:-/tmp}/pelora-install-check.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

step() { echo "== install check: $*"; }
expect_42() {  # expect_42 LABEL PROGRAM...
  local label=$1 out
  shift
  out=$("$@")
  if [ "$out" != "42" ]; then
    echo "install check ($label): expected '42', got '$out'" >&2
    exit 1
  fi
}
# needs_libpelora LABEL yes|no BINARY: whether BINARY depends on libpelora.so at run time.
needs_libpelora() {
  local needed=no
  if LC_ALL=C readelf -d "$3" | grep -q 'NEEDED.*\[libpelora\.so'; then needed=yes; fi
  if [ "$needed" != "$2" ]; then
    echo "install check ($1): expected NEEDED libpelora.so: $2, found: $needed" >&2
    exit 1
  fi
}

step "cmake --install $build --prefix $prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log"; exit 1; }

# The header set: the generated one is there, the private ones are not.
[ -f "$prefix/include/pelora/core/service_hosts.hpp" ] \
  || { echo "install check: include/pelora/core/service_hosts.hpp is missing" >&2; exit 1; }
private=$(cd "$prefix/include" && find pelora \( -name '*_test*' -o -name '*_internal.hpp' \
  -o -path '*/detail/*' \) -print)
[ -z "$private" ] || { echo "install check: private headers installed:" >&2; echo "$private" >&2; exit 1; }

for variant in shared static; do
  static=OFF
  [ "$variant" = static ] && static=ON
  step "find_package(pelora), pelora_USE_STATIC_LIBS=$static"
  cmake -S "$here" -B "$work/$variant" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$CXX" -DCMAKE_CXX_FLAGS="$CXXFLAGS" -DCMAKE_BUILD_TYPE="$CMAKE_BUILD_TYPE" \
    -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF -Dpelora_USE_STATIC_LIBS=$static >"$work/$variant.log" \
    || { cat "$work/$variant.log"; exit 1; }
  cmake --build "$work/$variant"
  if [ "$variant" = shared ]; then needs_libpelora cmake-shared yes "$work/shared/pelora_consumer"
  else needs_libpelora cmake-static no "$work/static/pelora_consumer"; fi
  expect_42 "cmake-$variant" "$work/$variant/pelora_consumer"
done

step "pkg-config"
pc=$(find "$prefix" -name pelora.pc -path '*/pkgconfig/*' -print -quit)
[ -n "$pc" ] || { echo "install check: pelora.pc was not installed" >&2; exit 1; }
libdir=$(PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --variable=libdir pelora)
# shellcheck disable=SC2046,SC2086  # flags are word lists
"$CXX" -std=c++20 $CXXFLAGS "$here/main.cpp" \
  $(PKG_CONFIG_PATH=$(dirname "$pc") pkg-config --cflags --libs pelora) -o "$work/pkgconfig_consumer"
needs_libpelora pkg-config yes "$work/pkgconfig_consumer"
expect_42 pkg-config env LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" \
  "$work/pkgconfig_consumer"

# The WebKitGTK toolkit, when this build has it.
if [ -n "$(find "$prefix" -name peloraGtkTargets.cmake -print -quit)" ]; then
  step "find_package(pelora COMPONENTS gtk)"
  cmake -S "$here/gtk" -B "$work/gtk" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$CXX" -DCMAKE_CXX_FLAGS="$CXXFLAGS" -DCMAKE_BUILD_TYPE="$CMAKE_BUILD_TYPE" \
    -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF >"$work/gtk.log" || { cat "$work/gtk.log"; exit 1; }
  cmake --build "$work/gtk"
  expect_42 cmake-gtk "$work/gtk/pelora_gtk_consumer"
fi

step "passed"
