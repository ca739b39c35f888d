// SPDX-License-Identifier: Apache-2.0
// zHDR statistics: unpacking the packed words and choosing a column and exposure per band.
#include "standard/standard.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include "decision/decision.h"
#include "fixed_point.h"

std::int32_t ZHDR_LE_SAT_PREV[12];
std::int32_t ZHDR_LE_SAT_CURR[12];
std::int32_t ZHDR_SE_SAT_PREV[12];
std::int32_t ZHDR_SE_SAT_CURR[12];
std::int32_t ZHDR_LE_NOI_PREV[12];
std::int32_t ZHDR_LE_NOI_CURR[12];
std::int32_t ZHDR_SE_NOI_PREV[12];
std::int32_t ZHDR_SE_NOI_CURR[12];
std::int32_t ZHDR_LE_SE_SELECT[10];

namespace {

constexpr std::int32_t kCountWindows = 12;  // entries of each saturation and noise array
constexpr std::int32_t kMaxBands = 10;      // entries of ZHDR_LE_SE_SELECT
constexpr std::int32_t kMaxCandidates = 2 * kCountWindows;

// Packed word: value in bits 0..23, noise count in 24..35, saturation count in 36..47.
constexpr std::uint64_t kValueMask = 0xFFFFFF;
constexpr int kNoiseShift = 24;
constexpr int kSaturationShift = 36;
constexpr std::uint64_t kCountMask = 0xFFF;

constexpr std::int32_t kNoValue = 1 << 30;  // "no candidate yet" of the value and crossing scans
constexpr std::int32_t kFallbackCandidate = 2;  // no usable flagged candidate: column 1, even rows
constexpr std::int32_t kInitialSelection = 1;   // column 0, odd rows
constexpr std::int32_t kCrossingThreshold = 2560;
constexpr std::int32_t kBrightMean = 335544;

std::int32_t noise(std::int64_t word) {
  return static_cast<std::int32_t>((static_cast<std::uint64_t>(word) >> kNoiseShift) & kCountMask);
}
std::int32_t saturation(std::int64_t word) {
  return static_cast<std::int32_t>((static_cast<std::uint64_t>(word) >> kSaturationShift) &
                                   kCountMask);
}
std::int64_t value(std::int64_t word) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(word) & kValueMask);
}

// Words of one grid over the rows [r0, r1) of a group (r0 even), C columns: the noise and
// saturation fields summed in place (shifted up, in 64 bits) per column and row parity, and
// every word rewritten to its value, in one pass over row pairs whose 2C words and sums the
// compiler keeps in vector registers. Exact for groups of up to 2^16 rows: 2^15 counts of 2^12
// shifted by 36 stay below 2^64.
template <std::int32_t C>
void unpack_rows(std::int64_t* grid, std::int64_t r0, std::int64_t r1, std::uint64_t* noise_sums,
                 std::uint64_t* saturation_sums) {
  constexpr std::uint64_t kNoiseField = kCountMask << kNoiseShift;
  constexpr std::uint64_t kSaturationField = kCountMask << kSaturationShift;
  std::uint64_t n[2 * C] = {};
  std::uint64_t s[2 * C] = {};
  std::int64_t* g = grid + r0 * C;
  std::int64_t r = r0;
  for (; r + 1 < r1; r += 2, g += 2 * C) {
    // Field by field over the pair's words, so that neighbouring words share a vector.
    std::uint64_t word[2 * C];
#pragma GCC unroll 12
    for (std::int32_t j = 0; j < 2 * C; ++j) word[j] = static_cast<std::uint64_t>(g[j]);
#pragma GCC unroll 12
    for (std::int32_t j = 0; j < 2 * C; ++j) n[j] += word[j] & kNoiseField;
#pragma GCC unroll 12
    for (std::int32_t j = 0; j < 2 * C; ++j) s[j] += word[j] & kSaturationField;
#pragma GCC unroll 12
    for (std::int32_t j = 0; j < 2 * C; ++j) g[j] = static_cast<std::int64_t>(word[j] & kValueMask);
  }
  if (r < r1) {  // a last even row
    for (std::int32_t j = 0; j < C; ++j) {
      const std::uint64_t word = static_cast<std::uint64_t>(g[j]);
      n[j] += word & kNoiseField;
      s[j] += word & kSaturationField;
      g[j] = static_cast<std::int64_t>(word & kValueMask);
    }
  }
  for (std::int32_t j = 0; j < 2 * C; ++j) {
    noise_sums[j] = n[j] >> kNoiseShift;
    saturation_sums[j] = s[j] >> kSaturationShift;
  }
}

