// SPDX-License-Identifier: Apache-2.0
// SONY tables: one statistics sample per line, 10-bit log table indexed directly.
#include "sony/sony.h"

#include <cmath>
#include <cstdlib>
#include <limits>

#include "decision/decision.h"
#include "fixed_point.h"
#include "interface/interface.h"
#include "standard/standard.h"

namespace {

// INIT geometry beyond these is refused: the tables would grow past any sensor's needs (9 x 65536
// trigonometric entries, about 2 M log entries at most).
constexpr std::int32_t kMaxColumnLength = 65536;
constexpr std::int32_t kMaxWindowWidth = 65536;

// V = (half x 1023) >> s, 64-bit, stored as 32 bits: the largest scaled statistic covered.
std::int32_t table_top(std::int32_t window_width, std::int32_t s) {
  const std::int64_t half = window_width >> 1;
  return fx::low32((half * 1024 - half) >> s);
}

// Log-table entries trunc(scale x log10(x) + 0.5) for rising x at a log10 per 1/256 of x's range
// instead of one per entry. From an anchor a, log10(x) continues as log10(a) + ln(1 + u) / ln 10
// with u = (x - a) / a below 2^-8 and ln(1 + u) to four terms: the series' error (u^5 / 5) and the
// rounding, libm's own included, stay below 1e-8 of an entry. Only a value within kGuard of a whole
// number could truncate differently, and there the entry is taken from the direct expression: the
// table is the direct expression's, entry for entry.
class LogEntries {
 public:
  explicit LogEntries(double scale) : scale_(scale), slope_(scale * 0.43429448190325182) {}

  std::int32_t operator()(std::int64_t x) {
    last_x_ = x;
    if (x < kFirstAnchor) return flicker_trunc_entry(Direct(x));
    if (x < anchor_ || x > anchor_end_) {
      anchor_ = x;
      anchor_end_ = x + (x >> 8);
      inverse_ = 1.0 / static_cast<double>(x);
      at_anchor_ = Direct(x);
    }
    const double u = static_cast<double>(x - anchor_) * inverse_;
    const double y = at_anchor_ + slope_ * (u * (1.0 - u * (0.5 - u * (1.0 / 3.0 - u * 0.25))));
    const auto below = static_cast<std::int32_t>(y - kGuard);
    if (below == static_cast<std::int32_t>(y + kGuard)) return below;
    return flicker_trunc_entry(Direct(x));
  }

  // The last entry's value before truncation, as the direct expression gives it.
  double Last() const { return Direct(last_x_); }

 private:
  static constexpr std::int64_t kFirstAnchor = 1024;  // below it, anchors would come every entry
  static constexpr double kGuard = 1e-6;

  double Direct(std::int64_t x) const { return scale_ * std::log10(static_cast<double>(x)) + 0.5; }

  double scale_;
  double slope_;  // scale / ln 10
  std::int64_t anchor_ = 0;
  std::int64_t anchor_end_ = -1;
  double inverse_ = 0.0;
  double at_anchor_ = 0.0;
  std::int64_t last_x_ = 0;
};

}  // namespace

void flicker_init_SONY(std::int32_t line_length, std::int32_t column_length,
                       std::int32_t window_width, double pclk) {
  if (g_logFlow != 0) {
    PrintLogFlk("flicker_init_SONY %d columnLen=%d winW = %d %d", line_length, column_length,
                window_width, flicker_clock_for_log(pclk));
  }
  if (column_length > kMaxColumnLength || window_width < 0 || window_width > kMaxWindowWidth ||
      !std::isfinite(pclk) || pclk <= 0.0) {
    flicker_uninit();
    LogRefusalFlk("flicker_init_SONY",
                  "column_length %d (at most %d), window_width %d (0..%d) or pclk %f (a positive "
                  "clock) out of range",
                  column_length, kMaxColumnLength, window_width, kMaxWindowWidth, pclk);
    return;
  }
  // W: column_length rounded up to a multiple of 256, at least 256.
  const std::int32_t width = ((column_length > 256 ? column_length : 256) + 255) & ~255;
  flicker_uninit();
  g_flkTab1 = static_cast<std::int32_t*>(std::calloc(9 * static_cast<std::size_t>(width), 4));
  g_flkTab2 = static_cast<std::int32_t*>(std::calloc(9 * static_cast<std::size_t>(width), 4));
  g_flkTabW = width;

  const std::int32_t s = flicker_range_shift(window_width);
  g_valuMax = table_top(window_width, s);
  g_flkCompTab =
      static_cast<std::int32_t*>(std::calloc(static_cast<std::size_t>(g_valuMax) + 2, 4));
  if (g_flkTab1 == nullptr || g_flkTab2 == nullptr || g_flkCompTab == nullptr) {
    flicker_uninit();
    LogRefusalFlk("flicker_init_SONY", "tables of %d columns and %d log entries not allocated",
                  width, g_valuMax + 2);
    return;
  }
  calCompTable_SONY(window_width, g_flkCompTab, s);
  calFftTable_SONY(line_length, width, 9, pclk, g_flkTab1, g_flkTab2);

  // A 10-bit statistic scaled by half the window width reaches 1023 x half; with s > 0 (or no
  // half at all) the table stops short of that and the alignment clamps to its last entry.
  const std::int64_t half = window_width >> 1;
  if (s > 0 || half < 1) {
    PrintLogFlk(
        "[flicker_init_SONY] window_width %d: statistics above %d use the log table's "
        "last entry",
        window_width, g_valuMax + 1);
  }
}

