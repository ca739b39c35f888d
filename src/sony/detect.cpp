// SPDX-License-Identifier: Apache-2.0
// SONY detection driver: tone curve, width scaling, column selection and the sequential test.
#include "sony/sony.h"

#include <cstdio>
#include <vector>

#include "decision/decision.h"
#include "fixed_point.h"
#include "interface/interface.h"
#include "standard/standard.h"

namespace {

// The gamma-like tone curve: seven knots doubling in input, an end value of 2^outBits (not
// 2^outBits - 1) and a clip to 2^outBits - 1. Unsigned 64-bit products and shifts.
struct ToneCurve {
  std::int32_t bits;         // inBits
  std::uint64_t top = 0;     // 2^outBits - 1
  std::uint64_t y[9] = {};   // y[1..7] knot outputs, y[8] = 2^outBits
  std::uint64_t in_max = 0;  // 2^inBits - 1

  constexpr ToneCurve(std::int32_t in_bits, std::int32_t out_bits) : bits(in_bits) {
    constexpr std::uint64_t kKnotP[7] = {20, 29, 42, 62, 88, 126, 180};
    top = (std::uint64_t{1} << out_bits) - 1;
    y[0] = 0;
    for (std::int32_t k = 0; k < 7; ++k) y[k + 1] = (top * kKnotP[k] + 127) / 255;
    y[8] = std::uint64_t{1} << out_bits;
    in_max = (std::uint64_t{1} << in_bits) - 1;
  }

