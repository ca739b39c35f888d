// SPDX-License-Identifier: Apache-2.0
// Standard tables: the cosine/sine tables at the statistics rows' instants and the log table.
#include "standard/standard.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "decision/decision.h"
#include "fixed_point.h"
#include "interface/interface.h"

std::int32_t* g_flkTab1 = nullptr;
std::int32_t* g_flkTab2 = nullptr;
std::int32_t* g_flkCompTab = nullptr;
std::int32_t g_flkTabW = 0;
std::int32_t g_valuMax = 0;

namespace {

// Geometry accepted at INIT. Beyond these the tables stop meaning anything or get huge:
// column_length 65536 lines gives W = 16500 (1.2 MB of trigonometric tables); a window of 65535
// pixels keeps half x 46260 (the top log-table knot, 32-bit) below 2^31; a pixel clock of at
// least 1 Hz keeps every phase finite, so cos/sin never see infinity.
constexpr std::int32_t kMaxColumnLength = 65536;
constexpr std::int32_t kMaxWindowWidth = 65535;
constexpr double kMinPclk = 1.0;

constexpr std::int32_t kFreqCount = 9;

// W: one statistics sample per four lines, rounded up to a multiple of 500, at least 500.
std::int32_t table_width(std::int32_t column_length) {
  std::int32_t c = static_cast<std::int32_t>(std::ceil(column_length * 0.25));
  if (c <= 500) c = 500;
  return static_cast<std::int32_t>((static_cast<std::uint32_t>(c) - 1u) / 500u * 500u + 500u);
}

// Largest statistic covered: (half x 65535) >> s, 64-bit, kept as 32 bits.
std::int32_t value_max(std::int32_t window_width) {
  const std::int64_t half = window_width >> 1;
  return fx::low32((half * 65536 - half) >> flicker_range_shift(window_width));
}

}  // namespace

// s keeps the linearised range of half a window of full-scale samples near that of a narrow one.
std::int32_t flicker_range_shift(std::int32_t window_width) {
  if (window_width > 4095) return 4;
  if (window_width > 2047) return 3;
  if (window_width > 1023) return 2;
  if (window_width > 511) return 1;
  return 0;
}

std::int32_t flicker_trunc_entry(double x) {
  if (std::isnan(x)) return 0;
  if (x >= 2147483647.0) return INT32_MAX;
  if (x <= -2147483648.0) return INT32_MIN;
  return static_cast<std::int32_t>(x);
}

std::int32_t flicker_round_entry(double x) {
  if (!std::isfinite(x)) return 0;
  return x >= 0.0 ? flicker_trunc_entry(x + 0.5) : -flicker_trunc_entry(-x + 0.5);
}

std::int32_t flicker_clock_for_log(double pclk) {
  if (!(pclk > -2147483649.0 && pclk < 2147483648.0)) return INT32_MIN;
  return static_cast<std::int32_t>(pclk);
}

void flk_getTablSize(std::int32_t, std::int32_t column_length, std::int32_t* width,
                     std::int32_t* count) {
  *width = table_width(column_length);
  *count = kFreqCount;
}

