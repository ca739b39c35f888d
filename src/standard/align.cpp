// SPDX-License-Identifier: Apache-2.0
// Frame alignment: exposure check, per-window registration and the log-ratio vectors.
#include "standard/standard.h"

#include <cstdio>

#include "decision/decision.h"
#include "filterbank/filterbank.h"
#include "fixed_point.h"
#include "interface/interface.h"

std::int32_t cvector_current_full_working_memory[2000];
std::int32_t cvector_prev_full_working_memory[2000];
std::int32_t cvector_current_working_memory[1000];
std::int32_t cvector_prev_working_memory[1000];
std::int32_t grad_current_working_memory[1500];
std::int32_t grad_prev_working_memory[1500];
std::int32_t avector_out_working_memory[12000];
std::int32_t avector_out_extent = 12000;
std::int32_t cvector_out_working_memory[12000];
std::int32_t ovector_out_working_memory[12000];
std::int32_t cvector_out1_working_memory[2000];
std::int32_t ovector_out1_working_memory[2000];

bool flicker_exposure_stable(const std::int32_t* cur, const std::int32_t* prev, std::int32_t n) {
  // 64-bit: at most 12000 samples of 32 bits, times 10.
  const std::int64_t sum_cur = fx::sum64(cur, n);
  const std::int64_t sum_prev = fx::sum64(prev, n);
  return !(5 * sum_cur > 7 * sum_prev || sum_prev == 0 || sum_cur == 0 ||
           10 * sum_cur < 7 * sum_prev);
}

namespace {

constexpr std::int32_t kFullWindowSize = 2000;  // cvector_*_full_working_memory
constexpr std::int32_t kPackedSize = 2000;      // the despiked vectors
// The exposure check reads the whole frame: at most every window at its longest.
constexpr std::int32_t kMaxFrameSamples = kMaxWindows * kFullWindowSize;
constexpr std::int32_t kNotAligned = -100;   // winOffset of a window taken unaligned
constexpr std::int32_t kFineCandidates = 7;  // fine search: coarse - 3 .. coarse + 3
constexpr std::int32_t kFineHalfSpan = 2;
constexpr std::int32_t kPreShift = 1;        // working vectors are at half resolution
constexpr std::int32_t kCoarseDecShift = 2;  // the coarse search decimates by 4 more
constexpr std::int32_t kFineOutShift = 1;    // log ratios at half of working resolution

// Samples window w contributes at full resolution (the last window may be shorter).
std::int32_t window_samples(std::int32_t w, std::int32_t windowLength, std::int32_t totalLength) {
  const std::int64_t left =
      static_cast<std::int64_t>(totalLength) - static_cast<std::int64_t>(w) * windowLength;
  return static_cast<std::int32_t>(left < windowLength ? left : windowLength);
}

// Log-ratio samples of a window of lw samples: ceil(m / 2) with m = ceil(lw / 2).
std::int32_t ratio_samples(std::int32_t lw) {
  if (lw < 1) return 0;
  // 64-bit: a direct caller's window may be as long as int32 allows.
  const std::int64_t m = (std::int64_t{lw} + 1) >> 1;
  return static_cast<std::int32_t>((m + 1) >> 1);
}

// The 5-tap smoothing (1 4 6 4 1) at every second sample, x mirrored as x[1], x[0] | x | x[n-1],
// x[n-2]; the result is rounded back to Q0. Returns m = (n + 1) >> 1 samples.
std::int32_t smooth_and_halve(const std::int32_t* x, std::int32_t n, std::int32_t* out) {
  std::int32_t* padded = convolve_analysis_working_memory_32;
  // A window of one sample has no second sample to mirror: repeat the one it has.
  padded[0] = x[n > 1 ? 1 : 0];
  padded[1] = x[0];
  // Samples within +-2^27 (every statistic; the mirrors repeat samples): the sum, 16 x at most,
  // fits 32 bits.
  std::uint32_t wide = 0;
  for (std::int32_t i = 0; i < n; ++i)
    wide |= (static_cast<std::uint32_t>(x[i]) + (1u << 27)) >> 28;
  fx::copy_forward(x, n, padded + 2);
  padded[n + 2] = x[n - 1];
  padded[n + 3] = x[n > 1 ? n - 2 : 0];
  const std::int32_t m = (n + 1) >> 1;
  if (wide == 0) {
    const std::int32_t* __restrict p = padded;
    std::int32_t* __restrict o = out;
    for (std::int32_t k = 0; k < m; ++k) {
      const std::int32_t s =
          p[2 * k] + 4 * p[2 * k + 1] + 6 * p[2 * k + 2] + 4 * p[2 * k + 3] + p[2 * k + 4];
      o[k] = fx::rshift_round32(s, 4);
    }
    return m;
  }
  for (std::int32_t k = 0; k < m; ++k) {
    // 64-bit: the taps sum to 16, so 4 bits above the 32-bit input.
    std::int64_t s = 0;
    for (std::int32_t t = 0; t < 5; ++t) {
      s += static_cast<std::int64_t>(flicker_filter_s[t]) * padded[2 * k + t];
    }
    out[k] = fx::low32(fx::rshift_round64(s, 4));
  }
  return m;
}

// grad[k] = v[k - 1] - v[k + 1] through the taps 1 0 -1, end samples repeated. 32-bit wrap.
void central_gradient(const std::int32_t* v, std::int32_t m, std::int32_t* grad) {
  std::int32_t* padded = convolve_analysis_working_memory_32;
  padded[0] = v[0];
  fx::copy_forward(v, m, padded + 1);
  padded[m + 1] = v[m - 1];
  const std::int32_t* h = flicker_filter_h1;
  if (h[0] == 1 && h[1] == 0 && h[2] == -1) {
    // The table as built: a difference, which vectorises (the same wrapping words).
    for (std::int32_t k = 0; k < m; ++k) grad[k] = fx::wrap_sub32(padded[k], padded[k + 2]);
    return;
  }
  for (std::int32_t k = 0; k < m; ++k) {
    std::int32_t g = 0;
    for (std::int32_t t = 0; t < 3; ++t) g = fx::wrap_add32(g, fx::wrap_mul32(h[t], padded[k + t]));
    grad[k] = g;
  }
}

}  // namespace

