// SPDX-License-Identifier: Apache-2.0
// 2x5 tables: one statistics sample per block of lines, pure-logarithm log table.
#include "twobyfive/twobyfive.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "decision/decision.h"
#include "fixed_point.h"
#include "interface/interface.h"
#include "sony/sony.h"
#include "standard/standard.h"

namespace {

// Far beyond any sensor; keeps 9 x W and the table allocations sane.
constexpr std::int32_t kMaxColumnLength = 65535;
// A x 4095 + 8192 must stay a positive 32-bit value (g_valuMax and the log table's top).
constexpr std::int64_t kMaxPixelsPerStatistic = (INT32_MAX - 8192) / 4095;

double seconds_since(std::chrono::steady_clock::time_point start) {
  const auto ns =
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start)
          .count();
  return static_cast<double>(ns) / 1000000000.0;
}

}  // namespace

void flicker_init_2x5(std::int32_t line_length, std::int32_t column_length,
                      std::int32_t window_width, std::int32_t block_height, std::int32_t green_only,
                      double pclk) {
  if (g_logFlow) {
    PrintLogFlk("flicker_init_2x5 %d columnLen=%d winW = %d %d", line_length, column_length,
                window_width, flicker_clock_for_log(pclk));
  }
  const std::int64_t pixels = std::int64_t{block_height} * window_width;
  const std::int64_t summed = green_only != 0 ? pixels / 2 : pixels;
  if (column_length > kMaxColumnLength || block_height < 0 || window_width < 0 ||
      pixels > INT32_MAX || summed > kMaxPixelsPerStatistic) {
    flicker_uninit();
    LogRefusalFlk("flicker_init_2x5",
                  "column_length %d (limit %d) or block_height %d x window_width %d "
                  "(limit %lld pixels per statistic)",
                  column_length, kMaxColumnLength, block_height, window_width,
                  static_cast<long long>(kMaxPixelsPerStatistic));
    return;
  }

  // Always 1..256 entries beyond a non-negative column length.
  const std::int32_t width = ((column_length > 255 ? column_length : 255) & 0x7fffff00) + 256;
  flicker_uninit();
  g_flkTab1 = static_cast<std::int32_t*>(std::calloc(9 * static_cast<std::size_t>(width), 4));
  g_flkTab2 = static_cast<std::int32_t*>(std::calloc(9 * static_cast<std::size_t>(width), 4));

  std::int32_t area = block_height * window_width;  // fits: bounded above
  if (green_only != 0) area /= 2;
  g_valuMax = fx::wrap_sub32(fx::wrap_mul32(area, 4096), area);  // A x 4095 in 32 bits
  g_flkTabW = width;
  const std::int32_t top = (g_valuMax + 8192) & ~4095;
  const std::int32_t entries = (g_valuMax + 8192) >> 12;
  g_flkCompTab = static_cast<std::int32_t*>(std::calloc(static_cast<std::size_t>(entries), 4));
  if (g_flkTab1 == nullptr || g_flkTab2 == nullptr || g_flkCompTab == nullptr) {
    flicker_uninit();
    LogRefusalFlk("flicker_init_2x5", "out of memory for tables of width %d and %d log entries",
                  width, entries);
    return;
  }

  const auto start = std::chrono::steady_clock::now();
  // Subtracting the grid shift 12 from the top value is how this table has always been scaled.
  const double bits = std::log2(static_cast<double>(top - 12));
  if (top >= 1) {
    const double scale = 65535.0 / bits / kFlickerLog10Of2;
    for (std::int32_t j = 0; std::int64_t{j} * 4096 < top; ++j) {
      g_flkCompTab[j] = flicker_trunc_entry(scale * std::log10(4096.0 * j + 1) + 0.5);
    }
  }
  std::printf("log table exec time = %f\n", seconds_since(start));

  calFftTable_2x5(fx::wrap_mul32(block_height, line_length), width, 9, pclk, g_flkTab1, g_flkTab2);
}

void calLogTable_2x5(std::int32_t value_max, std::int32_t* table, std::int32_t shift) {
  if (shift < 0 || shift > 30) return;  // no grid step of that size
  const std::int32_t top = fx::wrap_shl32(fx::wrap_add32(value_max >> shift, 2), shift);
  if (top < 1) return;
  const double bits = std::log2(static_cast<double>(top) - shift);
  const double scale = 65535.0 / bits / kFlickerLog10Of2;
  for (std::int64_t i = 0; (i << shift) < top; ++i) {
    table[i] = flicker_trunc_entry(scale * std::log10(static_cast<double>(i << shift) + 1.0) + 0.5);
  }
}

void calFftTable_2x5(std::int32_t sample_interval, std::int32_t width, std::int32_t count,
                     double pclk, std::int32_t* cosTable, std::int32_t* sinTable) {
  // The SONY tables' builder with one sample per block of lines instead of one per line.
  calFftTable_SONY(sample_interval, width, count, pclk, cosTable, sinTable);
}
