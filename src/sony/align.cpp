// SPDX-License-Identifier: Apache-2.0
// SONY sub-pixel alignment: quarter-sample shifts scored on Laplacians of the log vectors.
#include "sony/sony.h"

#include <bit>

#include "decision/decision.h"
#include "fixed_point.h"
#include "interface/interface.h"
#include "standard/standard.h"

std::int32_t ovector_out_tmp_working_memory[2000];
std::int32_t cvector_out_tmp_working_memory[2000];

void convolve_Laplacian_filter_SONY(std::int32_t* in, std::int32_t* out, std::int32_t n) {
  using fx::wrap_add32;
  using fx::wrap_mul32;
  if (n < 1) return;
  if (n < 4) {
    // Shorter than the end rows assume: mirror about the ends (x[-1] = x[0], x[-2] = x[1], ...)
    // with the reflected index kept inside the vector.
    auto at = [&](std::int32_t i) {
      if (i < 0) i = -i - 1;
      if (i >= n) i = 2 * n - 1 - i;
      return in[fx::clamp32(i, 0, n - 1)];
    };
    for (std::int32_t i = 0; i < n; ++i) {
      out[i] = wrap_add32(wrap_add32(wrap_add32(at(i - 2), at(i - 1)), wrap_mul32(-4, at(i))),
                          wrap_add32(at(i + 1), at(i + 2)));
    }
    return;
  }
  out[0] = wrap_add32(wrap_add32(wrap_mul32(-3, in[0]), wrap_mul32(2, in[1])), in[2]);
  out[1] =
      wrap_add32(wrap_add32(wrap_mul32(2, in[0]), wrap_mul32(-4, in[1])), wrap_add32(in[2], in[3]));
  for (std::int32_t i = 2; i < n - 2; ++i) {
    out[i] = wrap_add32(wrap_add32(wrap_add32(in[i - 2], in[i - 1]), wrap_mul32(-4, in[i])),
                        wrap_add32(in[i + 1], in[i + 2]));
  }
  out[n - 2] = wrap_add32(wrap_add32(in[n - 4], in[n - 3]),
                          wrap_add32(wrap_mul32(-4, in[n - 2]), wrap_mul32(2, in[n - 1])));
  out[n - 1] =
      wrap_add32(wrap_add32(in[n - 3], wrap_mul32(2, in[n - 2])), wrap_mul32(-3, in[n - 1]));
}

namespace {

// out[k] = (half + lo[k] x w_lo + hi[k] x w_hi) / den for k < count, 32-bit wrapping sums and a
// division truncating toward zero.
template <typename Divide>
void blend(const std::int32_t* lo, const std::int32_t* hi, std::int32_t* out, std::int32_t count,
           std::int32_t w_lo, std::int32_t w_hi, std::int32_t half, Divide divide) {
  using fx::wrap_add32;
  using fx::wrap_mul32;
  for (std::int32_t k = 0; k < count; ++k) {
    out[k] = divide(wrap_add32(wrap_add32(half, wrap_mul32(lo[k], w_lo)), wrap_mul32(hi[k], w_hi)));
  }
}

template <typename Divide>
void blend_shifted(const std::int32_t* in, std::int32_t* out, std::int32_t n, std::int32_t shift,
                   std::int32_t q, std::int32_t r, std::int32_t den, Divide divide) {
  const std::int32_t half = den / 2;
  const std::int32_t keep = fx::wrap_sub32(den, r);  // weight of the nearer sample
  const std::int32_t inner = n - q - 1;              // interpolated outputs
  if (shift > 0) {
    blend(in + q, in + q + 1, out, inner, keep, r, half, divide);
    for (std::int32_t k = inner < 0 ? 0 : inner; k < n; ++k) out[k] = in[n - 1];
  } else {
    const std::int32_t lead = q + 1 < n ? q + 1 : n;
    for (std::int32_t k = 0; k < lead; ++k) out[k] = in[0];
    blend(in, in + 1, out + q + 1, inner, r, keep, half, divide);
  }
}

}  // namespace

