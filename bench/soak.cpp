// SPDX-License-Identifier: Apache-2.0
// Soak program (not a test): runs the command interface for a million DETECT frames (or the count
// given) across all three families with INIT/UNINIT, SET_STATE and RESET_QUEUE cycles and changing
// geometry. Prints resident memory after the warm-up cycle and at the end, the frames whose
// results differ from the reference cycle, and a digest of every result and log line (equal
// digests: equal runs, e.g. across builds). Exits 1 on a difference or on memory growth.
//   soak [frames]
#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "soak.h"

int main(int argc, char** argv) {
  const long long wanted = argc > 1 ? std::atoll(argv[1]) : 1000000;
  // The table builders and the zHDR selection print to standard output: the report keeps its own
  // copy of the stream, the library's lines go to /dev/null.
  std::FILE* report = fdopen(dup(STDOUT_FILENO), "w");
  if (report == nullptr || std::freopen("/dev/null", "w", stdout) == nullptr) return 2;
  kestrel_soak::Soak soak;
  const auto t0 = std::chrono::steady_clock::now();
  // Warm-up (tables, the C library's buffers settle within a few cycles), the reference cycle,
  // then at least the first 1 %.
  long long frames = soak.Cycle(false);
  frames += soak.Cycle(true);
  while (frames < std::max(wanted / 100, 5LL * 480)) frames += soak.Cycle(false);
  const long long rss_start = kestrel_soak::ResidentBytes();
  std::fprintf(report, "%9lld frames  anonymous rss %lld KiB, total rss %lld KiB (start)\n", frames,
               rss_start / 1024, kestrel_soak::ResidentBytes("VmRSS") / 1024);
  long long next_report = wanted / 10;
  while (frames < wanted) {
    frames += soak.Cycle(false);
    if (frames >= next_report) {
      std::fprintf(report, "%9lld frames  anonymous rss %lld KiB, total rss %lld KiB\n", frames,
                   kestrel_soak::ResidentBytes() / 1024,
                   kestrel_soak::ResidentBytes("VmRSS") / 1024);
      std::fflush(report);
      next_report += wanted / 10;
    }
  }
  const long long rss_end = kestrel_soak::ResidentBytes();
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  std::fprintf(report, "frames %lld in %.1f s (%.0f frames/s)\n", frames, seconds,
               frames / seconds);
  std::fprintf(report, "anonymous rss start %lld KiB, end %lld KiB, growth %lld KiB\n",
               rss_start / 1024, rss_end / 1024, (rss_end - rss_start) / 1024);
  std::fprintf(report, "sessions differing from the reference cycle: %lld\n",
               static_cast<long long>(soak.mismatches()));
  std::fprintf(report, "digest %016llx\n", static_cast<unsigned long long>(soak.digest()));
  // Nothing is allocated per frame: resident memory must not move at all.
  return soak.mismatches() == 0 && rss_end <= rss_start ? 0 : 1;
}
