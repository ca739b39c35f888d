// SPDX-License-Identifier: Apache-2.0
// Standard-sensor pipeline (type 0): tables, detection driver, column selection, frame
// alignment, shift search, despike, frequency estimation and zHDR statistics. The tables and
// several working memories defined here are shared with the SONY and 2x5 pipelines.
#ifndef KESTREL_STANDARD_H
#define KESTREL_STANDARD_H

#include <cstdint>

#include "kestrel/flicker.h"

// ---- Tables (built by the INIT of any type; the last INIT decides their contents) ----
extern std::int32_t* g_flkTab1;     // 9 rows x g_flkTabW: 255 x cos of each candidate's phase
extern std::int32_t* g_flkTab2;     // 9 rows x g_flkTabW: 255 x sin
extern std::int32_t* g_flkCompTab;  // log table, 0..65535 scale
extern std::int32_t g_flkTabW;      // row width of the trigonometric tables
extern std::int32_t g_valuMax;      // largest statistic the log table covers

void flicker_init(std::int32_t line_length, std::int32_t column_length, std::int32_t window_width,
                  double pclk);
void calFlickerTable(std::int32_t line_length, std::int32_t column_length, double pclk,
                     std::int32_t window_width, std::int32_t* cosTable, std::int32_t* sinTable,
                     std::int32_t* logTable);
void flicker_uninit();

// Shared by the three pipelines' table builders.
constexpr double kFlickerTwoPi = 6.28318530718;  // 2 pi to eleven decimals: every table uses it
constexpr double kFlickerLog10Of2 = 0.3010299956639812;
// Range shift s of a window width: 4 above 4095 pixels, 3 above 2047, 2 above 1023, 1 above 511.
std::int32_t flicker_range_shift(std::int32_t window_width);
// R(x): nearest 32-bit integer, halves away from zero. Table arguments are finite and small; a
// non-finite value gives 0 and an out-of-range one saturates, so nothing is undefined.
std::int32_t flicker_round_entry(double x);
// Truncation toward zero, with the same guards.
std::int32_t flicker_trunc_entry(double x);
// The pixel clock as the INIT lines print it: truncated; outside the 32-bit range (or not a
// number) the lowest 32-bit value, as the hardware conversion gives.
std::int32_t flicker_clock_for_log(double pclk);

// Interpolating compand lookup L(v) of types 0 and 2: v clamped to 0..g_valuMax, linear
// interpolation between entries v >> 12 and (v >> 12) + 1 of g_flkCompTab (32-bit arithmetic).
inline std::int32_t flicker_compand(std::int32_t v) {
  if (v < 0) v = 0;
  if (v > g_valuMax) v = g_valuMax;
  const std::int32_t i = v >> 12;
  const std::int32_t f = v & 4095;
  return (g_flkCompTab[i] * (4096 - f) + g_flkCompTab[i + 1] * f) >> 12;
}

// Exposure check shared by the three alignment stages: the current frame's sum must lie within
// 0.7..1.4 times the previous one's (both inclusive), neither sum zero. 64-bit sums.
bool flicker_exposure_stable(const std::int32_t* cur, const std::int32_t* prev, std::int32_t n);

// Swings of the len values starting at buf[first]: pairs (i - 1, i) for i = 0 .. len - 2, one
// place back on purpose, from below -thr to above thr or back. The first pair borrows the value
// before the sequence (the previous sequence's last); before the buffer's start that value is 0:
// the exported working memories carry no physical guard word (a host linking them gets its own
// copy of each array, placed anywhere), so the buffer is never read before its start.
inline std::int32_t flicker_count_swings(const std::int32_t* buf, std::int64_t first,
                                         std::int32_t len, std::int32_t thr) {
  const std::int64_t hi = thr;
  const std::int64_t lo = -hi;
  std::int32_t swings = 0;
  for (std::int32_t i = 0; i + 1 < len; ++i) {
    const std::int64_t a = first + i == 0 ? 0 : buf[first + i - 1];
    const std::int64_t b = buf[first + i];
    if ((a < lo && b > hi) || (a > hi && b < lo)) ++swings;
  }
  return swings;
}

