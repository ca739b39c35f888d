// SPDX-License-Identifier: Apache-2.0
// Exhaustive shift search: peak masks, the coarse decimated search and the fine search.
#include "standard/standard.h"

#include <bit>
#include <cstring>
#include <type_traits>

#include "filterbank/filterbank.h"
#include "fixed_point.h"

std::int32_t cvector_current_down_working_memory[2000];
std::int32_t cvector_prev_down_working_memory[2000];
std::int32_t cvector_out_test_working_memory[10 * 1000];
std::int32_t* cvector_out_test_ptr_array[10] = {
    cvector_out_test_working_memory + 0 * 1000, cvector_out_test_working_memory + 1 * 1000,
    cvector_out_test_working_memory + 2 * 1000, cvector_out_test_working_memory + 3 * 1000,
    cvector_out_test_working_memory + 4 * 1000, cvector_out_test_working_memory + 5 * 1000,
    cvector_out_test_working_memory + 6 * 1000, cvector_out_test_working_memory + 7 * 1000,
    cvector_out_test_working_memory + 8 * 1000, cvector_out_test_working_memory + 9 * 1000};
std::int32_t cvector_out_test_length_working_memory[10];

namespace {

// Longest window at working resolution (the candidate rows hold 1000 samples) and at statistics
// resolution (the decimated arrays hold 2000).
constexpr std::int32_t kMaxWorkLen = 1000;
constexpr std::int32_t kMaxFullLen = 2000;
constexpr std::int32_t kCandidateSlots = 10;
constexpr std::int32_t kFilterHalf = 6;  // 13-tap low-pass: six taps each side of the centre

// A valid mask position holds exactly 1; anything else (0, stale scratch) is not valid.
// All ones where mask[i] is 1 (the peak masks' "valid"), else 0: the 64-bit comparison written
// as 64-bit logic and a 32-bit test, which the baseline vector units have.
inline std::int32_t valid_lane(const std::int64_t* mask, std::int32_t i) {
  const std::uint64_t off = static_cast<std::uint64_t>(mask[i]) ^ 1u;
  return static_cast<std::uint32_t>(off | (off >> 32)) == 0 ? -1 : 0;
}

// Low-pass (flicker_filter_s1, unit gain in Q8) and decimate by `step`: the window is mirrored
// six samples each side, edge sample repeated, into the analysis scratch. Returns the count.
// The coarse search's low-pass at every fourth sample of the extended window buf, in 32-bit
// lanes. The taps sum to 256, so samples within +-2^23 keep the Q8 sums and their rounding inside
// int32, and statistics in [0, 2^24) keep them inside uint32: either way the words of the 64-bit
// loop. The window is split into its four phases first, so that each tap reads a contiguous run
// and the outputs vectorise.
template <typename T>
void lowpass_phases(const std::int32_t* buf, std::int32_t outputs, std::int32_t* out) {
  static T phases[4][kMaxWorkLen / 4 + 4];
  for (std::int32_t j = 0; j < outputs + 2; ++j) {
    phases[0][j] = static_cast<T>(buf[4 * j]);
    phases[1][j] = static_cast<T>(buf[4 * j + 1]);
    phases[2][j] = static_cast<T>(buf[4 * j + 2]);
    phases[3][j] = static_cast<T>(buf[4 * j + 3]);
  }
  phases[0][outputs + 2] = static_cast<T>(buf[4 * (outputs + 2)]);
  // Output k reads buf[4k .. 4k + 12]: phase 0 up to k + 3, the others up to k + 2.
  const T* __restrict p0 = phases[0];
  const T* __restrict p1 = phases[1];
  const T* __restrict p2 = phases[2];
  const T* __restrict p3 = phases[3];
  for (std::int32_t k = 0; k < outputs; ++k) {
    const T sum = (p0[k] + p0[k + 3]) + 4 * (p1[k] + p3[k + 2]) + 10 * (p2[k] + p2[k + 2]) +
                  20 * (p3[k] + p1[k + 2]) + 31 * (p0[k + 1] + p0[k + 2]) +
                  40 * (p1[k + 1] + p3[k + 1]) + 44 * p2[k + 1];
    if constexpr (std::is_signed_v<T>) {
      out[k] = fx::rshift_round32(sum, 8);
    } else {
      out[k] = static_cast<std::int32_t>((sum + 128u) >> 8);
    }
  }
}

// Only for the table as built; false leaves the work to the caller.
bool lowpass_every_fourth(const std::int32_t* x, std::int32_t len, const std::int32_t* buf,
                          std::int32_t* out) {
  static constexpr std::int32_t kTaps[2 * kFilterHalf + 1] = {1,  4,  10, 20, 31, 40, 44,
                                                              40, 31, 20, 10, 4,  1};
  for (std::int32_t t = 0; t <= 2 * kFilterHalf; ++t) {
    if (flicker_filter_s1[t] != kTaps[t]) return false;
  }
  std::uint32_t outside_signed = 0;
  std::uint32_t outside_unsigned = 0;
  for (std::int32_t i = 0; i < len; ++i) {
    outside_signed |= (static_cast<std::uint32_t>(x[i]) + (1u << 23)) >> 24;
    outside_unsigned |= static_cast<std::uint32_t>(x[i]) >> 24;
  }
  const std::int32_t outputs = (len + 3) >> 2;
  if (outside_signed == 0) {
    lowpass_phases<std::int32_t>(buf, outputs, out);
  } else if (outside_unsigned == 0) {
    lowpass_phases<std::uint32_t>(buf, outputs, out);
  } else {
    return false;
  }
  return true;
}

std::int32_t lowpass_decimate(const std::int32_t* x, std::int32_t len, std::int32_t step,
                              std::int32_t* out) {
  if (len < 1) return 0;  // nothing to mirror
  std::int32_t* buf = convolve_analysis_working_memory_32;
  fx::copy_forward(x, len, buf + kFilterHalf);
  // Only windows shorter than the mirror need the clamp; it keeps the copy inside the input.
  for (std::int32_t m = 0; m < kFilterHalf; ++m) {
    buf[kFilterHalf - 1 - m] = x[fx::clamp32(m, 0, len - 1)];
    buf[kFilterHalf + len + m] = x[fx::clamp32(len - 1 - m, 0, len - 1)];
  }
  if (step == 4 && lowpass_every_fourth(x, len, buf, out)) return (len + 3) >> 2;
  std::int32_t count = 0;
  // The low-pass is symmetric (as built): each mirrored pair of taps takes one multiply of the
  // pair's sum. 64-bit: 24-bit statistics times a tap sum of 256.
  const std::int32_t* h = flicker_filter_s1;
  bool symmetric = true;
  for (std::int32_t k = 0; k < kFilterHalf; ++k)
    symmetric = symmetric && h[k] == h[2 * kFilterHalf - k];
  for (std::int32_t i = 0; i < len; i += step) {
    const std::int32_t* window = buf + i;
    std::int64_t acc = std::int64_t{h[kFilterHalf]} * window[kFilterHalf];
    if (symmetric) {
      for (std::int32_t k = 0; k < kFilterHalf; ++k) {
        acc += std::int64_t{h[k]} * (std::int64_t{window[k]} + window[2 * kFilterHalf - k]);
      }
    } else {
      for (std::int32_t k = 0; k < kFilterHalf; ++k) {
        acc += std::int64_t{h[k]} * window[k] +
               std::int64_t{h[2 * kFilterHalf - k]} * window[2 * kFilterHalf - k];
      }
    }
    out[count++] = fx::low32(fx::rshift_round64(acc, 8));
  }
  return count;
}

// The match rule of both stages: more valid pairs always win; an equal, non-zero count wins only
// with a strictly smaller cost, so the earliest of exact ties stays.
template <typename Cost>
bool better(std::int32_t count, Cost cost, std::int32_t best_count, Cost best_cost) {
  if (count > best_count) return true;
  return count == best_count && best_count != 0 && cost < best_cost;
}

}  // namespace

