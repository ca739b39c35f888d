#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Instructions per DETECT (inclusive of DoCmdDetect) and per INIT, under callgrind, for each
# family and geometry of bench/detect_cost.cpp.
#   bench/callgrind.sh [build dir, default build] [detects per case, default 10]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
detects=${2:-10}
if ! command -v valgrind >/dev/null; then
  echo "valgrind is missing: apt-get install valgrind" >&2
  exit 1
fi
cmake --build "$build" -j2 --target detect_cost >/dev/null
program="$build/bench/detect_cost"
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
# Ir inside the toggled function, from callgrind's totals line.
count() {
  valgrind --tool=callgrind --callgrind-out-file="$out/cg" --toggle-collect="$1" \
    "$program" "$2" "$3" >/dev/null 2>&1
  awk '/^totals:/ {print $2}' "$out/cg"
}
printf '%-16s %14s %14s\n' case "Ir per DETECT" "Ir per INIT"
for c in $("$program"); do
  detect=$(count 'DoCmdDetect*' "$c" "$detects")
  init=$(count 'DoCmdInit*' "$c" 1)
  printf '%-16s %14d %14d\n' "$c" $((detect / detects)) "$init"
done
