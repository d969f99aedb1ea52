#!/usr/bin/env bash
# Installs a built tree into a temporary prefix and builds this folder's consumer against it three
# ways: find_package with the shared library (the default), find_package with
# pelora_USE_STATIC_LIBS=ON, and plain g++ with pkg-config. Each one must run and print 42. The
# shared ones are built as on a machine without our dependencies' development files (CMake may not
# find libcurl or OpenSSL, pkg-config sees only our pelora.pc). Also checks the installed header
# set: each header compiles on its own, none of ours is private, and <pelora/pelora.hpp> pulls in
# no third-party header. Then the C API: <pelora/pelora.h> compiles as C11 and a C program built
# with pkg-config runs; and the Python package (python/) finds the installed library by its prefix.
# The installed shared libraries find each other where they lie (run path $ORIGIN), so that the
# GTK consumer, installed under a prefix of its own, starts without LD_LIBRARY_PATH.
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

step "installed shared libraries find their siblings (\$ORIGIN)"
while IFS= read -r library; do
  if ! LC_ALL=C readelf -d "$library" | grep -Eq '\((RUNPATH|RPATH)\).*(\[|:)\$ORIGIN(\]|:)'; then
    echo "install check: $library has no run path \$ORIGIN" >&2
    exit 1
  fi
done < <(find "$prefix" -name 'libpelora*.so.*' -type f)

# The header set: no private ones; each compiles alone; no third-party header behind pelora.hpp.
private=$(cd "$prefix/include" && find pelora \( -name '*_test*' -o -name '*_internal.hpp' \
  -o -path '*/detail/*' -o -name http_client.hpp -o -name user_defaults.hpp \) -print)