  constexpr std::int32_t operator()(std::int32_t value) const {
    // A negative value reads as huge and clips to the top input.
    std::uint64_t v = static_cast<std::uint32_t>(value);
    if (v > in_max) v = in_max;
    // Segment 0 spans x_1 = 2^(b-7) inputs: slope y1 / x_1 with rounding half up.
    const std::int32_t first_log2 = bits - 7;
    if (v <= (std::uint64_t{1} << first_log2)) {
      return static_cast<std::int32_t>((v * y[1] + (std::uint64_t{1} << (bits - 8))) >> first_log2);
    }
    // Segment k spans x_k = 2^(b-8+k) inputs, from x_k to 2 x_k.
    std::int32_t k = 1;
    while (k < 7 && v > (std::uint64_t{2} << (bits - 8 + k))) ++k;
    const std::int32_t width_log2 = bits - 8 + k;
    const std::uint64_t from = std::uint64_t{1} << width_log2;
    std::uint64_t out = y[k] + (((v - from) * (y[k + 1] - y[k]) + (from >> 1)) >> width_log2);
    if (out > top) out = top;
    return static_cast<std::int32_t>(out);
  }
};

// The driver's 10-bit to 10-bit curve, tabulated at compile time: every input clips to 0..1023.
struct ToneTable {
  std::int32_t out[1024];
  constexpr ToneTable() : out() {
    const ToneCurve curve(10, 10);
    for (std::int32_t v = 0; v < 1024; ++v) out[v] = curve(v);
  }
  std::int32_t operator()(std::int32_t value) const {
    const std::uint32_t v = static_cast<std::uint32_t>(value);
    return out[v < 1023u ? v : 1023u];
  }
};
constexpr ToneTable kTone10;

// A band is at most 1000 rows of 10 columns, within the transposition buffer.
static_assert(kSonyMaxWindowRows * kSonyMaxColumns <= kSonyMaxBandValues);

// Every DETECT limit of the type-1 buffers, in one place. Returns false with the reason in `why`.
bool geometry_fits(std::int32_t n_win_h, std::int32_t n_win_w, std::int32_t win_ht, char* why,
                   std::size_t size) {
  if (n_win_h < 0 || n_win_h > kSonyMaxWindows) {
    std::snprintf(why, size, "n_win_h %d outside 0..%d windows", n_win_h, kSonyMaxWindows);
    return false;
  }
  if (n_win_w < 1 || n_win_w > kSonyMaxColumns) {
    std::snprintf(why, size, "n_win_w %d outside 1..%d columns", n_win_w, kSonyMaxColumns);
    return false;
  }
  if (win_ht < 0) {
    std::snprintf(why, size, "win_ht %d negative", win_ht);
    return false;
  }
  if (n_win_h == 0) return true;  // nothing to select: the exposure check rejects the frame
  if (win_ht < kSonyMinWindowRows || win_ht > kSonyMaxWindowRows) {
    std::snprintf(why, size, "win_ht %d outside %d..%d rows per window", win_ht, kSonyMinWindowRows,
                  kSonyMaxWindowRows);
    return false;
  }
  const std::int32_t rows = win_ht * n_win_h;
  if (rows > kSonyMaxRows || rows < kSonyMinRows) {
    std::snprintf(why, size, "frame of %d rows outside %d..%d", rows, kSonyMinRows, kSonyMaxRows);
    return false;
  }
  return true;
}

// Column choice of every band of `cur` (already transformed), made on the transposed band.
void choose_columns(const std::int32_t* cur, std::int32_t n_win_h, std::int32_t n_win_w,
                    std::int32_t win_ht, std::int32_t* cols) {
  // 64-bit: a frame without bands passes the geometry check with win_ht unbounded.
  const std::int64_t band = std::int64_t{win_ht} * n_win_w;
  for (std::int32_t b = 0; b < n_win_h; ++b) {
    const std::int32_t* src = cur + b * band;
    for (std::int32_t r = 0; r < win_ht; ++r) {
      for (std::int32_t c = 0; c < n_win_w; ++c) {
        cvector_out_working_memory[c * win_ht + r] = src[r * n_win_w + c];
      }
    }
    cols[b] = find_vector_SONY(cvector_out_working_memory, win_ht, n_win_w, 0, 358400);
  }
}

void copy_columns(const std::int32_t* prev, const std::int32_t* cur, std::int32_t n_win_h,
                  std::int32_t n_win_w, std::int32_t win_ht, const std::int32_t* cols,
                  std::int32_t* out_prev, std::int32_t* out_cur) {
  const std::int64_t band = std::int64_t{win_ht} * n_win_w;  // unbounded without bands, as above
  for (std::int32_t b = 0; b < n_win_h; ++b) {
    const std::int32_t* src_prev = prev + b * band + cols[b];
    const std::int32_t* src_cur = cur + b * band + cols[b];
    std::int32_t* dst_prev = out_prev + b * win_ht;
    std::int32_t* dst_cur = out_cur + b * win_ht;
    for (std::int32_t r = 0; r < win_ht; ++r) {
      dst_cur[r] = src_cur[r * n_win_w];
      dst_prev[r] = src_prev[r * n_win_w];
    }
  }
}

// With one column the choice falls back to column 1, past the grid, when the column's mean is not
// positive. Predicted on the untouched grid (`seen` maps a grid value to what the chooser will
// see) so that a refusal leaves the caller's buffers and the working memories as they were.
template <typename Seen>
std::int32_t dark_single_column_band(const std::int32_t* cur, std::int32_t n_win_h,
                                     std::int32_t win_ht, Seen seen) {
  for (std::int32_t b = 0; b < n_win_h; ++b) {
    std::int64_t sum = 0;  // 64-bit: at most 1000 values of 32 bits
    for (std::int32_t r = 0; r < win_ht; ++r) sum += seen(cur[b * win_ht + r]);
    if (fx::low32(sum / win_ht) <= 0) return b;
  }
  return -1;
}

}  // namespace

void SGG_adaptive_SONY(std::int32_t* in, std::int32_t* out, std::int32_t n, std::int32_t inBits,
                       std::int32_t outBits) {
  // The knot layout needs 2^(inBits-8) >= 1; outputs must fit 32 bits.
  if (inBits < 8 || inBits > 31 || outBits < 1 || outBits > 30) {
    LogRefusalFlk("SGG_adaptive_SONY", "inBits %d (8..31) or outBits %d (1..30) out of range",
                  inBits, outBits);
    return;
  }
  if (inBits == 10 && outBits == 10) {
    for (std::int32_t i = 0; i < n; ++i) out[i] = kTone10(in[i]);
    return;
  }
  const ToneCurve curve(inBits, outBits);
  for (std::int32_t i = 0; i < n; ++i) out[i] = curve(in[i]);
}

