#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds and runs every test twice: a normal build, then AddressSanitizer + UndefinedBehaviorSanitizer;
# then the fuzz targets for a bounded time each (KESTREL_FUZZ_SECONDS, default 60) and the arm64
# build: its tests under qemu-aarch64 and the byte-for-byte replay comparison with x86-64.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)

# Formatting is .clang-format's business, never a review topic.
if command -v clang-format >/dev/null && git rev-parse --git-dir >/dev/null 2>&1; then
  git ls-files -z '*.cpp' '*.h' | xargs -0 clang-format --dry-run --Werror
  echo "format: clean"
else
  echo "format: clang-format not found, check skipped"
fi

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DKESTREL_SANITIZE=ON -DKESTREL_BUILD_BENCH=OFF
cmake --build build-asan -j"$jobs"
ASAN_OPTIONS=detect_leaks=1 ctest --test-dir build-asan --output-on-failure -j"$jobs"

scripts/fuzz.sh
scripts/arm64.sh
