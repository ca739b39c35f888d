#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The arm64 build: cross-compiles the library, the tests and the host tool for aarch64 with
# Debian's g++-aarch64-linux-gnu (build-arm64/), runs the whole test suite under qemu-aarch64, then
# replays the same recordings of every family with the x86-64 tool (build/, from scripts/test.sh)
# and the arm64 one and requires identical output, byte for byte: the table, the per-frame CSV
# and the library's log (but for the wall-clock time the table builders print).
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)
packages="g++-aarch64-linux-gnu qemu-user libgtest-dev"

missing() {
  ! command -v aarch64-linux-gnu-g++ >/dev/null || ! command -v qemu-aarch64 >/dev/null ||
    [ ! -f /usr/src/googletest/CMakeLists.txt ]
}
if missing && command -v apt-get >/dev/null && [ "$(id -u)" = 0 ]; then
  apt-get install -y --no-install-recommends $packages
fi
if missing; then
  if command -v apt-get >/dev/null; then
    echo "arm64: SKIPPED, cross tools missing; install them with: sudo apt-get install $packages"
  else
    echo "arm64: SKIPPED, not a Debian machine (needs $packages)"
  fi
  exit 0
fi

toolchain=$PWD/cmake/aarch64-linux-gnu.cmake
prefix=$PWD/build-arm64/googletest
# GoogleTest for aarch64, from Debian's sources with the cross compiler (once).
if [ ! -f "$prefix/lib/cmake/GTest/GTestConfig.cmake" ]; then
  cmake -S /usr/src/googletest -B build-arm64/googletest-build -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" -DBUILD_GMOCK=OFF >/dev/null
  cmake --build build-arm64/googletest-build -j"$jobs"
  cmake --install build-arm64/googletest-build >/dev/null
fi

# The tool's header-only libraries are the same for every architecture, but the cross compiler
# does not search /usr/include: it gets them (and only them) through a directory of links.
headers=$PWD/build-arm64/host-headers
mkdir -p "$headers"
for dir in CLI nlohmann; do
  [ -d /usr/include/$dir ] && ln -sfn /usr/include/$dir "$headers/$dir"
done

# The benchmarks need Google Benchmark for arm64 and measure nothing under an emulator: left out.
# zlib is looked up in the arm64 sysroot only: without zlib1g-dev:arm64 the tool is built without
# compressed recordings, and the replays below use plain ones.
cmake -S . -B build-arm64/kestrel -DCMAKE_TOOLCHAIN_FILE="$toolchain" \
  -DKESTREL_ARM64_PREFIX="$prefix" -DGTest_DIR="$prefix/lib/cmake/GTest" \
  -DCMAKE_CXX_FLAGS="-isystem $headers" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKESTREL_BUILD_BENCH=OFF >/dev/null
cmake --build build-arm64/kestrel -j"$jobs"
# The install check compiles a host with the machine's own compiler: x86-64 only.
ctest --test-dir build-arm64/kestrel --output-on-failure -j"$jobs" -E '^install\.'

# Same recordings, both builds, identical bytes.
native=build/tools/kestrel-flicker
arm=build-arm64/kestrel/tools/kestrel-flicker
[ -x "$native" ] || { echo "arm64: $native missing: run scripts/test.sh (it builds build/ first)" >&2; exit 1; }
out=build-arm64/replay
rm -rf "$out" && mkdir -p "$out"
scenes=(
  "standard-60hz --type 0 --mains 60 --state 50 --frames 24"
  "standard-50hz-motion --type 0 --mains 50 --state 60 --motion 3 --frames 24"
  "standard-zhdr --type 0 --zhdr --mains 60 --frames 24"
  "sony-60hz --type 1 --mains 60 --state 50 --frames 24"
  "sony-steady --type 1 --mains 0 --state 60 --frames 16"
  "2x5-50hz --type 2 --mains 50 --state 60 --frames 24"
  "2x5-60hz-step --type 2 --mains 60 --step 8:1.6 --frames 24"
)
for scene in "${scenes[@]}"; do
  read -r name args <<<"$scene"
  # shellcheck disable=SC2086
  "$native" simulate $args --record "$out/$name.rec" >/dev/null
  for build in native arm; do
    tool=$native
    [ $build = arm ] && tool="qemu-aarch64 -L /usr/aarch64-linux-gnu $arm"
    $tool replay "$out/$name.rec" --wide --verbose --csv "$out/$name.$build.csv" \
      >"$out/$name.$build.txt" 2>"$out/$name.$build.log"
    $tool replay "$out/$name.rec" --json >"$out/$name.$build.json" 2>/dev/null
  done
  # The table builders print how long they took: wall-clock, different on every run.
  for build in native arm; do
    sed -i -E 's/^(time: |log table exec time = )[0-9.]+$/\1<elapsed>/' "$out/$name.$build.log"
  done
  for kind in txt csv log json; do
    if ! cmp -s "$out/$name.native.$kind" "$out/$name.arm.$kind"; then
      diff "$out/$name.native.$kind" "$out/$name.arm.$kind" | head -n 20 >&2
      echo "arm64: replay of $name differs between x86-64 and arm64 ($kind)" >&2
      exit 1
    fi
  done
  echo "arm64: replay of $name identical ($(wc -l <"$out/$name.native.log") log lines)"
done
