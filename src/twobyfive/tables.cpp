// SPDX-License-Identifier: Apache-2.0
// 2x5 tables: one statistics sample per block of lines, pure-logarithm log table.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "decision/decision.h"
#include "fixed_point.h"
#include "interface/interface.h"
#include "standard/standard.h"
#include "twobyfive/twobyfive.h"

namespace {

// 2 pi to eleven decimals, as the tables of every pipeline use it.
constexpr double kTwoPi = 6.28318530718;
constexpr double kLog10Of2 = 0.3010299956639812;
// Far beyond any sensor; keeps 9 x W and the table allocations sane.
constexpr std::int32_t kMaxColumnLength = 65535;
// A x 4095 + 8192 must stay a positive 32-bit value (g_valuMax and the log table's top).
constexpr std::int64_t kMaxPixelsPerStatistic = (INT32_MAX - 8192) / 4095;

// trunc(x) as a 32-bit value; NaN gives 0 and out-of-range values saturate (a zero pixel clock
// yields non-finite phases, whose conversion would otherwise be undefined).
std::int32_t trunc_to_int32(double x) {
  if (std::isnan(x)) return 0;
  if (x >= 2147483647.0) return INT32_MAX;
  if (x <= -2147483648.0) return INT32_MIN;
  return static_cast<std::int32_t>(x);
}

// Rounds half away from zero.
std::int32_t round_away(double x) {
  return x >= 0 ? trunc_to_int32(x + 0.5) : -trunc_to_int32(std::fabs(x) + 0.5);
}

double seconds_since(std::chrono::steady_clock::time_point start) {
  const auto ns =
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start)
          .count();
  return static_cast<double>(ns) / 1000000000.0;
}

void free_tables() {
  std::free(g_flkTab1);
  std::free(g_flkTab2);
  std::free(g_flkCompTab);
  g_flkTab1 = nullptr;
  g_flkTab2 = nullptr;
  g_flkCompTab = nullptr;
}

}  // namespace

void flicker_init_2x5(std::int32_t line_length, std::int32_t column_length,
                      std::int32_t window_width, std::int32_t block_height, std::int32_t green_only,
                      double pclk) {
  const std::int64_t pixels = std::int64_t{block_height} * window_width;
  const std::int64_t summed = green_only != 0 ? pixels / 2 : pixels;
  if (column_length > kMaxColumnLength || block_height < 0 || window_width < 0 ||
      pixels > INT32_MAX || summed > kMaxPixelsPerStatistic) {
    free_tables();
    LogRefusalFlk("flicker_init_2x5",
                  "column_length %d (limit %d) or block_height %d x window_width %d "
                  "(limit %lld pixels per statistic)",
                  column_length, kMaxColumnLength, block_height, window_width,
                  static_cast<long long>(kMaxPixelsPerStatistic));
    return;
  }

  // Always 1..256 entries beyond a non-negative column length.
  const std::int32_t width = ((column_length > 255 ? column_length : 255) & 0x7fffff00) + 256;
  if (g_logFlow) {
    PrintLogFlk("flicker_init_2x5 %d columnLen=%d winW = %d %d", line_length, column_length,
                window_width, trunc_to_int32(pclk));
  }
  free_tables();
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
    free_tables();
    LogRefusalFlk("flicker_init_2x5", "out of memory for tables of width %d and %d log entries",
                  width, entries);
    return;
  }

  const auto start = std::chrono::steady_clock::now();
  // Subtracting the grid shift 12 from the top value is how this table has always been scaled.
  const double bits = std::log2(static_cast<double>(top - 12));
  if (top >= 1) {
    const double scale = 65535.0 / bits / kLog10Of2;
    for (std::int32_t j = 0; std::int64_t{j} * 4096 < top; ++j) {
      g_flkCompTab[j] = trunc_to_int32(scale * std::log10(4096.0 * j + 1) + 0.5);
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
  const double scale = 65535.0 / bits / kLog10Of2;
  for (std::int64_t i = 0; (i << shift) < top; ++i) {
    table[i] = trunc_to_int32(scale * std::log10(static_cast<double>(i << shift) + 1.0) + 0.5);
  }
}

void calFftTable_2x5(std::int32_t sample_interval, std::int32_t width, std::int32_t count,
                     double pclk, std::int32_t* cosTable, std::int32_t* sinTable) {
  if (count < 1) return;
  if (count > 9) {
    LogRefusalFlk("calFftTable_2x5", "%d rows, only 9 candidate frequencies", count);
    return;
  }
  std::vector<double> step(static_cast<std::size_t>(count));
  for (std::int32_t k = 0; k < count; ++k) {
    step[k] = g_flickerFreq[k] * kTwoPi * sample_interval / pclk;
  }
  for (std::int32_t k = 0; k < count; ++k) {
    double n = 0.0;
    for (std::int32_t i = 0; i < width; ++i, n += 1.0) {
      cosTable[k * width + i] = round_away(255.0 * std::cos(step[k] * n));
    }
  }
  for (std::int32_t k = 0; k < count; ++k) {
    double n = 0.0;
    for (std::int32_t i = 0; i < width; ++i, n += 1.0) {
      sinTable[k * width + i] = round_away(255.0 * std::sin(step[k] * n));
    }
  }
}