std::int32_t find_peaks(std::int32_t* grad, std::int32_t n, std::int32_t threshold,
                        std::int64_t* mask) {
  // The peak test for every sample first, in passes that vectorise, as one byte a sample (the
  // gradient arrays hold up to 1500 samples; a longer direct call tests sample by sample).
  constexpr std::int32_t kTested = 1500;
  static std::int32_t magnitude[kTested];
  static std::uint8_t peak_at[kTested];
  const bool tested = n <= kTested;
  if (tested) {
    for (std::int32_t i = 0; i < n; ++i) magnitude[i] = fx::wrap_abs32(grad[i]);
    for (std::int32_t i = 1; i < n - 1; ++i) {
      const std::int32_t a = magnitude[i];
      peak_at[i] = static_cast<std::uint8_t>((a > threshold) & (a > magnitude[i - 1]) &
                                             (a > magnitude[i + 1]));
    }
  }
  const auto is_peak = [&](std::int32_t i) {
    if (tested) return peak_at[i] != 0;
    const std::int32_t a = fx::wrap_abs32(grad[i]);
    return a > threshold && a > fx::wrap_abs32(grad[i - 1]) && a > fx::wrap_abs32(grad[i + 1]);
  };
  // Each entry is written once: the zeros up to a peak's span, then the span's ones past what an
  // earlier span already covered (peaks come in order, so spans only ever extend). Peaks are
  // sparse: eight tested samples without one are passed over at once.
  std::int32_t peaks = 0;
  std::int32_t done = 0;  // mask[0 .. done) is written
  for (std::int32_t i = 1; i < n - 1;) {
    if (tested && i + 8 <= n - 1) {
      std::uint64_t eight = 0;
      std::memcpy(&eight, peak_at + i, sizeof eight);
      if (eight == 0) {
        i += 8;
        continue;
      }
      // Straight to the first peak of the eight (the lowest byte is the first in memory).
      if constexpr (std::endian::native == std::endian::little) i += std::countr_zero(eight) >> 3;
    }
    if (is_peak(i)) {
      ++peaks;
      // Ten samples before the peak and nine after it: the asymmetry is part of the matching.
      const std::int32_t from = i - 10 < 0 ? 0 : i - 10;
      const std::int32_t to = i + 10 > n ? n : i + 10;
      for (; done < from; ++done) mask[done] = 0;
      for (; done < to; ++done) mask[done] = 1;
    }
    ++i;
  }
  for (; done < n; ++done) mask[done] = 0;
  return peaks;
}

