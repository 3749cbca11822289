#!/bin/sh
# Installs the build into a scratch prefix, then builds a small C host against
# it twice: with the CMake package and with pkg-config.
#   run.sh native BUILD SRC CMAKE
#   run.sh cross  BUILD SRC CMAKE CC EMULATOR...
# Cross: the host is configured with the toolchain file installed beside the
# package and nothing but the prefix (once as CMAKE_PREFIX_PATH, once as
# CMAKE_STAGING_PREFIX), and every program it builds runs under the emulator.
set -e
mode=$1; build=$2; src=$3; cmake=$4
cc=cc
if [ "$mode" = cross ]; then cc=$5; shift 5; else shift 4; fi
emulator="$*"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$cmake" --install "$build" --prefix "$work/prefix" >/dev/null
prefix=$work/prefix
libdir=$(dirname "$(ls -d "$prefix"/lib*/pkgconfig "$prefix"/lib/*/pkgconfig 2>/dev/null | head -n 1)")

check() {  # what, program [library folder the program cannot know by itself]
  if [ "$mode" = cross ]; then
    # The program must really be one for the big-endian board.
    [ "$(od -An -tx1 -j5 -N1 "$2" | tr -d ' ')" = 02 ] || { echo "$1: not a big-endian program"; exit 1; }
  fi
  out=$(LD_LIBRARY_PATH=${3:-} $emulator "$2") || { echo "$1: exit status $?"; exit 1; }
  [ "$out" = "consumer linked" ] || { echo "$1 printed [$out]"; exit 1; }
}

configure() {  # build dir, cmake arguments...
  b=$1; shift
  "$cmake" -S "$src" -B "$b" "$@" >"$b.log" 2>&1 || { cat "$b.log"; echo "configure failed: $*"; exit 1; }
  "$cmake" --build "$b" >"$b.log" 2>&1 || { cat "$b.log"; echo "build failed: $*"; exit 1; }
}

if [ "$mode" = cross ]; then
  toolchain=$(ls "$libdir"/cmake/dtkit/powerpc-linux-gnu.cmake)
  configure "$work/b" -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_PREFIX_PATH="$prefix"
  check "cmake consumer (prefix path)" "$work/b/consumer"
  configure "$work/s" -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_STAGING_PREFIX="$prefix"
  # Staged: linked for the board's install prefix, so the run is told where the staged libraries are.
  check "cmake consumer (staging prefix)" "$work/s/consumer" "$libdir"
else
  configure "$work/b" -DCMAKE_PREFIX_PATH="$prefix"
  check "cmake consumer" "$work/b/consumer"
fi

flags=$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs dtkit)
"$cc" -std=c99 -Wall -Werror "$src/main.c" $flags -Wl,-rpath,"$libdir" -o "$work/pc_consumer"
check "pkg-config consumer" "$work/pc_consumer"
echo "installed $mode tree usable through the CMake package and pkg-config"
