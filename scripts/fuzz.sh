#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the libFuzzer targets (clang, AddressSanitizer + UndefinedBehaviorSanitizer) in build-fuzz/
# and runs each one for KESTREL_FUZZ_SECONDS (default 60) on a scratch copy of its seed corpus in
# fuzz/corpus/<target>. Any crash, sanitizer report, leak, timeout or memory blow-up fails the run;
# the input that caused it is left in build-fuzz/findings/.
#   KESTREL_FUZZ_SECONDS=600 scripts/fuzz.sh            longer budget per target
#   scripts/fuzz.sh command_fuzzer                       one target only
#   KESTREL_FUZZ_LEAN=1 scripts/fuzz.sh command_fuzzer   in build-fuzz-lean/, without coverage in
#                                                        the sample loops nor compare tracing:
#                                                        5x the executions
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${KESTREL_FUZZ_SECONDS:-60}

if ! command -v clang++ >/dev/null; then
  if [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null; then
    apt-get install -y --no-install-recommends clang libclang-rt-14-dev
  else
    echo "fuzz: SKIPPED, clang++ not found; install it with: sudo apt-get install clang libclang-rt-14-dev"
    exit 0
  fi
fi

build=build-fuzz
lean=OFF
if [ "${KESTREL_FUZZ_LEAN:-0}" = 1 ]; then
  build=build-fuzz-lean
  lean=ON
fi
cmake -S . -B "$build" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKESTREL_BUILD_FUZZERS=ON -DKESTREL_FUZZ_LEAN=$lean -DKESTREL_BUILD_TESTS=OFF \
  -DKESTREL_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc 2>/dev/null || echo 2)"

targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(command_fuzzer stages_fuzzer recording_fuzzer)
mkdir -p "$build"/findings
for target in "${targets[@]}"; do
  work="$build"/corpus/$target
  rm -rf "$work" && mkdir -p "$work"
  cp fuzz/corpus/"$target"/* "$work"/ 2>/dev/null || true
  # Standard output is closed: the zHDR selection prints its choices there.
  if ! "$build"/fuzz/"$target" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 \
      -malloc_limit_mb=1024 -close_fd_mask=1 -print_final_stats=1 \
      -artifact_prefix="$build"/findings/"$target"- "$work" > "$build"/"$target".log 2>&1; then
    tail -n 40 "$build"/"$target".log >&2
    echo "fuzz: $target FOUND A DEFECT (input in $build/findings/)" >&2
    exit 1
  fi
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$build"/"$target".log)
  echo "fuzz: $target clean after ${execs:-?} executions in ${seconds} s"
done
