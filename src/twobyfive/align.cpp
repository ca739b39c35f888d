// SPDX-License-Identifier: Apache-2.0
// 2x5 sub-pixel alignment: eighth-sample shifts over overlapping segments, averaged clipped cost.
#include "twobyfive/twobyfive.h"

#include <array>
#include <iterator>

#include "decision/decision.h"
#include "fixed_point.h"
#include "interface/interface.h"
#include "sony/sony.h"
#include "standard/standard.h"

std::int32_t vec_log_curr_working_memory[12000];
std::int32_t vec_log_prev_working_memory[12000];
std::int32_t vec_laplace_curr_working_memory[12000];
std::int32_t vec_nonAlign_working_memory[12000];
std::int32_t vec_align1_working_memory[12000];
std::int32_t vec_align2_working_memory[12000];
std::int32_t seg_prev_log_shift_working_memory[2000];
std::int32_t seg_laplace_prev_working_memory[2000];

namespace {

constexpr std::int32_t kCostClip = 2650;     // keeps a few mismatched rows from dominating
constexpr std::int32_t kCostScaleShift = 6;  // cost is a per-sample average x 64
constexpr std::int32_t kShiftDen = 8;        // shifts in eighths of a sample
constexpr std::int32_t kOverlap = 2;         // samples a segment borrows from each neighbour
constexpr std::int32_t kDespikeLevels = 1;
constexpr std::int32_t kDespikeThreshold = 225;
constexpr std::int32_t kQuietDeviation = 14;   // log-ratio units
constexpr std::int32_t kQuietScoreCap = -128;  // Q8

// Samples lost at one end by a shift of s eighths: ceil(|s| / 8).
std::int32_t lost_samples(std::int32_t s) {
  const std::int32_t a = s < 0 ? -s : s;
  return (a + kShiftDen - 1) / kShiftDen;
}

// The driver refuses geometry outside these bounds; direct callers get the same protection.
bool geometry_fits(std::int32_t windows, std::int32_t window_length, std::int32_t total) {
  if (g_flkTab1 == nullptr || g_flkTab2 == nullptr || g_flkCompTab == nullptr) return false;
  if (windows < 0 || windows > kMaxWindows || window_length < 0 || total < 0) return false;
  if (total > kDespikeSize || total > g_flkTabW) return false;
  if (windows == 0) return true;
  // Every window after the first starts its segment kOverlap samples before its base: shorter
  // windows would start it before the frame.
  if (windows > 1 && window_length < kOverlap) return false;
  const std::int64_t last_length = total - std::int64_t{windows - 1} * window_length;
  if (last_length < 0) return false;
  // Segment lengths: window 0 borrows 2 on the right, middle windows 2 on each side, the last 2 on
  // the left.
  const std::int64_t first = (windows == 1 ? last_length : window_length) + kOverlap;
  const std::int64_t middle = windows > 2 ? window_length + 2 * kOverlap : 0;
  const std::int64_t last = windows > 1 ? last_length + kOverlap : 0;
  const auto segment_size = static_cast<std::int64_t>(std::size(seg_prev_log_shift_working_memory));
  return first <= segment_size && middle <= segment_size && last <= segment_size;
}

// A shift of s eighths takes its samples from one of eight sequences: the segment itself (whole
// shifts) or its blend with the next sample at weight w/8 (w = 1..7), read from an offset. The
// rows the cost scores never reach the edge samples a shift repeats, nor the Laplacian's end
// rows, so the Laplacian of the shifted segment there is the blend's Laplacian at the same
// offset (flicker_shift_source). Each blend and its Laplacian is built once per window instead
// of once per shift.
struct ShiftTable {
  std::int32_t blend[kShiftDen][2000];      // [0] unused: whole shifts read the segment
  std::int32_t laplacian[kShiftDen][2000];  // [0]: the segment's own
};
ShiftTable g_shift_table;

// The window's tabulated Laplacians and the current rows the costs read, 16-bit, when every
// value lies within +-2^14: two such differ by less than 2^15, so each term of the shift cost
// (a magnitude clipped to 2650) takes 16-bit lanes, eight rows to a vector, and the running sum
// only grows.
struct CostRows {
  std::int16_t table[kShiftDen][2000];
  std::int16_t current[2000];
};
CostRows g_cost_rows;

// laplace_diff_avg_2x5 on packed rows where only a cost of at most `limit` can matter: once the
// sum so far gives more, no later term brings it back, and the rest is skipped; INT32_MAX then
// stands for the cost. Checked every 64 rows.
std::int32_t CostUpTo(const std::int16_t* __restrict a, const std::int16_t* __restrict b,
                      std::int32_t n, std::int32_t limit) {
  if (n < 1) return 0;
  // (sum << 6) / n > limit, truncated, once sum << 6 reaches (limit + 1) n.
  const std::int64_t reach = (std::int64_t{limit} + 1) * n;
  constexpr std::int32_t kChunk = 64;
  // Each clipped term times one: a product of 16-bit values, so that pairs of terms add into
  // 32-bit lanes in one multiply-add instead of every term being widened first.
  static constexpr auto kOnes = [] {
    std::array<std::int16_t, kChunk> ones{};
    ones.fill(1);
    return ones;
  }();
  std::int32_t sum = 0;  // at most 2000 x 2650
  for (std::int32_t first = 0; first < n; first += kChunk) {
    const std::int32_t end = n - first < kChunk ? n : first + kChunk;
    for (std::int32_t i = first; i < end; ++i) {
      const auto d = static_cast<std::int16_t>(a[i] - b[i]);
      const auto magnitude = static_cast<std::int16_t>(d < 0 ? -d : d);
      const auto term = static_cast<std::int16_t>(magnitude < kCostClip ? magnitude : kCostClip);
      sum += term * kOnes[i - first];
    }
    if ((std::int64_t{sum} << kCostScaleShift) >= reach) return INT32_MAX;
  }
  return fx::div_trunc(sum << kCostScaleShift, n);
}

}  // namespace