std::int32_t exhaust_search(std::int32_t* cur, std::int32_t* prev, std::int64_t* curMask,
                            std::int64_t* prevMask, std::int32_t len, std::int32_t range,
                            std::int32_t preShift, std::int32_t decShift, std::int32_t fullLen,
                            std::int32_t& unreliable) {
  // Outside the working memories' sizes, or shifts no caller uses: no usable shift.
  if (len < 0 || len > kMaxWorkLen || fullLen > kMaxFullLen || preShift < 0 || decShift < 0 ||
      preShift + decShift > 8 || range > kMaxFullLen) {
    unreliable = 1;
    return 0;
  }
  const std::int32_t total_shift = preShift + decShift;
  const std::int32_t step = std::int32_t{1} << decShift;
  // Margin 40 statistics samples and range, both rounded up to the decimated grid.
  const std::int32_t margin =
      total_shift == 0 ? 40 : ((std::int32_t{1} << total_shift) + 39) >> total_shift;
  const std::int32_t r = decShift == 0 ? range : (range + step - 1) >> decShift;
  // 64-bit: the host sets the range unchecked, and the stage takes any fullLen up to 2000.
  const std::int32_t upper = fx::saturate32(
      ((std::int64_t{fullLen} - 2 - (std::int64_t{range} << preShift)) >> total_shift) - 1);

  lowpass_decimate(cur, len, step, cvector_current_down_working_memory);
  lowpass_decimate(prev, len, step, cvector_prev_down_working_memory);
  std::int32_t decimated = 0;
  for (std::int32_t i = 0; i < len; i += step) {
    flicker_despike_working_memory_l1[decimated] = curMask[i];
    flicker_despike_working_memory_l2[decimated] = prevMask[i];
    ++decimated;
  }

  if (r < fx::wrap_sub32(fx::wrap_neg32(r), 1)) {
    unreliable = 1;
    return 0;
  }

  const std::int32_t* cd = cvector_current_down_working_memory;
  const std::int32_t* pd = cvector_prev_down_working_memory;
  const std::int64_t* cm = flicker_despike_working_memory_l1;
  const std::int64_t* pm = flicker_despike_working_memory_l2;
  std::int32_t best_shift = 0;
  std::int32_t best_count = 0;
  std::int32_t best_cost = 0;
  // Shifts read positions up to upper + r (past the decimated count they see whatever the
  // scratch holds). The validity of each position is taken once as a 32-bit mask, and every
  // shift's sums run branch-free in 32-bit lanes.
  const std::int64_t reach = std::int64_t{upper} + r + 1;
  if (upper > margin && r >= 0 && reach <= kMaxFullLen) {
    static std::int32_t cur_valid[kMaxFullLen];
    static std::int32_t prev_valid[kMaxFullLen];
    for (std::int32_t i = 0; i < reach; ++i) {
      cur_valid[i] = valid_lane(cm, i);
      prev_valid[i] = valid_lane(pm, i);
    }
    for (std::int32_t s = -r - 1; s <= r; ++s) {
      const std::int32_t cur_off = s < 0 ? 0 : s;
      const std::int32_t prev_off = s < 0 ? -s : 0;
      const std::int32_t* __restrict c = cd + cur_off;
      const std::int32_t* __restrict p = pd + prev_off;
      const std::int32_t* __restrict cv = cur_valid + cur_off;
      const std::int32_t* __restrict pv = prev_valid + prev_off;
      std::int32_t count = 0;
      std::int32_t cost = 0;
      for (std::int32_t j = margin + 1; j < upper; ++j) {
        const std::int32_t both = cv[j] & pv[j];
        count = fx::wrap_sub32(count, both);
        cost = fx::wrap_add32(cost, fx::wrap_abs32(fx::wrap_sub32(c[j], p[j])) & both);
      }
      if (better(count, cost, best_count, best_cost)) {
        best_shift = s;
        best_count = count;
        best_cost = cost;
      }
    }
    unreliable = (best_cost == 0 || best_count == 0) ? 1 : 0;
    return fx::wrap_shl32(best_shift, decShift);
  }
  // No pair to compare: the window is no longer than its margins, so every shift scores a count
  // of 0 and none beats the initial shift 0. (The scratch check cannot fail here: with fullLen
  // and range at most 2000, upper + r stays below fullLen >> (preShift + decShift) + 2.)
  unreliable = 1;
  return 0;
}