// Counts and values of two grids that do not overlap, C columns, group by group.
template <std::int32_t C>
void unpack_separate_grids(std::int64_t* prevStats, std::int64_t* curStats, std::int32_t rows,
                           std::int32_t even_rows) {
  const std::int64_t group_rows = even_rows == 0  ? rows
                                  : even_rows < 0 ? -std::int64_t{even_rows}
                                                  : even_rows;
  for (std::int64_t r0 = 0; r0 < rows;) {
    const std::int64_t r1 = std::min<std::int64_t>(rows, (r0 / group_rows + 1) * group_rows);
    const std::int64_t first =
        static_cast<std::int64_t>(fx::div_trunc(static_cast<std::int32_t>(r0), even_rows)) * C;
    std::uint64_t noise_prev[2 * C], saturation_prev[2 * C];
    std::uint64_t noise_cur[2 * C], saturation_cur[2 * C];
    unpack_rows<C>(prevStats, r0, r1, noise_prev, saturation_prev);
    unpack_rows<C>(curStats, r0, r1, noise_cur, saturation_cur);
    for (std::int32_t parity = 0; parity < 2; ++parity) {
      const bool short_exposure = static_cast<std::int32_t>(parity == 0) != zhdr_gle_first;
      for (std::int32_t c = 0; c < C; ++c) {
        const std::int64_t w = first + c;
        // The driver keeps every window inside the 12 counters; other callers' extra rows are
        // unpacked without being counted (a negative group count gives negative windows).
        if (w < 0 || w >= kCountWindows) continue;
        const std::int32_t j = parity * C + c;
        (short_exposure ? ZHDR_SE_SAT_PREV : ZHDR_LE_SAT_PREV)[w] +=
            static_cast<std::int32_t>(saturation_prev[j]);
        (short_exposure ? ZHDR_SE_SAT_CURR : ZHDR_LE_SAT_CURR)[w] +=
            static_cast<std::int32_t>(saturation_cur[j]);
        (short_exposure ? ZHDR_SE_NOI_PREV : ZHDR_LE_NOI_PREV)[w] +=
            static_cast<std::int32_t>(noise_prev[j]);
        (short_exposure ? ZHDR_SE_NOI_CURR : ZHDR_LE_NOI_CURR)[w] +=
            static_cast<std::int32_t>(noise_cur[j]);
      }
    }
    r0 = r1;
  }
}

// The row-pair pass by column count (cols >= 1 here).
constexpr std::int32_t kRowPairColumns = 6;
using Unpacker = void (*)(std::int64_t*, std::int64_t*, std::int32_t, std::int32_t);
constexpr Unpacker kUnpackers[kRowPairColumns + 1] = {nullptr,
                                                      unpack_separate_grids<1>,
                                                      unpack_separate_grids<2>,
                                                      unpack_separate_grids<3>,
                                                      unpack_separate_grids<4>,
                                                      unpack_separate_grids<5>,
                                                      unpack_separate_grids<6>};

// The counts of two grids that do not overlap, column by column over each group's rows, in
// registers: the sums do not depend on the order, and nothing is rewritten yet. Group g holds rows
// whose truncated quotient by even_rows is g (all rows for even_rows 0).
void count_separate_grids(const std::int64_t* prevStats, const std::int64_t* curStats,
                          std::int32_t rows, std::int32_t cols, std::int32_t even_rows) {
  const std::int64_t group_rows = even_rows == 0  ? rows
                                  : even_rows < 0 ? -std::int64_t{even_rows}
                                                  : even_rows;
  const std::int64_t stride = 2 * static_cast<std::int64_t>(cols);
  for (std::int64_t r0 = 0; r0 < rows;) {
    const std::int64_t r1 = std::min<std::int64_t>(rows, (r0 / group_rows + 1) * group_rows);
    const std::int64_t first =
        static_cast<std::int64_t>(fx::div_trunc(static_cast<std::int32_t>(r0), even_rows)) * cols;
    for (std::int32_t c = 0; c < cols; ++c) {
      const std::int64_t w = first + c;
      // The driver keeps every window inside the 12 counters; other callers' extra rows are
      // unpacked without being counted (a negative group count gives negative windows).
      if (w < 0 || w >= kCountWindows) continue;
      for (std::int64_t r = r0; r < r0 + 2 && r < r1; ++r) {
        const bool short_exposure = static_cast<std::int32_t>(r % 2 == 0) != zhdr_gle_first;
        std::int32_t sat_prev = 0, sat_cur = 0, noi_prev = 0, noi_cur = 0;
        const std::int64_t* p = prevStats + r * cols + c;
        const std::int64_t* q = curStats + r * cols + c;
        for (std::int64_t k = 0, n = (r1 - r + 1) / 2; k < n; ++k, p += stride, q += stride) {
          // 32-bit: at most 6000 rows of 12-bit counts.
          sat_prev += saturation(*p);
          sat_cur += saturation(*q);
          noi_prev += noise(*p);
          noi_cur += noise(*q);
        }
        (short_exposure ? ZHDR_SE_SAT_PREV : ZHDR_LE_SAT_PREV)[w] += sat_prev;
        (short_exposure ? ZHDR_SE_SAT_CURR : ZHDR_LE_SAT_CURR)[w] += sat_cur;
        (short_exposure ? ZHDR_SE_NOI_PREV : ZHDR_LE_NOI_PREV)[w] += noi_prev;
        (short_exposure ? ZHDR_SE_NOI_CURR : ZHDR_LE_NOI_CURR)[w] += noi_cur;
      }
    }
    r0 = r1;
  }
}

}  // namespace