void subpixel_shift_vec_SONY(std::int32_t* in, std::int32_t* out, std::int32_t n,
                             std::int32_t shift, std::int32_t den) {
  if (n < 1) return;
  if (shift == 0) {
    for (std::int32_t i = 0; i < n; ++i) out[i] = in[i];
    return;
  }
  const std::int32_t a = fx::wrap_abs32(shift);
  const std::int32_t q_raw = fx::div_trunc(a, den);  // den = 0 divides to 0
  const std::int32_t r = fx::wrap_sub32(a, fx::wrap_mul32(q_raw, den));
  // A whole-vector shift (or a negative quotient from den < 0) only repeats edge samples: keep
  // every index inside the vector.
  const std::int32_t q = fx::clamp32(q_raw, 0, n);
  if (r != 0) {
    if (den > 0 && (den & (den - 1)) == 0) {
      // The pipelines' denominators (4 and 8) are powers of two: an arithmetic shift after
      // biasing negative sums by den - 1 truncates toward zero exactly like the division, and
      // lets the loop vectorise.
      const std::int32_t k = std::countr_zero(static_cast<std::uint32_t>(den));
      const std::int32_t bias = den - 1;
      blend_shifted(in, out, n, shift, q, r, den,
                    [k, bias](std::int32_t x) { return (x + ((x >> 31) & bias)) >> k; });
    } else {
      blend_shifted(in, out, n, shift, q, r, den,
                    [den](std::int32_t x) { return fx::div_trunc(x, den); });
    }
    return;
  }
  if (shift > 0) {
    for (std::int32_t k = 0; k < n - q; ++k) out[k] = in[q + k];
    for (std::int32_t k = n - q; k < n; ++k) out[k] = in[n - 1];
  } else {
    for (std::int32_t k = 0; k < q; ++k) out[k] = in[0];
    for (std::int32_t k = q; k < n; ++k) out[k] = in[k - q];
  }
}

namespace {

// Quarter-sample search: shifts -8..8 of den 4, i.e. up to two samples either way.
constexpr std::int32_t kShiftDen = 4;
constexpr std::int32_t kMaxShift = 8;
// Per-row cost clip: a few rows that cannot match (moving objects, clipping) stay bounded.
constexpr std::int32_t kCostClip = 2650;

// Log of a scaled statistic: the table is indexed directly; values past its last entry (wide
// windows, see the INIT) use the last entry and negative ones the first.
inline std::int32_t log_of(std::int32_t v) {
  const std::int32_t last = fx::wrap_add32(g_valuMax, 1);
  return g_flkCompTab[v < 0 ? 0 : (v > last ? last : v)];
}

bool exposure_stable_logged(const std::int32_t* cur, const std::int32_t* prev, std::int32_t n) {
  if (flicker_exposure_stable(cur, prev, n)) return true;
  if (g_logFlow != 0) PrintLogFlk("frame AE unstable\n");
  return false;
}

// Spread of the window offsets, 0 always included; too wide a spread means the frame cannot be
// registered as one motion.
bool offsets_spread(const std::int32_t* offsets, std::int32_t n) {
  std::int32_t lo = 0;
  std::int32_t hi = 0;
  for (std::int32_t i = 0; i < n; ++i) {
    if (offsets[i] < lo) lo = offsets[i];
    if (offsets[i] > hi) hi = offsets[i];
  }
  return fx::wrap_sub32(hi, lo) >= fx::wrap_mul32(3, flicker_search_range);
}

// A shift of s quarter samples reads the window (whole shifts) or its blend with the next sample
// at weight w/4 (w = 1..3) from an offset, and repeats the first or last sample past it. Away from
// the ends, the Laplacian of the shifted window is the blend's Laplacian at the same offset; each
// blend and its Laplacian is built once per window instead of once per shift, and only the few
// rows near the ends are filtered per shift.
struct ShiftTable {
  std::int32_t blend[kShiftDen][kSonyMaxWindowRows];  // [0] unused: whole shifts read the window
  std::int32_t laplacian[kShiftDen][kSonyMaxWindowRows];  // [0]: the window's own
};
ShiftTable g_shift_table;
constexpr std::int32_t kMinTabulatedRows = 16;
constexpr std::int32_t kEndRows = 8;  // a slice whose Laplacian holds every row the table does not

void tabulate_shifts(std::int32_t* window, std::int32_t n) {
  convolve_Laplacian_filter_SONY(window, g_shift_table.laplacian[0], n);
  for (std::int32_t w = 1; w < kShiftDen; ++w) {
    subpixel_shift_vec_SONY(window, g_shift_table.blend[w], n, w, kShiftDen);
    convolve_Laplacian_filter_SONY(g_shift_table.blend[w], g_shift_table.laplacian[w], n);
  }
}

// Row j of the window shifted by s: the sequence at j + offset, the window's first or last sample
// where that falls outside.
class ShiftedWindow {
 public:
  ShiftedWindow(const std::int32_t* window, std::int32_t n, std::int32_t s)
      : window_(window), n_(n) {
    const FlkShiftSource source = flicker_shift_source(s, kShiftDen);
    offset_ = source.offset;
    sequence_ = source.weight == 0 ? window : g_shift_table.blend[source.weight];
    laplacian_ = g_shift_table.laplacian[source.weight];
  }
  std::int32_t At(std::int32_t j) const {
    const std::int32_t k = j + offset_;
    return k < 0 ? window_[0] : (k >= n_ ? window_[n_ - 1] : sequence_[k]);
  }
  // dst[i] = cur[i] - row i, 32-bit wrapping.
  void SubtractFrom(const std::int32_t* cur, std::int32_t* dst) const {
    const std::int32_t lead = fx::clamp32(-offset_, 0, n_);     // rows before the window's start
    const std::int32_t end = fx::clamp32(n_ - offset_, 0, n_);  // rows up to its end
    for (std::int32_t i = 0; i < lead; ++i) dst[i] = fx::wrap_sub32(cur[i], window_[0]);
    const std::int32_t* const row = sequence_ + (lead + offset_);  // row `lead` onwards
    for (std::int32_t i = lead; i < end; ++i) dst[i] = fx::wrap_sub32(cur[i], row[i - lead]);
    for (std::int32_t i = end; i < n_; ++i) dst[i] = fx::wrap_sub32(cur[i], window_[n_ - 1]);
  }
  // Rows whose Laplacian the table holds: every tap reads the sequence, away from its ends.
  std::int32_t FirstInner() const { return 2 + (offset_ < 0 ? -offset_ : 0); }
  std::int32_t LastInner() const { return n_ - 3 - (offset_ > 0 ? offset_ : 0); }
  // The Laplacian from row FirstInner() on (a pointer into the table, never before it).
  const std::int32_t* InnerLaplacian() const { return laplacian_ + (FirstInner() + offset_); }

