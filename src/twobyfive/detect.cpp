// SPDX-License-Identifier: Apache-2.0
// 2x5 detection driver: column selection, alignment and the score-driven sequential test.
#include "twobyfive/twobyfive.h"

#include "decision/decision.h"
#include "fixed_point.h"
#include "interface/interface.h"
#include "sony/sony.h"
#include "standard/standard.h"

namespace {

// The despiked best and second-best vectors (and the despike scratch) hold 2000 samples.
constexpr std::int32_t kMaxFrameRows = 2000;
// A single window's segment borrows two samples past the frame; the segment buffers hold 2000.
constexpr std::int32_t kMaxSingleWindowRows = 2000 - 2;
// The Laplacian and the shifts need this many rows in a window.
constexpr std::int32_t kMinRowsPerWindow = 4;
constexpr std::int32_t kMaxColumns = 10;
constexpr std::int32_t kBandBufferSize = 12000;  // cvector_out_working_memory
constexpr std::int32_t kDarkMean = 100;

// Copies one column of a band from both grids into the line vectors.
void copy_column(const std::int32_t* prev, const std::int32_t* cur, std::int64_t band_offset,
                 std::int32_t rows, std::int32_t ncols, std::int32_t col, std::int32_t* out_prev,
                 std::int32_t* out_cur) {
  for (std::int32_t r = 0; r < rows; ++r) {
    const std::int64_t at = band_offset + r * ncols + col;
    out_cur[r] = cur[at];
    out_prev[r] = prev[at];
  }
}

// Transposes one band of `rows` x `ncols` values into column order.
void transpose_band(const std::int32_t* __restrict band, std::int32_t rows, std::int32_t ncols,
                    std::int32_t* __restrict columns) {
  // Column by column: one strided read and one contiguous write a value.
  for (std::int32_t c = 0; c < ncols; ++c) {
    const std::int32_t* from = band + c;
    std::int32_t* to = columns + static_cast<std::int64_t>(c) * rows;
    for (std::int32_t r = 0; r < rows; ++r) to[r] = from[static_cast<std::int64_t>(r) * ncols];
  }
}

// Band by band: the column chosen on the current frame, copied from both frames.
void select_bands(const std::int32_t* prev, const std::int32_t* cur, std::int32_t n_win_h,
                  std::int32_t n_win_w, std::int32_t band_rows, std::int32_t* out_prev,
                  std::int32_t* out_cur) {
  for (std::int32_t b = 0; b < n_win_h; ++b) {
    // 64-bit: the exported selection takes any number of bands.
    const std::int64_t offset = std::int64_t{b} * band_rows * n_win_w;
    transpose_band(cur + offset, band_rows, n_win_w, cvector_out_working_memory);
    const std::int32_t col =
        find_vector_2x5(cvector_out_working_memory, band_rows, n_win_w, 0, kDarkMean);
    copy_column(prev, cur, offset, band_rows, n_win_w, col, out_prev + std::int64_t{b} * band_rows,
                out_cur + std::int64_t{b} * band_rows);
  }
}

}  // namespace

std::int32_t find_vector_2x5(std::int32_t* cols, std::int32_t len, std::int32_t ncols,
                             std::int32_t thr, std::int32_t minMean) {
  // The middle column is the reference, yet the answer starts at column 1: a frame where no
  // column beats the middle one takes column 1.
  return flicker_choose_column(cols, len, ncols, thr, minMean, ncols / 2);
}

void vector_selection_2x5(const std::int32_t* prev, const std::int32_t* cur, std::int32_t n_win_h,
                          std::int32_t n_win_w, std::int32_t, std::int32_t bandHeight,
                          std::int32_t*, std::int32_t* outPrev, std::int32_t* outCur) {
  if (n_win_h < 1) return;
  if (n_win_w < 1 || n_win_w > kMaxColumns || bandHeight < 1 ||
      std::int64_t{bandHeight} * n_win_w > kBandBufferSize) {
    LogRefusalFlk("vector_selection_2x5",
                  "bands of %d rows x %d columns (limits 10 columns, %d values)", bandHeight,
                  n_win_w, kBandBufferSize);
    return;
  }
  // A single column whose mean is not positive yields column 1, which the grid does not have:
  // every band is checked before anything is written.
  for (std::int32_t b = 0; n_win_w == 1 && b < n_win_h; ++b) {
    std::int64_t sum = 0;  // 64-bit: bandHeight values of 32 bits
    for (std::int32_t r = 0; r < bandHeight; ++r) sum += cur[std::int64_t{b} * bandHeight + r];
    if (fx::low32(sum / bandHeight) <= 0) {
      LogRefusalFlk("vector_selection_2x5",
                    "band %d of a single column chooses column 1, past "
                    "the grid",
                    b);
      return;
    }
  }
  select_bands(prev, cur, n_win_h, n_win_w, bandHeight, outPrev, outCur);
}

