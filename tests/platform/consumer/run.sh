#!/bin/sh
# Installs the build into a scratch prefix, then builds a small host against
# it twice: with the CMake package and with pkg-config.
set -e
build=$1; src=$2; cmake=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$cmake" --install "$build" --prefix "$work/prefix" >/dev/null
"$cmake" -S "$src" -B "$work/b" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
"$cmake" --build "$work/b" >/dev/null
out=$("$work/b/consumer")
[ "$out" = "consumer linked" ] || { echo "cmake consumer printed [$out]"; exit 1; }
libdir=$(ls -d "$work/prefix"/lib*/pkgconfig | head -n 1)
flags=$(PKG_CONFIG_PATH="$libdir" pkg-config --cflags --libs dtkit)
cc -std=c99 -Wall -Werror "$src/main.c" $flags -o "$work/pc_consumer"
out=$(LD_LIBRARY_PATH=$(dirname "$libdir") "$work/pc_consumer")
[ "$out" = "consumer linked" ] || { echo "pkg-config consumer printed [$out]"; exit 1; }
echo "installed tree usable through the CMake package and pkg-config"
