// SPDX-License-Identifier: Apache-2.0
// Column selection: per band of windows, the steadiest column of the current frame.
#include "standard/standard.h"

#include "fixed_point.h"

namespace {

// find_vector keeps its per-column statistics in arrays of this size; the driver refuses wider
// grids.
constexpr std::int32_t kMaxColumns = 10;

// Decimated rows per column: every eighth row of the band.
constexpr std::int32_t kDecimation = 8;
constexpr std::int32_t kSwingThreshold = 100;
constexpr std::int32_t kDarkMean = 358400;

// Default column when every column is quiet or dark and none has a positive mean. Column 1, not
// 0, is what the detectors have always used; hosts therefore give at least two columns.
constexpr std::int32_t kDefaultColumn = 1;

}  // namespace

std::int32_t find_vector(std::int32_t* cols, std::int32_t len, std::int32_t ncols, std::int32_t thr,
                         std::int32_t minMean) {
  if (ncols < 1 || ncols > kMaxColumns) return kDefaultColumn;
  std::int32_t mean[kMaxColumns];
  std::int32_t count[kMaxColumns];

  for (std::int32_t c = 0; c < ncols; ++c) {
    std::int32_t* column = cols + static_cast<std::int64_t>(c) * len;
    mean[c] = fx::low32(fx::div_trunc<std::int64_t>(fx::sum64(column, len), len));
    for (std::int32_t i = 0; i < len; ++i) column[i] = fx::wrap_sub32(column[i], mean[c]);
  }

  // The first pair of each column borrows the previous column's last, already centred entry.
  bool all_quiet = true;
  bool all_dark = true;
  for (std::int32_t c = 0; c < ncols; ++c) {
    count[c] = flicker_count_swings(cols, static_cast<std::int64_t>(c) * len, len, thr);
    all_quiet = all_quiet && count[c] == 0;
    all_dark = all_dark && mean[c] < minMean;
  }

  std::int32_t best = kDefaultColumn;
  if (!all_quiet && !all_dark) {
    std::int32_t best_count = 0x7fffffff;
    std::int32_t best_mean = 0;
    for (std::int32_t c = 0; c < ncols; ++c) {
      if (count[c] < best_count || (count[c] == best_count && mean[c] > best_mean)) {
        best = c;
        best_count = count[c];
        best_mean = mean[c];
      }
    }
  } else {
    std::int32_t best_mean = 0;
    for (std::int32_t c = 0; c < ncols; ++c) {
      if (mean[c] > best_mean) {
        best = c;
        best_mean = mean[c];
      }
    }
  }
  return best;
}

// Not used by the pipelines: the same choice with the pipelines' darkness bound.
std::int32_t find_vector(std::int32_t* cols, std::int32_t len, std::int32_t ncols,
                         std::int32_t thr) {
  return find_vector(cols, len, ncols, thr, kDarkMean);
}

// Exported for the host interface; motion is not measured here.
std::int32_t measureMotion(const std::int32_t*, const std::int32_t*, std::uint32_t, std::int32_t) {
  return 1;
}

void vector_selection(const std::int64_t* prev, const std::int64_t* cur, std::int32_t n_win_h,
                      std::int32_t n_win_w, std::int32_t, std::int32_t win_ht, std::int32_t*,
                      std::int32_t* outPrev, std::int32_t* outCur) {
  if (n_win_h < 1) return;
  const std::int32_t len = win_ht / kDecimation;
  const std::int64_t band_size = static_cast<std::int64_t>(win_ht) * n_win_w;
  const std::int64_t grid_size = band_size * n_win_h;
  for (std::int32_t b = 0; b < n_win_h; ++b) {
    const std::int64_t band = band_size * b;
    const std::int64_t* band_cur = cur + band;
    // The columns are copied out whole (column by column: long contiguous stores) only for the
    // last band, whose copy the working memory keeps; every earlier band's copy would be
    // overwritten by the next, and the choice reads only every eighth row.
    if (b == n_win_h - 1) {
      for (std::int32_t c = 0; c < n_win_w; ++c) {
        std::int32_t* __restrict column = cvector_out_working_memory + c * win_ht;
        const std::int64_t* __restrict from = band_cur + c;
        for (std::int32_t r = 0; r < win_ht; ++r) column[r] = fx::low32(from[r * n_win_w]);
      }
    }
    if (win_ht >= kDecimation) {
      const std::int64_t row_step = static_cast<std::int64_t>(kDecimation) * n_win_w;
      for (std::int32_t c = 0; c < n_win_w; ++c) {
        for (std::int32_t j = 0; j < len; ++j) {
          grad_current_working_memory[c * len + j] = fx::low32(band_cur[j * row_step + c]);
        }
      }
    }
    const std::int32_t col =
        find_vector(grad_current_working_memory, len, n_win_w, kSwingThreshold, kDarkMean);
    // The default column 1 of a one-column grid lies past the grid's end on its last row: the
    // values past the end read 0.
    flicker_copy_column(prev, cur, band + col, n_win_w, win_ht, grid_size, outPrev + b * win_ht,
                        outCur + b * win_ht);
  }
}