void align_flicker(std::int32_t* curStats, std::int32_t* prevStats, std::int32_t numWindows,
                   std::int32_t windowLength, std::int32_t totalLength, std::int32_t* freq_out,
                   std::int32_t& aeStable, std::int32_t& alignFlag) {
  for (std::int32_t k = 0; k < 9; ++k) freq_out[k] = 0;
  aeStable = 1;
  alignFlag = 1;

  // The driver only passes geometry that fits; other callers are held to the same bounds.
  std::int64_t packed_bound = 0;  // 64-bit: up to 11 windows of any length
  for (std::int32_t w = 0; w < numWindows && w <= kMaxWindows; ++w) {
    packed_bound += ratio_samples(window_samples(w, windowLength, totalLength));
  }
  if (g_flkTab1 == nullptr || g_flkTab2 == nullptr || g_flkCompTab == nullptr) {
    LogRefusalFlk("align_flicker", "no tables");
    aeStable = 0;
    return;
  }
  if (numWindows > kMaxWindows || windowLength > kFullWindowSize || packed_bound > kPackedSize ||
      packed_bound > g_flkTabW || totalLength > kMaxFrameSamples) {
    LogRefusalFlk("align_flicker",
                  "%d windows of %d samples in %d (at most %d of %d, %d log-ratio samples, table "
                  "row %d, %d samples a frame)",
                  numWindows, windowLength, totalLength, kMaxWindows, kFullWindowSize, kPackedSize,
                  g_flkTabW, kMaxFrameSamples);
    aeStable = 0;
    return;
  }

  if (!flicker_exposure_stable(curStats, prevStats, totalLength)) {
    aeStable = 0;
    if (g_logFlow) PrintLogFlk("frame AE unstable\n");
    return;
  }

  std::int32_t winOffset[kMaxWindows] = {};
  std::int32_t winPad[kMaxWindows] = {};
  std::int32_t winLength[kMaxWindows] = {};
  std::int32_t result[9] = {};

  std::int32_t p = 0;  // next block of the aligned and unaligned block vectors
  std::int32_t q = 0;  // next sample of the packed unregistered vector
  const std::int32_t peak_threshold = fx::wrap_mul32(2, flicker_grad_threshold);
  // The companded even samples of a window's halved rows, (kFullWindowSize + 3) / 4 at most.
  static std::int32_t even_cur[kFullWindowSize / 4 + 1];
  static std::int32_t even_prev[kFullWindowSize / 4 + 1];

  for (std::int32_t w = 0; w < numWindows; ++w) {
    winOffset[w] = kNotAligned;
    const std::int32_t lw = window_samples(w, windowLength, totalLength);
    const std::int64_t start = static_cast<std::int64_t>(w) * windowLength;
    fx::copy_forward(curStats + start, lw, cvector_current_full_working_memory);
    fx::copy_forward(prevStats + start, lw, cvector_prev_full_working_memory);
    const std::int32_t m = lw >= 1 ? (lw + 1) >> 1 : 0;
    const std::int32_t h = ratio_samples(lw);

    if (lw >= 1) {
      if (is_zhdr == 0) {
        smooth_and_halve(cvector_current_full_working_memory, lw, cvector_current_working_memory);
        smooth_and_halve(cvector_prev_full_working_memory, lw, cvector_prev_working_memory);
      } else {
        // Every second row, starting with the exposure chosen for this band.
        const std::int32_t first = ZHDR_LE_SE_SELECT[w] != 0 ? 1 : 0;
        for (std::int32_t k = 0; k < m; ++k) {
          cvector_current_working_memory[k] = cvector_current_full_working_memory[first + 2 * k];
          cvector_prev_working_memory[k] = cvector_prev_full_working_memory[first + 2 * k];
        }
      }
      central_gradient(cvector_current_working_memory, m, grad_current_working_memory);
      central_gradient(cvector_prev_working_memory, m, grad_prev_working_memory);
      // The companded even samples are the fine search's too (h = (m + 1) / 2 of them).
      for (std::int32_t j = 0; j < h; ++j) {
        even_cur[j] = flicker_compand(cvector_current_working_memory[2 * j]);
        even_prev[j] = flicker_compand(cvector_prev_working_memory[2 * j]);
        avector_out_working_memory[q + j] = even_cur[j] - even_prev[j];
      }
    }
    const std::int32_t* ratio = avector_out_working_memory + q;
    q += h;

    const std::int32_t peaks_cur = find_peaks(grad_current_working_memory, m, peak_threshold,
                                              flicker_despike_working_memory_h1);
    const std::int32_t peaks_prev =
        find_peaks(grad_prev_working_memory, m, peak_threshold, flicker_despike_working_memory_h2);

    bool flat = peaks_cur == 0 || peaks_prev == 0;
    if (flat) {
      fx::copy_forward(ratio, h, ovector_out_working_memory + p);
    } else {
      std::int32_t unreliable = 0;
      const std::int32_t coarse = exhaust_search(
          cvector_current_working_memory, cvector_prev_working_memory,
          flicker_despike_working_memory_h1, flicker_despike_working_memory_h2, m,
          flicker_search_range, kPreShift, kCoarseDecShift, windowLength, unreliable);
      fx::copy_forward(ratio, h, ovector_out_working_memory + p);
      flat = unreliable == 1;
      if (!flat) {
        if (fx::wrap_abs32(coarse) > flicker_search_range) {
          alignFlag = 0;
          if (g_logFlow) {
            PrintLogFlk("window %d is aligned with offset %d\n", w + 1, coarse);
            PrintLogFlk("window %d cannot be aligned reliably\n", w + 1);
          }
          continue;
        }
        std::int32_t best = 0;
        flicker_fine_search(cvector_current_working_memory, cvector_prev_working_memory,
                            flicker_despike_working_memory_h1, flicker_despike_working_memory_h2, m,
                            kPreShift, kFineOutShift, kFineHalfSpan, windowLength, coarse, best,
                            cvector_out_test_ptr_array, cvector_out_test_length_working_memory,
                            even_cur, even_prev);
        const std::int32_t fine = coarse + best - (kFineCandidates >> 1);
        winOffset[w] = fine;
        if (fx::wrap_abs32(fine) > flicker_search_range) {
          alignFlag = 0;
          if (g_logFlow) PrintLogFlk("window %d cannot be aligned reliably\n", w + 1);
          continue;
        }
        // The candidate is shorter than the window's h samples by about half the shift; the
        // gap (winPad, signed like the shift) opens at the block's start for a shift >= 0 and
        // at its end for a negative one.
        const std::int32_t n = cvector_out_test_length_working_memory[best];
        winPad[w] = fine >= 0 ? h - n : n - h;
        std::int32_t at = p;
        std::int32_t block = h;
        if (w == 0 || fine < 0) {
          if (w == numWindows - 1 || fine >= 0) block = n;
        } else {
          at = p + (h - n);
        }
        fx::copy_forward(cvector_out_test_ptr_array[best], n, cvector_out_working_memory + at);
        winLength[w] = block;
        p += block;
        continue;
      }
    }
    // Flat or unreliable: the window is taken unaligned.
    fx::copy_forward(ratio, h, cvector_out_working_memory + p);
    winPad[w] = 0;
    winLength[w] = h;
    p += h;
    if (g_logFlow) PrintLogFlk("window %d is flat\n", w + 1);
  }

  // The windows wrote [0, q); the rest of the array reads 0, as if cleared before them.
  for (std::int32_t i = q; i < avector_out_extent; ++i) avector_out_working_memory[i] = 0;
  avector_out_extent = q;

  // Spread of the aligned windows' offsets.
  std::int32_t smallest = 0;
  std::int32_t largest = 0;
  bool any = false;
  for (std::int32_t w = 0; w < numWindows; ++w) {
    if (winOffset[w] == kNotAligned) continue;
    if (!any || winOffset[w] < smallest) smallest = winOffset[w];
    if (!any || winOffset[w] > largest) largest = winOffset[w];
    any = true;
  }
  const std::int32_t range3 = fx::wrap_mul32(3, flicker_search_range);
  const std::int32_t tolerance = range3 < 72 ? 8 : range3 >> 3;
  const bool registered = largest - smallest < tolerance && alignFlag == 1;
  if (!registered) alignFlag = 0;

  if (registered) {
    std::int32_t total = 0;
    for (std::int32_t w = 0; w < numWindows; ++w) total += winLength[w];
    if (total != p) {
      std::printf("code error in computing window size!!\n");
      if (g_logFlow) PrintLogFlk("code error in computing window size!!\n");
      p = total;
    }
    flicker_interpolation(cvector_out_working_memory, winLength, winPad, numWindows);
    flicker_interpolation(ovector_out_working_memory, winLength, winPad, numWindows);
    // The second despike, of the same length, leaves every working memory as it would be.
    flicker_despike_output_only(cvector_out_working_memory, cvector_out1_working_memory, p);
    flicker_despike(ovector_out_working_memory, ovector_out1_working_memory, p);
    flicker_compute_freq_robust(cvector_out1_working_memory, ovector_out1_working_memory,
                                numWindows, winLength, result);
    for (std::int32_t k = 0; k < 9; ++k) freq_out[k] = result[k];
    return;
  }

  if (g_logFlow) PrintLogFlk("frame can't be registered reliably\n");
  alignFlag = 1;
  flicker_despike(avector_out_working_memory, ovector_out1_working_memory, q);
  flicker_compute_freq(ovector_out1_working_memory, q, freq_out);
}