void convolve_Laplacian_filter_2x5(std::int32_t* in, std::int32_t* out, std::int32_t n) {
  convolve_Laplacian_filter_SONY(in, out, n);
}

void subpixel_shift_vec_2x5(const std::int32_t* in, std::int32_t* out, std::int32_t n,
                            std::int32_t shift, std::int32_t den) {
  // The SONY shift only reads its input.
  subpixel_shift_vec_SONY(const_cast<std::int32_t*>(in), out, n, shift, den);
}

std::int32_t laplace_diff_avg_2x5(std::int32_t* a, std::int32_t* b, std::int32_t n,
                                  std::int32_t clip, std::int32_t scaleShift) {
  if (n < 1) return 0;
  // 32-bit as the cost has always been: 2000 clipped terms of 2650, x 64, stay below 2^29.
  std::int32_t sum = 0;
  for (std::int32_t i = 0; i < n; ++i) {
    const std::int32_t d = fx::wrap_abs32(fx::wrap_sub32(a[i], b[i]));
    sum = fx::wrap_add32(sum, d < clip ? d : clip);
  }
  return fx::div_trunc(fx::wrap_shl32(sum, scaleShift), n);
}

void determineValidLength_2x5(std::int32_t numWindows, const std::int32_t* offsets,
                              std::int32_t* pads, std::int32_t den, const std::int32_t* winLens,
                              std::int32_t margin, std::int32_t* validLens, std::int32_t*& start,
                              std::int32_t& total) {
  total = 0;
  for (std::int32_t w = 0; w < numWindows; ++w) {
    const std::int32_t o = offsets[w];
    const std::int32_t a = o < 0 ? -o : o;
    const std::int32_t lost = den > 0 ? (a + den - 1) / den : 0;
    // A negative shift loses samples at the window's start: the gap follows the previous block.
    pads[w] = o == 0 ? 0 : (o < 0 ? lost : -lost);
    std::int32_t valid = winLens[w];
    if (w == 0) {
      valid -= margin;
      if (o < 0) valid -= lost;
      start += (o < 0 ? lost : 0) + margin;
    } else if (w == numWindows - 1) {
      valid -= margin;
      if (o > 0) valid -= lost;
    }
    validLens[w] = valid;
    total += valid;
  }
}

void check_alignment_2x5(const std::int32_t* offsets, std::int32_t n, std::int32_t maxStep,
                         std::int32_t& flag) {
  for (std::int32_t i = 0; i + 1 < n; ++i) {
    const std::int64_t step = std::int64_t{offsets[i]} - offsets[i + 1];
    if ((step < 0 ? -step : step) > maxStep) {
      flag = 0;
      return;
    }
  }
}

std::int32_t check_AE_stable_2x5(std::int32_t n, std::int32_t* curStats, std::int32_t* prevStats) {
  if (flicker_exposure_stable(curStats, prevStats, n)) return 1;
  if (g_logFlow) PrintLogFlk("frame AE unstable\n");
  return 0;
}