void extract_ZHDR_INFO(std::int64_t* prevStats, std::int64_t* curStats, std::int32_t rows,
                       std::int32_t cols, std::int32_t groups) {
  for (std::int32_t i = 0; i < kCountWindows; ++i) {
    ZHDR_LE_SAT_PREV[i] = ZHDR_LE_SAT_CURR[i] = ZHDR_SE_SAT_PREV[i] = ZHDR_SE_SAT_CURR[i] = 0;
    ZHDR_LE_NOI_PREV[i] = ZHDR_LE_NOI_CURR[i] = ZHDR_SE_NOI_PREV[i] = ZHDR_SE_NOI_CURR[i] = 0;
  }
  if (rows < 1 || cols < 1) return;
  const std::int64_t words = static_cast<std::int64_t>(rows) * cols;
  if (is_zhdr == 0) {
    // Plain statistics rarely carry bits above the value: a read-only pass finds out, and only
    // grids that do are rewritten.
    std::uint64_t above = 0;
#pragma GCC unroll 4
    for (std::int64_t i = 0; i < words; ++i) {
      above |= static_cast<std::uint64_t>(prevStats[i]) | static_cast<std::uint64_t>(curStats[i]);
    }
    if ((above & ~kValueMask) == 0) return;
    for (std::int64_t i = 0; i < words; ++i) {
      prevStats[i] = value(prevStats[i]);
      curStats[i] = value(curStats[i]);
    }
    return;
  }
  const std::int32_t per_group = fx::div_trunc(rows, groups);
  const std::int32_t even_rows = per_group & ~1;
  const auto start = [](const std::int64_t* grid) {
    return reinterpret_cast<std::uintptr_t>(grid);
  };
  const std::uintptr_t bytes = static_cast<std::uintptr_t>(words) * sizeof(std::int64_t);
  if (start(prevStats) + bytes <= start(curStats) || start(curStats) + bytes <= start(prevStats)) {
    if (rows <= 65536 && cols <= kRowPairColumns) {
      return kUnpackers[cols](prevStats, curStats, rows, even_rows);
    }
    count_separate_grids(prevStats, curStats, rows, cols, even_rows);
    for (std::int64_t i = 0; i < words; ++i) {
      prevStats[i] = value(prevStats[i]);
      curStats[i] = value(curStats[i]);
    }
    return;
  }
  // Overlapping grids: word by word in row order, each read before it is rewritten.
  for (std::int32_t r = 0; r < rows; ++r) {
    const std::int32_t g = fx::div_trunc(r, even_rows);
    const bool short_exposure = static_cast<std::int32_t>(r % 2 == 0) != zhdr_gle_first;
    std::int32_t* sat_prev = short_exposure ? ZHDR_SE_SAT_PREV : ZHDR_LE_SAT_PREV;
    std::int32_t* sat_cur = short_exposure ? ZHDR_SE_SAT_CURR : ZHDR_LE_SAT_CURR;
    std::int32_t* noi_prev = short_exposure ? ZHDR_SE_NOI_PREV : ZHDR_LE_NOI_PREV;
    std::int32_t* noi_cur = short_exposure ? ZHDR_SE_NOI_CURR : ZHDR_LE_NOI_CURR;
    for (std::int32_t c = 0; c < cols; ++c) {
      const std::int64_t at = static_cast<std::int64_t>(r) * cols + c;
      // The driver keeps every window inside the 12 counters; other callers' extra rows are
      // unpacked without being counted.
      const std::int64_t w = static_cast<std::int64_t>(g) * cols + c;
      if (w >= 0 && w < kCountWindows) {  // negative with a negative group count
        // 32-bit: at most 6000 rows of 12-bit counts.
        sat_prev[w] += saturation(prevStats[at]);
        sat_cur[w] += saturation(curStats[at]);
        noi_prev[w] += noise(prevStats[at]);
        noi_cur[w] += noise(curStats[at]);
      }
      prevStats[at] = value(prevStats[at]);
      curStats[at] = value(curStats[at]);
    }
  }
}