void calFlickerTable(std::int32_t line_length, std::int32_t column_length, double pclk,
                     std::int32_t window_width, std::int32_t* cosTable, std::int32_t* sinTable,
                     std::int32_t* logTable) {
  const std::int32_t w = table_width(column_length);

  // Statistics sample n is taken 4 n line_length / pclk after the first. The 2 pi constant is
  // the eleven-decimal one and the operation order is fixed: the tables are compared entry by
  // entry with those of other builds.
  const auto fill = [&](std::int32_t* table, auto wave) {
    for (std::int32_t k = 0; k < kFreqCount; ++k) {
      const double omega4 = static_cast<double>(g_flickerFreq[k]) * kFlickerTwoPi * 2.0 * 2.0;
      std::int32_t* row = table + k * w;
      for (std::int32_t n = 0; n < w; ++n) {
        row[n] = flicker_round_entry(255.0 * wave(omega4 * line_length * n / pclk));
      }
    }
  };
  fill(cosTable, [](double phase) { return std::cos(phase); });
  fill(sinTable, [](double phase) { return std::sin(phase); });

  const auto start = std::chrono::steady_clock::now();
  const std::int32_t s = flicker_range_shift(window_width);
  const std::int32_t half = window_width >> 1;
  const std::int32_t v_max = value_max(window_width);
  const std::int32_t n_entries = (v_max >> 12) + 2;
  if (static_cast<std::int64_t>(v_max >> 12) * 4096 + 8192 >= 1) {
    // Knots of the sensor's companding curve on a 0..255 scale (20, 29, 42, 62, 88, 126, 180),
    // scaled by 257 to 16 bits and by half a window. 32-bit: half <= 32767 keeps 46260 x half
    // below 2^31.
    static constexpr std::int32_t kKnotQ16[7] = {5140, 7453, 10794, 15934, 22616, 32382, 46260};
    // 257 x the width of each segment on the 0..255 scale.
    static constexpr std::int64_t kSegmentDiv[8] = {5140, 2313, 3341,  5140,
                                                    6682, 9766, 13878, 19275};
    std::int32_t t[7];
    std::int32_t base[8];  // linear value at the start of each segment; doubles per knot
    base[0] = 0;
    for (std::int32_t i = 0; i < 7; ++i) {
      t[i] = fx::wrap_mul32(half, kKnotQ16[i]) >> s;
      base[i + 1] = fx::wrap_shl32(half, 9 + i - s);
    }
    for (std::int32_t j = 0; j < n_entries; ++j) {
      const std::int64_t x = std::int64_t{4096} * j;
      std::int32_t seg = 0;
      while (seg < 7 && x > t[seg]) ++seg;
      const std::int64_t from = seg == 0 ? 0 : t[seg - 1];
      // Segment seg has slope 2^(9 + seg) / divisor: each knot doubles the linear gain.
      const std::int64_t rise = (std::int64_t{512} << (seg == 0 ? 0 : seg - 1)) * (x - from);
      const std::int32_t y = fx::wrap_add32(base[seg], fx::low32(rise / kSegmentDiv[seg]));
      // 65535 / log10(2^24): a linear value of 2^24 maps to full scale.
      logTable[j] = static_cast<std::int32_t>(std::log10(y + 1.0) * 9070.939904101804 + 0.5);
    }
  }
  const auto stop = std::chrono::steady_clock::now();
  const auto elapsed_ns =
      std::chrono::duration_cast<std::chrono::nanoseconds>(stop - start).count();
  std::printf("\ntime: %f\nsize: %d\n", static_cast<double>(elapsed_ns) / 1000000000.0, n_entries);
}

void flicker_init(std::int32_t line_length, std::int32_t column_length, std::int32_t window_width,
                  double pclk) {
  if (g_logFlow) {
    PrintLogFlk("flicker_init %d columnLen=%d winW = %d %d", line_length, column_length,
                window_width, flicker_clock_for_log(pclk));
  }
  flicker_uninit();

  bool refused = true;
  if (column_length < 0 || column_length > kMaxColumnLength) {
    LogRefusalFlk("flicker_init", "column_length %d outside 0..%d", column_length,
                  kMaxColumnLength);
  } else if (window_width < 0 || window_width > kMaxWindowWidth) {
    LogRefusalFlk("flicker_init", "window_width %d outside 0..%d", window_width, kMaxWindowWidth);
  } else if (!(pclk >= kMinPclk) || !std::isfinite(pclk)) {
    LogRefusalFlk("flicker_init", "pclk %f below %.0f Hz or not finite", pclk, kMinPclk);
  } else {
    refused = false;
  }
  if (refused) {
    // No tables and no width: every later DETECT of this type is refused.
    g_flkTabW = 0;
    g_valuMax = 0;
    return;
  }

  const std::int32_t w = table_width(column_length);
  // Zeroed like the rest of the library's tables; flicker_uninit releases them with free().
  g_flkTab1 = static_cast<std::int32_t*>(std::calloc(kFreqCount * w, sizeof(std::int32_t)));
  g_flkTab2 = static_cast<std::int32_t*>(std::calloc(kFreqCount * w, sizeof(std::int32_t)));
  g_flkTabW = w;

  g_valuMax = value_max(window_width);
  g_flkCompTab =
      static_cast<std::int32_t*>(std::calloc((g_valuMax + 8192) >> 12, sizeof(std::int32_t)));

  calFlickerTable(line_length, column_length, pclk, window_width, g_flkTab1, g_flkTab2,
                  g_flkCompTab);
}

void flicker_uninit() {
  std::free(g_flkTab1);
  std::free(g_flkTab2);
  std::free(g_flkCompTab);
  g_flkTab1 = nullptr;
  g_flkTab2 = nullptr;
  g_flkCompTab = nullptr;
}
