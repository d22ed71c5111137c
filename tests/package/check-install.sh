#!/usr/bin/env bash
# Installs the built tree into a scratch prefix, then builds and runs a small
# consumer against it twice: through the CMake package and through pkg-config.
set -euo pipefail
build_dir=$1
source_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null

cmake -S "$source_dir/tests/package/consumer" -B "$work/consumer" \
      -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$work/consumer" >/dev/null
"$work/consumer/consumer"

libdir=$(ls -d "$work"/prefix/lib*/pkgconfig | head -n1)
export PKG_CONFIG_PATH="$libdir${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}"
flags=$(pkg-config --cflags --libs hvutil)
# shellcheck disable=SC2086
c++ -std=c++17 "$source_dir/tests/package/consumer/main.cpp" -o "$work/consumer-pc" $flags \
    -Wl,-rpath,"$(dirname "$libdir")"
"$work/consumer-pc"
echo "installed package and pkg-config file both work"