std::int32_t detectFlicker_SW_2x5(std::int32_t* prev, std::int32_t* cur, std::int32_t n_win_h,
                                  std::int32_t n_win_w, std::int32_t, std::int32_t win_ht,
                                  std::int32_t, FlkSensorInfo, FlkEISVector, FlkAEInfo,
                                  std::int32_t*) {
  constexpr const char* kFunc = "detectFlicker_SW_2x5";
  // Every geometry that would take a stage outside its buffers or tables is refused up front.
  if (g_flkTab1 == nullptr || g_flkTab2 == nullptr || g_flkCompTab == nullptr) {
    LogRefusalFlk(kFunc, "no tables, result %d", g_flickerResult);
    return g_flickerResult;
  }
  if (n_win_h < 1 || n_win_h > kMaxWindows) {
    LogRefusalFlk(kFunc, "%d windows, limit 1..%d, result %d", n_win_h, kMaxWindows,
                  g_flickerResult);
    return g_flickerResult;
  }
  if (n_win_w < 1 || n_win_w > kMaxColumns) {
    LogRefusalFlk(kFunc, "%d columns, limit 1..%d, result %d", n_win_w, kMaxColumns,
                  g_flickerResult);
    return g_flickerResult;
  }
  if (win_ht > kMaxFrameRows) {
    LogRefusalFlk(kFunc, "frame of %d rows exceeds %d, result %d", win_ht, kMaxFrameRows,
                  g_flickerResult);
    return g_flickerResult;
  }
  if (n_win_h == 1 && win_ht > kMaxSingleWindowRows) {
    LogRefusalFlk(kFunc, "single window of %d rows exceeds %d, result %d", win_ht,
                  kMaxSingleWindowRows, g_flickerResult);
    return g_flickerResult;
  }
  if (win_ht > g_flkTabW) {
    LogRefusalFlk(kFunc, "frame of %d rows exceeds the table width %d, result %d", win_ht,
                  g_flkTabW, g_flickerResult);
    return g_flickerResult;
  }
  const std::int32_t h = win_ht / n_win_h;
  if (h < kMinRowsPerWindow) {
    LogRefusalFlk(kFunc, "%d rows per window, at least %d, result %d", h, kMinRowsPerWindow,
                  g_flickerResult);
    return g_flickerResult;
  }
  if (h * n_win_w > kBandBufferSize) {
    LogRefusalFlk(kFunc, "band of %d values exceeds %d, result %d", h * n_win_w, kBandBufferSize,
                  g_flickerResult);
    return g_flickerResult;
  }
  const std::int32_t n = h * n_win_h;

  if (n_win_w < 2) {
    for (std::int32_t i = 0; i < win_ht; ++i) {
      line_prev_working_memory[i] = prev[i];
      line_curr_working_memory[i] = cur[i];
    }
  } else {
    select_bands(prev, cur, n_win_h, n_win_w, h, line_prev_working_memory,
                 line_curr_working_memory);
  }
  PrintLineDataFlk(line_prev_working_memory, line_curr_working_memory, n, false);

  std::int32_t freq_out[9] = {};
  std::int32_t ae_stable = 0;
  // A frame rejected for exposure queues a score of 0.
  std::int32_t frame_score = 0;
  align_flicker_subpixel_2x5(line_curr_working_memory, line_prev_working_memory, n_win_h, h, 0,
                             win_ht, freq_out, ae_stable, frame_score);
  if (g_logFlow) {
    PrintLogFlk("Freq_out = %d, %d, %d, %d, %d, %d, %d, %d, %d\n", freq_out[0], freq_out[1],
                freq_out[2], freq_out[3], freq_out[4], freq_out[5], freq_out[6], freq_out[7],
                freq_out[8]);
  }
  return test_next_frame_2x5(freq_out, 9, static_cast<std::int8_t>(ae_stable != 0 ? 1 : 0),
                             static_cast<std::uint32_t>(g_maxPastFrames), frame_score);
}