 private:
  const std::int32_t* window_;
  const std::int32_t* sequence_;
  const std::int32_t* laplacian_;
  std::int32_t n_;
  std::int32_t offset_;
};

std::int32_t clipped_difference(std::int32_t a, std::int32_t b) {
  const std::uint32_t d = fx::abs_diff32(a, b);
  return d < std::uint32_t{kCostClip} ? static_cast<std::int32_t>(d) : kCostClip;
}

// The cost of a tabulated shift: the table's rows, and the end rows filtered from two slices of
// the shifted window (a slice's Laplacian equals the whole window's up to two rows from the cut).
std::int32_t tabulated_cost(const ShiftedWindow& shifted, const std::int32_t* lap_cur,
                            std::int32_t n) {
  std::int32_t head[kEndRows], tail[kEndRows], lap_head[kEndRows], lap_tail[kEndRows];
  for (std::int32_t j = 0; j < kEndRows; ++j) {
    head[j] = shifted.At(j);
    tail[j] = shifted.At(n - kEndRows + j);
  }
  convolve_Laplacian_filter_SONY(head, lap_head, kEndRows);
  convolve_Laplacian_filter_SONY(tail, lap_tail, kEndRows);
  const std::int32_t first = shifted.FirstInner();
  const std::int32_t last = shifted.LastInner();
  std::int32_t cost = 0;
  for (std::int32_t i = 0; i < first; ++i) cost += clipped_difference(lap_head[i], lap_cur[i]);
  const std::int32_t* const lap = shifted.InnerLaplacian();
  for (std::int32_t i = first; i <= last; ++i) {
    cost += clipped_difference(lap[i - first], lap_cur[i]);
  }
  for (std::int32_t i = last + 1; i < n; ++i) {
    cost += clipped_difference(lap_tail[i - (n - kEndRows)], lap_cur[i]);
  }
  return cost;
}

}  // namespace

std::int32_t check_AE_stable_SONY(std::int32_t n, std::int32_t* curStats, std::int32_t* prevStats) {
  return exposure_stable_logged(curStats, prevStats, n) ? 1 : 0;
}

void check_alignment_SONY(std::int32_t* offsets, std::int32_t n, std::int32_t,
                          std::int32_t& alignFlag) {
  if (offsets_spread(offsets, n)) alignFlag = 0;
}