double calCompTable_SONY(std::int32_t window_width, std::int32_t* table, std::int32_t shift) {
  // The INIT passes 0..4; the knot outputs half << (8 + i - shift) need shift <= 9.
  if (shift < 0 || shift > 9) {
    LogRefusalFlk("calCompTable_SONY", "shift %d outside 0..9", shift);
    return 0.0;
  }
  // Divisor D = 16 + the number of left shifts that bring window_width >> 2 to bit 31
  // (47 - floor(log2(window_width >> 2))). Deliberately a shift count, not a bit count.
  std::int32_t divisor = 16;
  if (window_width >= 4) {
    std::uint32_t u = static_cast<std::uint32_t>(window_width) >> 2;
    do {
      ++divisor;
      u <<= 1;
    } while (static_cast<std::int32_t>(u) > 0);
  }
  const std::int32_t half = window_width >> 1;
  const std::int32_t top = table_top(window_width, shift);
  table[0] = 0;
  if (fx::wrap_add32(top, 2) < 2) return 0.0;

  // An entry is 65535 x log2(x) / D.
  const double scale = 65535.0 / divisor / kFlickerLog10Of2;
  // Knots of the tone curve on the 0..1023 scale; the thresholds scale with half >> s, the
  // segment divisors deliberately do not.
  static constexpr std::int32_t kKnot[7] = {80, 116, 168, 249, 353, 505, 722};
  static constexpr std::int64_t kWidth[8] = {80, 36, 52, 81, 104, 152, 217, 301};
  std::int32_t thr[7];
  std::int64_t base[8];
  base[0] = 0;
  for (std::int32_t i = 0; i < 7; ++i) {
    thr[i] = fx::wrap_mul32(half, kKnot[i]) >> shift;
    base[i + 1] = fx::wrap_shl32(half, 8 + (i + 1) - shift);  // the linear value doubles a knot
  }
  LogEntries entries(scale);
  std::int32_t seg = 0;
  std::int64_t v = 1;
  const std::int64_t last_v = std::int64_t{top} + 1;
  while (v <= last_v) {
    // An entry's segment is the first whose threshold it does not pass. The earlier segments'
    // thresholds are below v and stay below as v grows, so the segment holds up to its own
    // threshold, in order or not (a 32-bit wrap of half x knot breaks the order for direct
    // callers).
    while (seg < 7 && v > thr[seg]) ++seg;
    const std::int64_t end = seg < 7 && thr[seg] < last_v ? thr[seg] : last_v;
    // from is below v, so the quotient is of positive values and is carried from entry to entry
    // instead of divided anew.
    const std::int64_t from = seg == 0 ? 0 : thr[seg - 1];
    // Slope 512 x 2^(seg - 1) per segment width (512 for the first two segments).
    const std::int64_t gain = std::int64_t{512} << (seg == 0 ? 0 : seg - 1);
    const std::int64_t width = kWidth[seg];
    const std::int64_t step_q = gain / width, step_r = gain % width;
    std::int64_t q = gain * (v - from) / width, r = gain * (v - from) % width;
    for (; v <= end; ++v) {
      table[v] = entries(base[seg] + q);
      q += step_q;
      r += step_r;
      if (r >= width) {
        r -= width;
        ++q;
      }
    }
  }
  return entries.Last();
}

void calFftTable_SONY(std::int32_t line_length, std::int32_t width, std::int32_t count, double pclk,
                      std::int32_t* cosTable, std::int32_t* sinTable) {
  if (count < 1 || width < 1) return;
  // One statistic per sensor line: line n is sampled n x line_length / pclk after line 0. The
  // 2 pi constant is kept at eleven decimals.
  constexpr std::int32_t kMaxRows = 9;
  double omega[kMaxRows];
  const std::int32_t rows = count < kMaxRows ? count : kMaxRows;
  for (std::int32_t k = 0; k < rows; ++k) {
    omega[k] = (g_flickerFreq[k] * kFlickerTwoPi * line_length) / pclk;
  }
  for (std::int32_t k = 0; k < rows; ++k) {
    double n = 0.0;
    std::int32_t* row = cosTable + static_cast<std::int64_t>(k) * width;
    for (std::int32_t i = 0; i < width; ++i, n += 1.0)
      row[i] = flicker_round_entry(255.0 * std::cos(omega[k] * n));
  }
  for (std::int32_t k = 0; k < rows; ++k) {
    double n = 0.0;
    std::int32_t* row = sinTable + static_cast<std::int64_t>(k) * width;
    for (std::int32_t i = 0; i < width; ++i, n += 1.0)
      row[i] = flicker_round_entry(255.0 * std::sin(omega[k] * n));
  }
}