[ -z "$private" ] || { echo "install check: private headers installed:" >&2; echo "$private" >&2; exit 1; }
step "each installed header on its own"
while IFS= read -r header; do
  case $header in pelora/platform/gtk/*) continue ;; esac
  echo "#include <$header>" | "$CXX" -std=c++20 -fsyntax-only -Wall -Wextra -Werror \
    -I"$prefix/include" -x c++ - || { echo "install check: $header does not compile alone" >&2; exit 1; }
done < <(cd "$prefix/include" && find pelora -name '*.hpp' | sort)
third_party=$(echo '#include <pelora/pelora.hpp>' | "$CXX" -std=c++20 -M -I"$prefix/include" -x c++ - \
  | tr ' \\' '\n\n' | grep -E '/(rapidjson|curl|openssl|uuid|glib-2.0|gtk-3.0|webkitgtk[^/]*)/' || true)
[ -z "$third_party" ] || { echo "install check: pelora.hpp includes:" >&2; echo "$third_party" >&2; exit 1; }

for variant in shared static; do
  static=OFF
  [ "$variant" = static ] && static=ON
  step "find_package(pelora), pelora_USE_STATIC_LIBS=$static"
  # The shared consumer as if libcurl's, OpenSSL's and libuuid's development files were missing.
  hide=()
  [ "$variant" = shared ] && hide=(-DCMAKE_DISABLE_FIND_PACKAGE_CURL=ON
    -DCMAKE_DISABLE_FIND_PACKAGE_OpenSSL=ON -DCMAKE_DISABLE_FIND_PACKAGE_PkgConfig=ON)
  cmake -S "$here" -B "$work/$variant" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$CXX" -DCMAKE_CXX_FLAGS="$CXXFLAGS" -DCMAKE_BUILD_TYPE="$CMAKE_BUILD_TYPE" \
    -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF -Dpelora_USE_STATIC_LIBS=$static "${hide[@]}" \
    >"$work/$variant.log" || { cat "$work/$variant.log"; exit 1; }
  cmake --build "$work/$variant"
  if [ "$variant" = shared ]; then needs_libpelora cmake-shared yes "$work/shared/pelora_consumer"
  else needs_libpelora cmake-static no "$work/static/pelora_consumer"; fi
  expect_42 "cmake-$variant" "$work/$variant/pelora_consumer"
done

step "pkg-config"
pc=$(find "$prefix" -name pelora.pc -path '*/pkgconfig/*' -print -quit)
[ -n "$pc" ] || { echo "install check: pelora.pc was not installed" >&2; exit 1; }
# Only our .pc file is visible, as on a machine without the dependencies' development files.
export PKG_CONFIG_LIBDIR
PKG_CONFIG_LIBDIR=$(dirname "$pc")
libdir=$(pkg-config --variable=libdir pelora)
# shellcheck disable=SC2046,SC2086  # flags are word lists
"$CXX" -std=c++20 $CXXFLAGS "$here/main.cpp" $(pkg-config --cflags --libs pelora) \
  -o "$work/pkgconfig_consumer"
unset PKG_CONFIG_LIBDIR
needs_libpelora pkg-config yes "$work/pkgconfig_consumer"
expect_42 pkg-config env LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" \
  "$work/pkgconfig_consumer"

step "C: <pelora/pelora.h> as C11, a C program with pkg-config"
CC=${CC:-$(cache CMAKE_C_COMPILER)}
CC=${CC:-cc}
echo '#include <pelora/pelora.h>' | "$CC" -std=c11 -Wall -Wextra -pedantic -Werror -fsyntax-only \
  -I"$prefix/include" -x c - || { echo "install check: pelora.h is not plain C11" >&2; exit 1; }
PKG_CONFIG_LIBDIR=$(dirname "$pc") pkg-config --cflags --libs pelora >"$work/c_flags"
# shellcheck disable=SC2046,SC2086  # flags are word lists
"$CC" -std=c11 $CXXFLAGS "$here/main.c" $(cat "$work/c_flags") -o "$work/c_consumer"
expect_42 c env LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" "$work/c_consumer"

step "Python: the package over the installed library (PELORA_PREFIX)"
python=/usr/bin/python3
if [ -x "$python" ]; then
  preload=()
  case " $CXXFLAGS " in *sanitize=*address*)
    # Python is not built with AddressSanitizer: its runtime (and libstdc++) must come first.
    preload=(LD_PRELOAD="$("$CXX" -print-file-name=libasan.so) $("$CXX" -print-file-name=libstdc++.so)"
      ASAN_OPTIONS=detect_leaks=0) ;;
  esac
  expect_42 python env "${preload[@]}" PELORA_PREFIX="$prefix" PYTHONPATH="$here/../../python" \
    "$python" - "$work/python" <<'PY'
import os, sys
import pelora
pelora.set_log_handler(lambda level, message: None)  # standard output carries only the result
directory = sys.argv[1]
with pelora.Client("py-consumer-key", enable_iam=False, documents_dir=directory + "/data",
                   preferences_dir=directory + "/config", shutdown_timeout=0,
                   connect_to=["tracking.pelora.io:443:127.0.0.1:1"]) as client:
    client.track("Installed", {"n": 1})
loaded = pelora._lib._name  # the library file it found
print(42 if loaded.startswith(os.environ["PELORA_PREFIX"]) else loaded)
PY
fi

# The WebKitGTK toolkit, when this build has it.
if [ -n "$(find "$prefix" -name peloraGtkTargets.cmake -print -quit)" ]; then
  step "find_package(pelora COMPONENTS gtk)"
  cmake -S "$here/gtk" -B "$work/gtk" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$CXX" -DCMAKE_CXX_FLAGS="$CXXFLAGS" -DCMAKE_BUILD_TYPE="$CMAKE_BUILD_TYPE" \
    -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF >"$work/gtk.log" || { cat "$work/gtk.log"; exit 1; }
  cmake --build "$work/gtk"
  expect_42 cmake-gtk env -u LD_LIBRARY_PATH "$work/gtk/pelora_gtk_consumer"
  cmake --install "$work/gtk" --prefix "$work/opt" >"$work/gtk-install.log" \
    || { cat "$work/gtk-install.log"; exit 1; }
  expect_42 cmake-gtk-installed env -u LD_LIBRARY_PATH "$work/opt/bin/pelora_gtk_consumer"
fi

step "passed"