void align_flicker_subpixel_2x5(std::int32_t* curStats, std::int32_t* prevStats,
                                std::int32_t numWindows, std::int32_t windowLength, std::int32_t,
                                std::int32_t totalLength, std::int32_t* freq_out,
                                std::int32_t& aeStable, std::int32_t& frameScore) {
  std::int32_t win_len[kMaxWindows] = {};
  std::int32_t best_shift[kMaxWindows] = {};
  std::int32_t second_shift[kMaxWindows] = {};
  std::int32_t best_pad[kMaxWindows] = {};
  std::int32_t second_pad[kMaxWindows] = {};
  std::int32_t best_valid[kMaxWindows] = {};
  std::int32_t second_valid[kMaxWindows] = {};
  for (std::int32_t k = 0; k < 9; ++k) freq_out[k] = 0;
  if (!geometry_fits(numWindows, windowLength, totalLength)) {
    LogRefusalFlk("align_flicker_subpixel_2x5",
                  "%d windows of %d rows in a frame of %d rows (limits 10 windows, 2 rows a window "
                  "when several, 2000 rows, 2000-sample segments, table width %d, tables built)",
                  numWindows, windowLength, totalLength, g_flkTabW);
    aeStable = 0;
    return;
  }

  if (check_AE_stable_2x5(totalLength, curStats, prevStats) == 0) {
    aeStable = 0;
    return;
  }
  aeStable = 1;

  for (std::int32_t i = 0; i < totalLength; ++i) {
    vec_log_curr_working_memory[i] = flicker_compand(curStats[i]);
    vec_log_prev_working_memory[i] = flicker_compand(prevStats[i]);
    vec_nonAlign_working_memory[i] =
        vec_log_curr_working_memory[i] - vec_log_prev_working_memory[i];
  }
  convolve_Laplacian_filter_2x5(vec_log_curr_working_memory, vec_laplace_curr_working_memory,
                                totalLength);

  const std::int32_t range = shift_range_2x5(totalLength);
  const std::int32_t last = numWindows - 1;
  for (std::int32_t w = 0; w < numWindows; ++w) {
    const std::int32_t base = w * windowLength;
    const std::int32_t len = w == last ? totalLength - last * windowLength : windowLength;
    win_len[w] = len;
    // Segments overlap their neighbours so the Laplacian's end rows stay outside the cost. A
    // single window still takes its right overlap, reading two samples past the frame.
    const std::int32_t start = w == 0 ? 0 : base - kOverlap;
    const std::int32_t left = w == 0 ? 0 : kOverlap;
    const std::int32_t right = (w == 0 || w != last) ? kOverlap : 0;
    const std::int32_t seg_len = left + len + right;
    const std::int32_t* const log_curr = vec_log_curr_working_memory + start;
    const std::int32_t* const log_prev = vec_log_prev_working_memory + start;

    // The table holds when every shift keeps rows to score away from the segment's ends.
    const bool tabulated = seg_len >= 2 * (range / kShiftDen + 1) + 8;
    if (tabulated) {
      std::int32_t* const prev = const_cast<std::int32_t*>(log_prev);  // only read
      convolve_Laplacian_filter_2x5(prev, g_shift_table.laplacian[0], seg_len);
      for (std::int32_t w = 1; w < kShiftDen; ++w) {
        subpixel_shift_vec_2x5(log_prev, g_shift_table.blend[w], seg_len, w, kShiftDen);
        convolve_Laplacian_filter_2x5(g_shift_table.blend[w], g_shift_table.laplacian[w], seg_len);
      }
    }
    // The costs read the current rows from start + 2 up to the segment's last two.
    bool cut_short = tabulated && fx::narrow16(vec_laplace_curr_working_memory + start + 2,
                                               seg_len - 4, 14, g_cost_rows.current + 2);
    for (std::int32_t weight = 0; cut_short && weight < kShiftDen; ++weight) {
      cut_short =
          fx::narrow16(g_shift_table.laplacian[weight], seg_len, 14, g_cost_rows.table[weight]);
    }
    std::int32_t best_cost = INT32_MAX;
    std::int32_t second_cost = INT32_MAX;
    for (std::int32_t s = -range; s <= range; ++s) {
      const std::int32_t lost_left = s < 0 ? lost_samples(s) : 0;
      const std::int32_t lost_right = s > 0 ? lost_samples(s) : 0;
      const std::int32_t first = 2 + lost_left;
      const std::int32_t scored = seg_len - 4 - lost_left - lost_right;
      // Row j of the shifted segment and of its Laplacian, from first on.
      const std::int32_t* shifted = seg_prev_log_shift_working_memory + first;
      const std::int32_t* laplacian = seg_laplace_prev_working_memory + first;
      const std::int16_t* packed = nullptr;  // the same rows, 16-bit, when cut short
      if (tabulated) {
        const FlkShiftSource src = flicker_shift_source(s, kShiftDen);
        // offset + first is at least 2: no pointer before a sequence's start is formed.
        shifted =
            (src.weight == 0 ? log_prev : g_shift_table.blend[src.weight]) + (src.offset + first);
        laplacian = g_shift_table.laplacian[src.weight] + (src.offset + first);
        packed = g_cost_rows.table[src.weight] + (src.offset + first);
      } else {
        subpixel_shift_vec_2x5(log_prev, seg_prev_log_shift_working_memory, seg_len, s, kShiftDen);
        convolve_Laplacian_filter_2x5(seg_prev_log_shift_working_memory,
                                      seg_laplace_prev_working_memory, seg_len);
      }
      // Only a cost at or below the second best places.
      const std::int32_t cost =
          cut_short ? CostUpTo(packed, g_cost_rows.current + first, scored, second_cost)
                    : laplace_diff_avg_2x5(const_cast<std::int32_t*>(laplacian),
                                           vec_laplace_curr_working_memory + start + first, scored,
                                           kCostClip, kCostScaleShift);
      std::int32_t* target = nullptr;
      if (cost <= best_cost) {  // ties go to the later shift
        for (std::int32_t i = 0; i < len; ++i) {
          vec_align2_working_memory[base + i] = vec_align1_working_memory[base + i];
        }
        second_shift[w] = best_shift[w];
        second_cost = best_cost;
        best_shift[w] = s;
        best_cost = cost;
        target = vec_align1_working_memory;
      } else if (cost <= second_cost) {
        second_shift[w] = s;
        second_cost = cost;
        target = vec_align2_working_memory;
      }
      if (target != nullptr) {
        for (std::int32_t j = 0; j < scored; ++j) {
          target[start + first + j] = log_curr[first + j] - shifted[j];
        }
      }
    }
    if (tabulated) {
      // The scratch of the last shift, as shifting and filtering shift by shift leaves it.
      subpixel_shift_vec_2x5(log_prev, seg_prev_log_shift_working_memory, seg_len, range,
                             kShiftDen);
      convolve_Laplacian_filter_2x5(seg_prev_log_shift_working_memory,
                                    seg_laplace_prev_working_memory, seg_len);
    }
  }

  std::int32_t* best_vec = vec_align1_working_memory;
  std::int32_t* second_vec = vec_align2_working_memory;
  std::int32_t best_total = 0;
  std::int32_t second_total = 0;
  determineValidLength_2x5(numWindows, best_shift, best_pad, kShiftDen, win_len, kOverlap,
                           best_valid, best_vec, best_total);
  determineValidLength_2x5(numWindows, second_shift, second_pad, kShiftDen, win_len, kOverlap,
                           second_valid, second_vec, second_total);

  const std::int32_t max_step = neighbour_step_2x5(totalLength);
  std::int32_t registered = 1;
  check_alignment_2x5(best_shift, numWindows, max_step, registered);

  flickerDespikeAdaptive_2x5(vec_nonAlign_working_memory, ovector_out1_working_memory, totalLength,
                             kDespikeLevels, kDespikeThreshold);
  if (registered != 0) {
    flicker_interpolation(best_vec, best_valid, best_pad, numWindows);
    flicker_interpolation(second_vec, second_valid, second_pad, numWindows);
    flickerDespikeAdaptive_2x5(best_vec, cvector_current_down_working_memory, best_total,
                               kDespikeLevels, kDespikeThreshold);
    flickerDespikeAdaptive_2x5(second_vec, cvector_prev_down_working_memory, second_total,
                               kDespikeLevels, kDespikeThreshold);
    std::int32_t* versions[3] = {ovector_out1_working_memory, cvector_current_down_working_memory,
                                 cvector_prev_down_working_memory};
    std::int32_t* lengths[3] = {win_len, best_valid, second_valid};
    flicker_compute_freq_3x_2x5(versions, numWindows, lengths, freq_out, frameScore);
  } else {
    if (g_logFlow) PrintLogFlk("frame can't be registered reliably\n");
    flicker_compute_freq_2x5(ovector_out1_working_memory, totalLength, freq_out);
    frameScore = get_current_llr(freq_out, 9);
  }

  // A quiet ratio carries no banding worth trusting, whatever its spectrum says.
  if (compute_noiseness_2x5(ovector_out1_working_memory, totalLength) < kQuietDeviation &&
      frameScore > kQuietScoreCap) {
    frameScore = kQuietScoreCap;
  }
}
