#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the library and the kestrel-flicker tool (in build-demo/, nothing else), then runs the
# default simulation: a standard sensor in the 50 Hz state sees 60 Hz light, and the library
# tells the auto-exposure to switch. Extra arguments go to `kestrel-flicker simulate`
# (scripts/demo.sh --help lists them).
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/deps.sh
kestrel_need_packages demo.sh "${KESTREL_BUILD_PACKAGES[@]}"
jobs=$(nproc 2>/dev/null || echo 2)
log=$(mktemp)
trap 'rm -f "$log"' EXIT

echo "building kestrel-flicker (build-demo/) ..." >&2
if ! { cmake -S . -B build-demo -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKESTREL_BUILD_TESTS=OFF \
         -DKESTREL_BUILD_BENCH=OFF && cmake --build build-demo -j"$jobs" --target kestrel-flicker; } >"$log" 2>&1; then
  cat "$log" >&2
  echo "demo.sh: the build failed (output above)" >&2
  exit 1
fi

exec ./build-demo/tools/kestrel-flicker simulate "$@"