void align_flicker_SONY_subpixel(std::int32_t* curStats, std::int32_t* prevStats,
                                 std::int32_t numWindows, std::int32_t windowLength, std::int32_t,
                                 std::int32_t totalLength, std::int32_t* freq_out,
                                 std::int32_t& aeStable, std::int32_t& alignFlag) {
  for (std::int32_t k = 0; k < 9; ++k) freq_out[k] = 0;
  std::int32_t win_offset[kSonyMaxWindows] = {};
  alignFlag = 1;
  // The driver refuses these geometries; a direct caller gets the same protection.
  const std::int64_t covered = std::int64_t{numWindows} * windowLength;
  if (numWindows < 0 || numWindows > kSonyMaxWindows ||
      (numWindows > 0 &&
       (windowLength < kSonyMinWindowRows || windowLength > kSonyMaxWindowRows)) ||
      covered > totalLength || totalLength > kSonyMaxRows ||
      (totalLength > 0 && totalLength < kSonyMinRows) || totalLength > g_flkTabW ||
      g_flkCompTab == nullptr) {
    LogRefusalFlk("align_flicker_SONY_subpixel",
                  "%d windows of %d rows in %d (at most %d windows of %d..%d rows, %d..%d in all)",
                  numWindows, windowLength, totalLength, kSonyMaxWindows, kSonyMinWindowRows,
                  kSonyMaxWindowRows, kSonyMinRows, kSonyMaxRows);
    aeStable = 0;
    return;
  }

  if (!exposure_stable_logged(curStats, prevStats, totalLength)) {
    aeStable = 0;
    return;
  }
  aeStable = 1;

  const std::int32_t n = windowLength;
  std::int32_t* const cur_log = cvector_current_working_memory;
  std::int32_t* const prev_log = cvector_prev_working_memory;
  std::int32_t* const prev_shifted = grad_current_working_memory;
  std::int32_t* const lap_cur = ovector_out_tmp_working_memory;
  std::int32_t* const lap_prev = cvector_out_tmp_working_memory;
  std::int32_t* const best = cvector_prev_full_working_memory;
  std::int32_t* const second = cvector_current_full_working_memory;
  for (std::int32_t w = 0; w < numWindows; ++w) {
    const std::int32_t base = w * n;
    for (std::int32_t i = 0; i < n; ++i) {
      cur_log[i] = log_of(curStats[base + i]);
      prev_log[i] = log_of(prevStats[base + i]);
    }
    convolve_Laplacian_filter_SONY(cur_log, lap_cur, n);
    for (std::int32_t i = 0; i < n; ++i) {
      avector_out_working_memory[base + i] = fx::wrap_sub32(cur_log[i], prev_log[i]);
    }
    if (base + n > avector_out_extent) avector_out_extent = base + n;
    const bool tabulated = n >= kMinTabulatedRows;
    if (tabulated) tabulate_shifts(prev_log, n);
    std::int32_t best_cost = 2147483647;
    std::int32_t second_cost = 2147483647;
    for (std::int32_t s = -kMaxShift; s <= kMaxShift; ++s) {
      const ShiftedWindow view(prev_log, n, s);
      std::int32_t cost = 0;
      if (tabulated) {
        cost = tabulated_cost(view, lap_cur, n);
      } else {
        subpixel_shift_vec_SONY(prev_log, prev_shifted, n, s, kShiftDen);
        convolve_Laplacian_filter_SONY(prev_shifted, lap_prev, n);
        // At most 1000 rows x 2650: the cost fits 32 bits.
        for (std::int32_t i = 0; i < n; ++i) cost += clipped_difference(lap_prev[i], lap_cur[i]);
      }
      // Ties go to the later shift, for the best and for the second best.
      std::int32_t* target = nullptr;
      if (cost <= best_cost) {
        for (std::int32_t i = 0; i < n; ++i) second[base + i] = best[base + i];
        target = best;
        win_offset[w] = s;
        second_cost = best_cost;
        best_cost = cost;
      } else if (cost <= second_cost) {
        target = second;
        second_cost = cost;
      }
      if (target != nullptr) {
        if (tabulated) {
          view.SubtractFrom(cur_log, target + base);
        } else {
          for (std::int32_t i = 0; i < n; ++i) {
            target[base + i] = fx::wrap_sub32(cur_log[i], prev_shifted[i]);
          }
        }
      }
    }
    if (tabulated) {
      // The scratch of the last shift, as shifting and filtering shift by shift leaves it.
      subpixel_shift_vec_SONY(prev_log, prev_shifted, n, kMaxShift, kShiftDen);
      convolve_Laplacian_filter_SONY(prev_shifted, lap_prev, n);
    }
  }

  if (offsets_spread(win_offset, numWindows)) alignFlag = 0;
  if (alignFlag != 0) {
    flicker_despike_SONY(avector_out_working_memory, ovector_out1_working_memory, totalLength);
    flicker_despike_SONY(best, cvector_current_down_working_memory, totalLength);
    flicker_despike_SONY(second, cvector_prev_down_working_memory, totalLength);
    flicker_compute_freq_3x_SONY(ovector_out1_working_memory, cvector_current_down_working_memory,
                                 cvector_prev_down_working_memory, numWindows, windowLength,
                                 freq_out);
    return;
  }
  if (g_logFlow != 0) PrintLogFlk("frame can't be registered reliably\n");
  alignFlag = 1;
  flicker_despike_SONY(avector_out_working_memory, ovector_out1_working_memory, totalLength);
  flicker_compute_freq_SONY(ovector_out1_working_memory, totalLength, freq_out);
}
