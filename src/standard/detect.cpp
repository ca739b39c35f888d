// SPDX-License-Identifier: Apache-2.0
// Standard detection driver: column selection, alignment and the sequential test for one frame.
#include "standard/standard.h"

#include "decision/decision.h"
#include "interface/interface.h"

std::int32_t line_prev_working_memory[kLineVectorSize];
std::int32_t line_curr_working_memory[kLineVectorSize];

namespace {

constexpr const char* kDriver = "detectFlicker_SW";

// Geometry type 0 accepts. Every bound keeps a stage inside its static buffers or its filters'
// border mirrors:
// - a window is win_ht samples and the alignment copies at most 2000 of them;
// - win_ht >= 53 gives at least 27 working samples and 14 log-ratio samples per window, enough
//   for the 13-tap mirror of the coarse search and the 14-sample mirrors of the despike (an
//   aligned window keeps at least 15: the searches only register windows of 58 + 2 x range rows
//   or more, and drop shifts beyond the range);
// - find_vector keeps ten columns, align_flicker ten windows;
// - one band transposed (win_ht x n_win_w) fills at most the 12000-entry column buffer, and the
//   line vectors hold 6000 rows;
// - the frequency estimators read one table column per log-ratio sample;
// - the zHDR counters hold 12 windows.
constexpr std::int32_t kMinWinHt = 53;
constexpr std::int32_t kMaxWinHt = 2000;
constexpr std::int32_t kMaxBands = 10;
constexpr std::int32_t kMaxColumns = 10;
constexpr std::int32_t kMaxBandValues = 12000;
constexpr std::int32_t kMaxZhdrWindows = 12;

// Log-ratio samples of one window of win_ht rows: ceil(ceil(win_ht / 2) / 2).
std::int32_t ratio_samples(std::int32_t win_ht) {
  return (((win_ht + 1) >> 1) + 1) >> 1;
}

// One refusal line naming the limit; true when the frame must not run.
bool refuse_geometry(const std::int64_t* prev, const std::int64_t* cur, std::int32_t n_win_h,
                     std::int32_t n_win_w, std::int32_t win_ht) {
  const std::int32_t result = g_flickerResult;
  if (prev == nullptr || cur == nullptr) {
    LogRefusalFlk(kDriver, "missing statistics grid, result %d", result);
    return true;
  }
  if (g_flkTab1 == nullptr || g_flkTab2 == nullptr || g_flkCompTab == nullptr) {
    LogRefusalFlk(kDriver, "no tables (INIT type 0 first), result %d", result);
    return true;
  }
  if (n_win_h < 1 || n_win_h > kMaxBands) {
    LogRefusalFlk(kDriver, "n_win_h %d outside 1..%d, result %d", n_win_h, kMaxBands, result);
    return true;
  }
  if (n_win_w < 1 || n_win_w > kMaxColumns) {
    LogRefusalFlk(kDriver, "n_win_w %d outside 1..%d, result %d", n_win_w, kMaxColumns, result);
    return true;
  }
  if (win_ht < kMinWinHt || win_ht > kMaxWinHt) {
    LogRefusalFlk(kDriver, "win_ht %d outside %d..%d, result %d", win_ht, kMinWinHt, kMaxWinHt,
                  result);
    return true;
  }
  const std::int32_t rows = n_win_h * win_ht;
  if (rows > kLineVectorSize) {
    LogRefusalFlk(kDriver, "n_win_h x win_ht = %d above %d rows, result %d", rows, kLineVectorSize,
                  result);
    return true;
  }
  if (win_ht * n_win_w > kMaxBandValues) {
    LogRefusalFlk(kDriver, "win_ht x n_win_w = %d above %d values, result %d", win_ht * n_win_w,
                  kMaxBandValues, result);
    return true;
  }
  const std::int32_t samples = n_win_h * ratio_samples(win_ht);
  if (samples > g_flkTabW) {
    LogRefusalFlk(kDriver, "%d log-ratio samples above the table row of %d, result %d", samples,
                  g_flkTabW, result);
    return true;
  }
  // An odd win_ht makes the zHDR windows win_ht - 1 rows high, so the last rows spill into one
  // more window row.
  if (is_zhdr != 0) {
    const std::int32_t window_rows = (rows / n_win_h) & ~1;
    const std::int32_t groups = (rows - 1) / window_rows + 1;
    if (groups * n_win_w > kMaxZhdrWindows) {
      LogRefusalFlk(kDriver, "zHDR windows %d x %d above %d, result %d", groups, n_win_w,
                    kMaxZhdrWindows, result);
      return true;
    }
  }
  return false;
}

}  // namespace

std::int32_t detectFlicker_SW(std::int64_t* prev, std::int64_t* cur, std::int32_t n_win_h,
                              std::int32_t n_win_w, std::int32_t win_wd, std::int32_t win_ht,
                              std::int32_t, FlkSensorInfo, FlkEISVector, FlkAEInfo, std::int32_t*) {
  if (refuse_geometry(prev, cur, n_win_h, n_win_w, win_ht)) return g_flickerResult;

  const std::int32_t rows = win_ht * n_win_h;
  extract_ZHDR_INFO(prev, cur, rows, n_win_w, n_win_h);
  if (is_zhdr != 0) {
    vector_selection_zHDR(prev, cur, n_win_h, n_win_w, win_wd, win_ht, line_prev_working_memory,
                          line_curr_working_memory);
  } else {
    vector_selection(prev, cur, n_win_h, n_win_w, win_wd, win_ht, nullptr, line_prev_working_memory,
                     line_curr_working_memory);
  }
  PrintLineDataFlk(line_prev_working_memory, line_curr_working_memory, rows, true);

  std::int32_t freq_out[9];
  std::int32_t ae_stable = 0;
  std::int32_t align_flag = 0;
  align_flicker(line_curr_working_memory, line_prev_working_memory, n_win_h, win_ht, rows, freq_out,
                ae_stable, align_flag);
  if (g_logFlow) {
    PrintLogFlk("Freq_out = %d, %d, %d, %d, %d, %d, %d, %d, %d\n", freq_out[0], freq_out[1],
                freq_out[2], freq_out[3], freq_out[4], freq_out[5], freq_out[6], freq_out[7],
                freq_out[8]);
  }
  const std::int8_t is_valid = ae_stable != 0 && align_flag != 0 ? 1 : 0;
  return test_next_frame(freq_out, 9, is_valid, static_cast<std::uint32_t>(g_maxPastFrames));
}