std::int32_t find_vector_SONY(std::int32_t* cols, std::int32_t len, std::int32_t ncols,
                              std::int32_t thr, std::int32_t minMean) {
  return flicker_choose_column(cols, len, ncols, thr, minMean, -1);
}

std::int32_t flicker_choose_column(std::int32_t* cols, std::int32_t len, std::int32_t ncols,
                                   std::int32_t thr, std::int32_t minMean, std::int32_t reference) {
  if (ncols < 1) return 1;
  // The driver passes at most kSonyMaxColumns; other callers may pass more.
  std::int32_t fixed_mean[kSonyMaxColumns];
  std::int32_t fixed_count[kSonyMaxColumns];
  std::vector<std::int32_t> wide_mean;
  std::vector<std::int32_t> wide_count;
  std::int32_t* mean = fixed_mean;
  std::int32_t* count = fixed_count;
  if (ncols > kSonyMaxColumns) {
    wide_mean.resize(static_cast<std::size_t>(ncols));
    wide_count.resize(static_cast<std::size_t>(ncols));
    mean = wide_mean.data();
    count = wide_count.data();
  }
  const std::int32_t neg_thr = fx::wrap_neg32(thr);
  for (std::int32_t c = 0; c < ncols; ++c) {
    std::int32_t* col = cols + static_cast<std::int64_t>(c) * (len > 0 ? len : 0);
    mean[c] = len > 0 ? fx::low32(fx::sum64(col, len) / len) : 0;
    for (std::int32_t i = 0; i < len; ++i) col[i] = fx::wrap_sub32(col[i], mean[c]);
    // Sign swings across the dead band between neighbouring rows; a zero breaks a swing.
    std::int32_t swings = 0;
    for (std::int32_t i = 1; i < len; ++i) {
      // Non-short-circuit tests, so the loop vectorises.
      const bool rise = (col[i - 1] < neg_thr) & (col[i] > thr);
      const bool fall = (col[i - 1] > thr) & (col[i] < neg_thr);
      swings += static_cast<std::int32_t>(rise | fall);
    }
    count[c] = swings;
  }
  bool all_equal = true;
  bool all_dark = true;
  for (std::int32_t c = 0; c < ncols; ++c) {
    if (count[c] != count[0]) all_equal = false;
    if (mean[c] >= minMean) all_dark = false;
  }
  if (!all_equal && !all_dark) {
    // The quietest column wins unless a brighter one is within the margin. The sums wrap in 32
    // bits: while the best count is 0x7fffffff, best + margin is negative for a positive margin.
    const std::int32_t margin = len / 30;
    std::int32_t best_count = 0x7fffffff;
    std::int32_t best_mean = 0;
    if (reference >= 0 && reference < ncols) {
      best_count = count[reference];
      best_mean = mean[reference];
    }
    // The answer starts at column 1 whatever the reference: when no column beats it, column 1.
    std::int32_t result = 1;
    for (std::int32_t c = 0; c < ncols; ++c) {
      if (count[c] < fx::wrap_sub32(best_count, margin) &&
          mean[c] > fx::wrap_sub32(best_mean, 51)) {
        result = c;
        best_count = count[c];
        best_mean = mean[c];
      } else if (count[c] <= fx::wrap_add32(best_count, margin) && mean[c] > best_mean) {
        result = c;
        best_count = count[c];
        best_mean = mean[c];
      }
    }
    return result;
  }
  // Equal swing counts or a dark frame: the brightest column, if any is above 0.
  std::int32_t result = 1;
  std::int32_t best_mean = 0;
  for (std::int32_t c = 0; c < ncols; ++c) {
    if (mean[c] > best_mean) {
      best_mean = mean[c];
      result = c;
    }
  }
  return result;
}

void vector_selection_SONY(const std::int32_t* prev, const std::int32_t* cur, std::int32_t n_win_h,
                           std::int32_t n_win_w, std::int32_t, std::int32_t win_ht, std::int32_t*,
                           std::int32_t* outPrev, std::int32_t* outCur) {
  char why[96];
  if (!geometry_fits(n_win_h, n_win_w, win_ht, why, sizeof why)) {
    LogRefusalFlk("vector_selection_SONY", "%s", why);
    return;
  }
  if (n_win_w == 1) {
    const std::int32_t dark =
        dark_single_column_band(cur, n_win_h, win_ht, [](std::int32_t v) { return v; });
    if (dark >= 0) {
      LogRefusalFlk("vector_selection_SONY", "band %d chose column 1 past the grid's 1", dark);
      return;
    }
  }
  std::int32_t cols[kSonyMaxWindows];
  choose_columns(cur, n_win_h, n_win_w, win_ht, cols);
  copy_columns(prev, cur, n_win_h, n_win_w, win_ht, cols, outPrev, outCur);
}

