#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the built library into a scratch prefix, then builds and runs the host program twice:
# found by find_package, and compiled by hand with pkg-config's flags.
set -euo pipefail
build_dir=$1
source_dir=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

cmake --install "$build_dir" --prefix "$scratch/prefix" >/dev/null
libdir=$(dirname "$(find "$scratch/prefix" -name 'libkestrel.flicker.so' | head -n 1)")

cmake -S "$source_dir" -B "$scratch/cmake" -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
cmake --build "$scratch/cmake" >/dev/null
LD_LIBRARY_PATH="$libdir" "$scratch/cmake/host"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
g++ -std=c++20 "$source_dir/host.cpp" -o "$scratch/host-pc" $(pkg-config --cflags --libs kestrel-flicker)
LD_LIBRARY_PATH="$libdir" "$scratch/host-pc"

# The installed tool finds the library beside it (runpath $ORIGIN/../lib), with no library path.
tool="$scratch/prefix/bin/kestrel-flicker"
if [ -x "$tool" ]; then
  env -u LD_LIBRARY_PATH "$tool" --frames 3 >/dev/null
fi