// ---- Detection driver ----
constexpr std::int32_t kLineVectorSize = 6000;
extern std::int32_t line_prev_working_memory[kLineVectorSize];
extern std::int32_t line_curr_working_memory[kLineVectorSize];

std::int32_t detectFlicker_SW(std::int64_t* prev, std::int64_t* cur, std::int32_t n_win_h,
                              std::int32_t n_win_w, std::int32_t win_wd, std::int32_t win_ht,
                              std::int32_t, FlkSensorInfo, FlkEISVector, FlkAEInfo, std::int32_t*);

// ---- Column selection ----
void vector_selection(const std::int64_t* prev, const std::int64_t* cur, std::int32_t n_win_h,
                      std::int32_t n_win_w, std::int32_t win_wd, std::int32_t win_ht,
                      std::int32_t* ignored, std::int32_t* outPrev, std::int32_t* outCur);
std::int32_t find_vector(std::int32_t* cols, std::int32_t len, std::int32_t ncols, std::int32_t thr,
                         std::int32_t minMean);
std::int32_t find_vector(std::int32_t* cols, std::int32_t len, std::int32_t ncols,
                         std::int32_t thr);
std::int32_t measureMotion(const std::int32_t*, const std::int32_t*, std::uint32_t, std::int32_t);

// ---- Frame alignment ----
constexpr std::int32_t kMaxWindows = 10;
extern std::int32_t cvector_current_full_working_memory[2000];
extern std::int32_t cvector_prev_full_working_memory[2000];
extern std::int32_t cvector_current_working_memory[1000];
extern std::int32_t cvector_prev_working_memory[1000];
extern std::int32_t grad_current_working_memory[1500];
extern std::int32_t grad_prev_working_memory[1500];
extern std::int32_t avector_out_working_memory[12000];
extern std::int32_t cvector_out_working_memory[12000];
extern std::int32_t ovector_out_working_memory[12000];
extern std::int32_t cvector_out1_working_memory[2000];
extern std::int32_t ovector_out1_working_memory[2000];

void align_flicker(std::int32_t* curStats, std::int32_t* prevStats, std::int32_t numWindows,
                   std::int32_t windowLength, std::int32_t totalLength, std::int32_t* freq_out,
                   std::int32_t& aeStable, std::int32_t& alignFlag);

// ---- Shift search and peak picking ----
// The down arrays hold 2000 entries: the sub-pixel pipelines despike whole frames into them.
extern std::int32_t cvector_current_down_working_memory[2000];
extern std::int32_t cvector_prev_down_working_memory[2000];
extern std::int32_t cvector_out_test_working_memory[10 * 1000];
extern std::int32_t* cvector_out_test_ptr_array[10];
extern std::int32_t cvector_out_test_length_working_memory[10];

std::int32_t find_peaks(std::int32_t* grad, std::int32_t n, std::int32_t threshold,
                        std::int64_t* mask);
std::int32_t exhaust_search(std::int32_t* cur, std::int32_t* prev, std::int64_t* curMask,
                            std::int64_t* prevMask, std::int32_t len, std::int32_t range,
                            std::int32_t preShift, std::int32_t decShift, std::int32_t fullLen,
                            std::int32_t& unreliable);
void exhaust_search_fine(std::int32_t* cur, std::int32_t* prev, std::int64_t* curMask,
                         std::int64_t* prevMask, std::int32_t len, std::int32_t,
                         std::int32_t preShift, std::int32_t outShift, std::int32_t halfSpan,
                         std::int32_t fullLen, std::int32_t coarse, std::int32_t& bestIndex,
                         std::int32_t** outVec, std::int32_t* outLen);