std::int32_t find_vector_zHDR(std::int32_t* seqs, std::int32_t len, std::int32_t zeroThr,
                              std::int32_t meanThr, std::int32_t count, std::int8_t* flags) {
  if (count > kMaxCandidates) return kFallbackCandidate;
  std::int32_t mean[kMaxCandidates] = {};
  std::int32_t crossings[kMaxCandidates] = {};
  for (std::int32_t k = 0; k < count; ++k) {
    if (flags[k] == 0) continue;
    std::int32_t* seq = seqs + static_cast<std::int64_t>(k) * len;
    std::int32_t sum = 0;  // 32-bit sum, wrapping on purpose
    for (std::int32_t i = 0; i < len; ++i) sum = fx::wrap_add32(sum, seq[i]);
    mean[k] = fx::div_trunc(sum, len);
    for (std::int32_t i = 0; i < len; ++i) seq[i] = fx::wrap_sub32(seq[i], mean[k]);
  }
  // Candidate k's first pair borrows the last value of candidate k - 1, centred or not as it
  // stands by now.
  for (std::int32_t k = 0; k < count; ++k) {
    if (flags[k] != 0) {
      crossings[k] = flicker_count_swings(seqs, static_cast<std::int64_t>(k) * len, len, zeroThr);
    }
  }

  bool same_crossings = true;
  bool small_means = true;
  for (std::int32_t k = 0; k < count; ++k) {
    if (flags[k] == 0) continue;
    if (k < count - 1) same_crossings = same_crossings && crossings[k] == crossings[k + 1];
    small_means = small_means && mean[k] < meanThr;
  }

  std::int32_t best = kFallbackCandidate;
  if (small_means || same_crossings) {
    std::int32_t best_mean = 0;
    for (std::int32_t k = 0; k < count; ++k) {
      if (flags[k] != 0 && mean[k] > best_mean) {
        best = k;
        best_mean = mean[k];
      }
    }
  } else {
    std::int32_t best_crossings = kNoValue;
    std::int32_t best_mean = 0;
    for (std::int32_t k = 0; k < count; ++k) {
      if (flags[k] == 0) continue;
      if (crossings[k] < best_crossings ||
          (crossings[k] == best_crossings && mean[k] > best_mean)) {
        best = k;
        best_crossings = crossings[k];
        best_mean = mean[k];
      }
    }
  }
  return best;
}