void exhaust_search_fine(std::int32_t* cur, std::int32_t* prev, std::int64_t* curMask,
                         std::int64_t* prevMask, std::int32_t len, std::int32_t,
                         std::int32_t preShift, std::int32_t outShift, std::int32_t halfSpan,
                         std::int32_t fullLen, std::int32_t coarse, std::int32_t& bestIndex,
                         std::int32_t** outVec, std::int32_t* outLen) {
  flicker_fine_search(cur, prev, curMask, prevMask, len, preShift, outShift, halfSpan, fullLen,
                      coarse, bestIndex, outVec, outLen, nullptr, nullptr);
}

void flicker_fine_search(std::int32_t* cur, std::int32_t* prev, std::int64_t* curMask,
                         std::int64_t* prevMask, std::int32_t len, std::int32_t preShift,
                         std::int32_t outShift, std::int32_t halfSpan, std::int32_t fullLen,
                         std::int32_t coarse, std::int32_t& bestIndex, std::int32_t** outVec,
                         std::int32_t* outLen, const std::int32_t* even_cur,
                         const std::int32_t* even_prev) {
  if (halfSpan == -1) return;
  // 2^(halfSpan + 1) - 1 candidates must fit the ten candidate rows.
  if (halfSpan < 0 || halfSpan > 8 || (std::int32_t{2} << halfSpan) - 1 > kCandidateSlots ||
      len < 0 || len > kMaxWorkLen || preShift < 0 || preShift > 8 || outShift < 0 ||
      outShift > 8 || coarse < -kMaxFullLen || coarse > kMaxFullLen) {
    return;
  }
  const std::int32_t candidates = (std::int32_t{2} << halfSpan) - 1;
  const std::int32_t half = (std::int32_t{1} << halfSpan) - 1;
  // Cost window: 60 statistics samples from the top, 12 plus the coarse shift from the bottom.
  // The bottom bound follows the coarse shift, not the candidate's, so all candidates share it.
  const std::int32_t lo = preShift == 0 ? 60 : ((std::int32_t{1} << preShift) + 59) >> preShift;
  const std::int32_t abs_coarse = coarse < 0 ? fx::wrap_neg32(coarse) : coarse;
  const std::int32_t hi = fx::saturate32(
      (std::int64_t{fullLen} - 12 - (std::int64_t{abs_coarse} << preShift)) >> preShift);
  const std::int32_t out_mask = (std::int32_t{1} << outShift) - 1;

  // Candidate-independent work once per call: the companded samples and the masks' validity
  // (a candidate only changes which of them meet).
  // The companded samples are kept split by phase (even rows, then odd rows), so that every
  // candidate's output at a step of two reads two contiguous runs.
  static std::int32_t cur_log[kMaxWorkLen];
  static std::int32_t prev_log[kMaxWorkLen];
  static std::int32_t cur_valid[kMaxWorkLen];  // all ones where valid, else 0
  static std::int32_t prev_valid[kMaxWorkLen];
  const bool phased = out_mask == 1;
  const std::int32_t odd_at = (len + 1) >> 1;  // where the odd phase starts
  const std::int32_t phase_step = phased ? 2 : 1;
  for (std::int32_t phase = 0, at = 0; phase < phase_step; ++phase) {
    if (phase == 0 && phased && even_cur != nullptr) {
      for (; at < odd_at; ++at) {
        cur_log[at] = even_cur[at];
        prev_log[at] = even_prev[at];
      }
      continue;
    }
    for (std::int32_t i = phase; i < len; i += phase_step, ++at) {
      cur_log[at] = flicker_compand(cur[i]);
      prev_log[at] = flicker_compand(prev[i]);
    }
  }
  std::uint32_t wide = 0;   // non-zero once a sample lies outside [-2^30, 2^30)
  std::uint32_t above = 0;  // bits 24..31 clear: every sample a statistic in [0, 2^24)
  for (std::int32_t i = 0; i < len; ++i) {
    cur_valid[i] = valid_lane(curMask, i);
    prev_valid[i] = valid_lane(prevMask, i);
    wide |= (static_cast<std::uint32_t>(cur[i]) + (1u << 30)) >> 31;
    wide |= (static_cast<std::uint32_t>(prev[i]) + (1u << 30)) >> 31;
    above |= static_cast<std::uint32_t>(cur[i]) | static_cast<std::uint32_t>(prev[i]);
  }
  // Differences of statistics stay below 2^24 in size, so 256 of them sum in 32 bits; any
  // other two within +-2^30 stay below 2^32.
  const std::int32_t chunk = (above >> 24) == 0 ? 256 : 2;
  const std::int32_t from = lo < 0 ? 0 : lo;

  std::int32_t best_count = 0;
  std::int64_t best_cost = 0;
  for (std::int32_t k = 0; k < candidates; ++k) {
    const std::int32_t s = coarse - half + k;
    const std::int32_t overlap = len - (s < 0 ? -s : s);
    outLen[k] = outShift == 0 ? overlap : (overlap + out_mask) >> outShift;
    outVec[k] = cvector_out_test_working_memory + k * kMaxWorkLen;
    std::int32_t* out = outVec[k];
    const std::int32_t cur_off = s >= 0 ? s : 0;
    const std::int32_t prev_off = s >= 0 ? 0 : -s;
    const std::int32_t step = out_mask + 1;
    std::int32_t written = 0;
    // Log ratio on clamped samples; the cost below sees the raw, unclamped ones.
    if (phased) {
      const std::int32_t* __restrict c = cur_log + (cur_off >> 1) + (cur_off & 1) * odd_at;
      const std::int32_t* __restrict p = prev_log + (prev_off >> 1) + (prev_off & 1) * odd_at;
      written = outLen[k];
      for (std::int32_t w = 0; w < written; ++w) out[w] = c[w] - p[w];
    } else {
      for (std::int32_t j = 0; j < overlap; j += step) {
        out[written++] = cur_log[j + cur_off] - prev_log[j + prev_off];
      }
    }
    const std::int32_t to = hi < overlap ? hi : overlap;
    std::int32_t count = 0;
    std::int64_t cost = 0;  // 64-bit: up to 1000 differences of 32-bit values
    // Only a cost window that holds samples forms pointers into them (an empty window may come
    // with no arrays at all).
    if (from < to) {
      const std::int32_t* __restrict c = cur + cur_off;
      const std::int32_t* __restrict p = prev + prev_off;
      const std::int32_t* __restrict cv = cur_valid + cur_off;
      const std::int32_t* __restrict pv = prev_valid + prev_off;
      if (wide == 0) {
        // Samples within +-2^30: each difference and its magnitude fit 32 bits, so the loop
        // vectorises; only the sum needs 64.
        std::uint64_t sum = 0;
        for (std::int32_t first = from; first < to; first += chunk) {
          const std::int32_t end = to - first < chunk ? to : first + chunk;
          std::uint32_t part = 0;
          for (std::int32_t j = first; j < end; ++j) {
            const std::int32_t both = cv[j] & pv[j];
            const std::int32_t d = c[j] - p[j];
            part += static_cast<std::uint32_t>((d < 0 ? -d : d) & both);
            count -= both;
          }
          sum += part;
        }
        cost = static_cast<std::int64_t>(sum);
      } else {
        for (std::int32_t j = from; j < to; ++j) {
          const std::int32_t both = cv[j] & pv[j];
          const std::int64_t d = std::int64_t{c[j]} - p[j];
          cost += both != 0 ? (d < 0 ? -d : d) : 0;
          count -= both;
        }
      }
    }
    if (better(count, cost, best_count, best_cost)) {
      bestIndex = k;
      best_count = count;
      best_cost = cost;
    }
  }
}