// ---- Despike (also scratch of the alignment, the shift search and the 2x5 despike) ----
constexpr std::int32_t kDespikeSize = 2000;
extern std::int64_t flicker_despike_working_memory_input1[kDespikeSize];
extern std::int64_t flicker_despike_working_memory_h1[kDespikeSize];
extern std::int64_t flicker_despike_working_memory_l1[kDespikeSize];
extern std::int64_t flicker_despike_working_memory_h2[kDespikeSize];
extern std::int64_t flicker_despike_working_memory_l2[kDespikeSize];
extern std::int64_t flicker_despike_working_memory_h3[kDespikeSize];
extern std::int64_t flicker_despike_working_memory_l3[kDespikeSize];
extern std::int32_t flicker_despike_working_memory_h_tmp[kDespikeSize];
extern std::int32_t flicker_despike_working_memory_h_mask[kDespikeSize];
extern std::int64_t flicker_despike_working_memory_h3r[kDespikeSize];
extern std::int64_t flicker_despike_working_memory_h2r[kDespikeSize];
extern std::int64_t flicker_despike_working_memory_l3r[kDespikeSize];
extern std::int64_t flicker_despike_working_memory_l2r[kDespikeSize];
extern std::int64_t flicker_despike_working_memory_l1r[kDespikeSize];

void flicker_despike(std::int32_t* input, std::int32_t* output, std::int32_t n);

// ---- Frequency estimation ----
void flicker_compute_freq(std::int32_t* signal, std::int32_t length, std::int32_t* freq_out);
void flicker_interpolation(std::int32_t* signal, std::int32_t* segment_lengths,
                           std::int32_t* junction_offsets, std::int32_t segment_count);
void flicker_compute_freq_robust(std::int32_t* version_a, std::int32_t* version_b,
                                 std::int32_t segment_count, std::int32_t* segment_lengths,
                                 std::int32_t* freq_out);

// Shared by the three pipelines' estimators.
// Cosine and sine sums of signal[0..length-1] against row k of g_flkTab1/g_flkTab2, starting at
// table column `column` (64-bit sums of 64-bit products).
void flicker_partial_sums(const std::int32_t* signal, std::int32_t length, std::int32_t k,
                          std::int32_t column, std::int64_t& re, std::int64_t& im);
// E[k] = Re^2 + Im^2 of the whole signal for the nine frequencies, Re and Im rounded by
// 2^(B(length) - 1) when B(length) > 1; both 0 when length < 1.
void flicker_energies(const std::int32_t* signal, std::int32_t length, std::int64_t* energies);
// freq_out[k] = E[k] brought under 2^(headroom) by one shift common to all nine: none when
// M >> headroom is 0, else p = B(M >> headroom) and round(E / 2^p) (M the largest, from -1).
void flicker_energies_to_features(const std::int64_t* energies, std::int32_t headroom,
                                  std::int32_t* freq_out);
// The multi-candidate estimators' common scale: h = M >> headroom, p = B(h) - 1 (0 when h <= 1);
// every energy becomes round(E / 2^p) in place when p > 0.
void flicker_scale_candidates(std::int64_t* energies, std::int32_t count, std::int64_t max_energy,
                              std::int32_t headroom);

// ---- zHDR statistics ----
extern std::int32_t ZHDR_LE_SAT_PREV[12];
extern std::int32_t ZHDR_LE_SAT_CURR[12];
extern std::int32_t ZHDR_SE_SAT_PREV[12];
extern std::int32_t ZHDR_SE_SAT_CURR[12];
extern std::int32_t ZHDR_LE_NOI_PREV[12];
extern std::int32_t ZHDR_LE_NOI_CURR[12];
extern std::int32_t ZHDR_SE_NOI_PREV[12];
extern std::int32_t ZHDR_SE_NOI_CURR[12];
extern std::int32_t ZHDR_LE_SE_SELECT[10];

void extract_ZHDR_INFO(std::int64_t* prevStats, std::int64_t* curStats, std::int32_t rows,
                       std::int32_t cols, std::int32_t groups);
void vector_selection_zHDR(const std::int64_t* prevStats, const std::int64_t* curStats,
                           std::int32_t n_win_h, std::int32_t n_win_w, std::int32_t win_wd,
                           std::int32_t win_ht, std::int32_t* prevOut, std::int32_t* curOut);
std::int32_t find_vector_zHDR(std::int32_t* seqs, std::int32_t len, std::int32_t zeroThr,
                              std::int32_t meanThr, std::int32_t count, std::int8_t* flags);

#endif  // KESTREL_STANDARD_H