void vector_selection_zHDR(const std::int64_t* prevStats, const std::int64_t* curStats,
                           std::int32_t n_win_h, std::int32_t n_win_w, std::int32_t win_wd,
                           std::int32_t win_ht, std::int32_t* prevOut, std::int32_t* curOut) {
  // The counters hold 12 windows, the selection 10 bands and the transposed band 12000 values;
  // the driver refuses larger grids.
  if (n_win_w < 1 || n_win_h > kMaxBands ||
      static_cast<std::int64_t>(n_win_h) * n_win_w > kCountWindows ||
      static_cast<std::int64_t>(win_ht) * n_win_w > 12000) {
    return;
  }
  const std::int32_t count = 2 * n_win_w;
  std::int8_t flags[kMaxCandidates];
  std::int32_t values[kMaxCandidates];
  std::fputs("zHDR_vector_selection: ", stdout);

  const std::int32_t t = fx::div_trunc(fx::wrap_mul32(win_ht, win_wd), 80);
  const bool even_is_le = zhdr_gle_first == 1;
  const std::int64_t grid_size = static_cast<std::int64_t>(n_win_h) * win_ht * n_win_w;
  std::int32_t s = kInitialSelection;
  std::int32_t copied_band = -1;
  for (std::int32_t h = 0; h < n_win_h; ++h) {
    std::int32_t flagged = 0;
    for (std::int32_t c = 0; c < n_win_w; ++c) {
      const std::int32_t w = h * n_win_w + c;
      const bool le_ok = ZHDR_LE_SAT_PREV[w] < t && ZHDR_LE_NOI_PREV[w] < t &&
                         ZHDR_LE_SAT_CURR[w] < t && ZHDR_LE_NOI_CURR[w] < t;
      const bool se_ok = ZHDR_SE_SAT_PREV[w] < t && ZHDR_SE_NOI_PREV[w] < t &&
                         ZHDR_SE_SAT_CURR[w] < t && ZHDR_SE_NOI_CURR[w] < t && zhdr_se_small == 0;
      const std::int32_t le_value =
          std::max(fx::wrap_add32(ZHDR_LE_SAT_PREV[w], ZHDR_LE_NOI_PREV[w]),
                   fx::wrap_add32(ZHDR_LE_SAT_CURR[w], ZHDR_LE_NOI_CURR[w]));
      const std::int32_t se_value =
          std::max(fx::wrap_add32(ZHDR_SE_SAT_PREV[w], ZHDR_SE_NOI_PREV[w]),
                   fx::wrap_add32(ZHDR_SE_SAT_CURR[w], ZHDR_SE_NOI_CURR[w]));
      // Candidate 2c takes the even rows, 2c + 1 the odd ones.
      flags[2 * c] = static_cast<std::int8_t>(even_is_le ? le_ok : se_ok);
      flags[2 * c + 1] = static_cast<std::int8_t>(even_is_le ? se_ok : le_ok);
      values[2 * c] = even_is_le ? le_value : se_value;
      values[2 * c + 1] = even_is_le ? se_value : le_value;
      flagged += flags[2 * c] + flags[2 * c + 1];
    }

    if (flagged == 1) {
      for (std::int32_t k = 0; k < count; ++k) {
        if (flags[k] != 0) s = k;
      }
    } else if (flagged == 0) {
      std::int32_t best_value = kNoValue;
      for (std::int32_t k = 0; k < count; ++k) {
        // A dark short exposure leaves only the long-exposure candidates.
        const bool long_exposure = static_cast<std::int32_t>(k % 2 == 0) == zhdr_gle_first;
        if (zhdr_se_small != 0 && !long_exposure) continue;
        if (values[k] < best_value) {
          best_value = values[k];
          s = k;
        }
      }
    } else {
      // The choice reads two rows in eight straight from the grid; the band's columns are
      // copied out whole only for the last band that comes here (after the loop), the one whose
      // copy the working memory keeps.
      const std::int64_t band = static_cast<std::int64_t>(h) * win_ht * n_win_w;
      copied_band = h;
      const std::int32_t len = win_ht > 7 ? win_ht >> 3 : 0;
      if (len > 0) {
        const std::int64_t row_step = std::int64_t{8} * n_win_w;
        for (std::int32_t c = 0; c < n_win_w; ++c) {
          const std::int64_t* column = curStats + band + c;
          std::int32_t* even = ovector_out_working_memory + 2 * c * len;
          std::int32_t* odd = even + len;
          for (std::int32_t j = 0; j < len; ++j) {
            even[j] = fx::low32(column[j * row_step]);
            odd[j] = fx::low32(column[j * row_step + n_win_w]);
          }
        }
      }
      s = find_vector_zHDR(ovector_out_working_memory, len, kCrossingThreshold, kBrightMean, count,
                           flags);
    }

    std::printf("%d ", s);
    ZHDR_LE_SE_SELECT[h] = s % 2;
    const std::int32_t column = s / 2;
    // Candidate 2 on a one-column grid names column 1: values past the grid's end read 0.
    flicker_copy_column(prevStats, curStats,
                        static_cast<std::int64_t>(h) * win_ht * n_win_w + column, n_win_w, win_ht,
                        grid_size, prevOut + h * win_ht, curOut + h * win_ht);
  }
  std::printf("\n");
  if (copied_band >= 0) {
    const std::int64_t band = static_cast<std::int64_t>(copied_band) * win_ht * n_win_w;
    for (std::int32_t c = 0; c < n_win_w; ++c) {
      std::int32_t* __restrict column = cvector_out_working_memory + c * win_ht;
      const std::int64_t* __restrict from = curStats + band + c;
      for (std::int32_t i = 0; i < win_ht; ++i) column[i] = fx::low32(from[i * n_win_w]);
    }
  }
}