std::int32_t detectFlicker_SW_SONY(std::int32_t* prev, std::int32_t* cur, std::int32_t n_win_h,
                                   std::int32_t n_win_w, std::int32_t win_wd, std::int32_t win_ht,
                                   std::int32_t, FlkSensorInfo, FlkEISVector, FlkAEInfo,
                                   std::int32_t*) {
  // Every limit is checked before the caller's grids are rewritten.
  char why[96];
  if (g_flkTab1 == nullptr || g_flkTab2 == nullptr || g_flkCompTab == nullptr) {
    LogRefusalFlk("detectFlicker_SW_SONY", "no tables, result %d", g_flickerResult);
    return g_flickerResult;
  }
  if (!geometry_fits(n_win_h, n_win_w, win_ht, why, sizeof why)) {
    LogRefusalFlk("detectFlicker_SW_SONY", "%s, result %d", why, g_flickerResult);
    return g_flickerResult;
  }
  const std::int32_t rows = win_ht * n_win_h;
  if (rows > g_flkTabW) {
    LogRefusalFlk("detectFlicker_SW_SONY", "frame of %d rows longer than the tables' %d, result %d",
                  rows, g_flkTabW, g_flickerResult);
    return g_flickerResult;
  }
  if (n_win_w == 1) {
    const std::int32_t factor = win_wd / 2;
    const std::int32_t dark =
        dark_single_column_band(cur, n_win_h, win_ht, [win_wd, factor](std::int32_t v) {
          return win_wd == 2 ? kTone10(v) : fx::wrap_mul32(kTone10(v), factor);
        });
    if (dark >= 0) {
      LogRefusalFlk("detectFlicker_SW_SONY",
                    "band %d of the single column has no positive mean to choose it by, "
                    "result %d",
                    dark, g_flickerResult);
      return g_flickerResult;
    }
  }

  const std::int32_t total = rows * n_win_w;
  SGG_adaptive_SONY(prev, prev, total, 10, 10);
  SGG_adaptive_SONY(cur, cur, total, 10, 10);
  // Width normalisation: 0 or 1 zeroes the grids, deliberately unguarded.
  if (win_wd != 2 && total >= 1) {
    const std::int32_t factor = win_wd / 2;
    for (std::int32_t i = 0; i < total; ++i) {
      prev[i] = fx::wrap_mul32(prev[i], factor);
      cur[i] = fx::wrap_mul32(cur[i], factor);
    }
  }

  std::int32_t cols[kSonyMaxWindows];
  choose_columns(cur, n_win_h, n_win_w, win_ht, cols);
  copy_columns(prev, cur, n_win_h, n_win_w, win_ht, cols, line_prev_working_memory,
               line_curr_working_memory);
  PrintLineDataFlk(line_prev_working_memory, line_curr_working_memory, rows, true);

  std::int32_t freq_out[9];
  std::int32_t ae_stable = 0;
  std::int32_t align_flag = 0;
  align_flicker_SONY_subpixel(line_curr_working_memory, line_prev_working_memory, n_win_h, win_ht,
                              0, rows, freq_out, ae_stable, align_flag);
  if (g_logFlow != 0) {
    PrintLogFlk("Freq_out = %d, %d, %d, %d, %d, %d, %d, %d, %d\n", freq_out[0], freq_out[1],
                freq_out[2], freq_out[3], freq_out[4], freq_out[5], freq_out[6], freq_out[7],
                freq_out[8]);
  }
  const std::int8_t is_valid = (ae_stable != 0 && align_flag != 0) ? 1 : 0;
  return test_next_frame(freq_out, 9, is_valid, static_cast<std::uint32_t>(g_maxPastFrames));
}
