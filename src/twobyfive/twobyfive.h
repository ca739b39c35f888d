// SPDX-License-Identifier: Apache-2.0
// "2x5" pipeline (type 2): tables, detection driver and column selection, eighth-sample
// alignment, adaptive despike and the length-normalised frequency features.
#ifndef KESTREL_TWOBYFIVE_H
#define KESTREL_TWOBYFIVE_H

#include <cmath>
#include <cstdint>

#include "kestrel/flicker.h"

// ---- Tables ----
void flicker_init_2x5(std::int32_t line_length, std::int32_t column_length,
                      std::int32_t window_width, std::int32_t block_height, std::int32_t green_only,
                      double pclk);
void calLogTable_2x5(std::int32_t value_max, std::int32_t* table, std::int32_t shift);
void calFftTable_2x5(std::int32_t sample_interval, std::int32_t width, std::int32_t count,
                     double pclk, std::int32_t* cosTable, std::int32_t* sinTable);

// ---- Detection driver and column selection ----
std::int32_t detectFlicker_SW_2x5(std::int32_t* prev, std::int32_t* cur, std::int32_t n_win_h,
                                  std::int32_t n_win_w, std::int32_t win_wd, std::int32_t win_ht,
                                  std::int32_t, FlkSensorInfo, FlkEISVector, FlkAEInfo,
                                  std::int32_t*);
std::int32_t find_vector_2x5(std::int32_t* cols, std::int32_t len, std::int32_t ncols,
                             std::int32_t thr, std::int32_t minMean);
void vector_selection_2x5(const std::int32_t* prev, const std::int32_t* cur, std::int32_t n_win_h,
                          std::int32_t n_win_w, std::int32_t win_wd, std::int32_t bandHeight,
                          std::int32_t* ignored, std::int32_t* outPrev, std::int32_t* outCur);

// ---- Sub-pixel alignment ----
extern std::int32_t vec_log_curr_working_memory[12000];
extern std::int32_t vec_log_prev_working_memory[12000];
extern std::int32_t vec_laplace_curr_working_memory[12000];
extern std::int32_t vec_nonAlign_working_memory[12000];
extern std::int32_t vec_align1_working_memory[12000];
extern std::int32_t vec_align2_working_memory[12000];
extern std::int32_t seg_prev_log_shift_working_memory[2000];
extern std::int32_t seg_laplace_prev_working_memory[2000];

// Largest shift of the alignment, in eighths of a sample: 256 x totalLength / 1878 rounded to
// nearest (32 samples each way at 1878 rows).
inline std::int32_t shift_range_2x5(std::int32_t totalLength) {
  return (256 * totalLength + 939) / 1878;
}
// Largest shift difference, in eighths, between neighbouring windows of a registered frame:
// 1.5 % of the frame length, rounded up.
inline std::int32_t neighbour_step_2x5(std::int32_t totalLength) {
  return static_cast<std::int32_t>(std::ceil(static_cast<double>(totalLength) * 0.015 * 8.0));
}

void align_flicker_subpixel_2x5(std::int32_t* curStats, std::int32_t* prevStats,
                                std::int32_t numWindows, std::int32_t windowLength, std::int32_t,
                                std::int32_t totalLength, std::int32_t* freq_out,
                                std::int32_t& aeStable, std::int32_t& frameScore);
void convolve_Laplacian_filter_2x5(std::int32_t* in, std::int32_t* out, std::int32_t n);
void subpixel_shift_vec_2x5(const std::int32_t* in, std::int32_t* out, std::int32_t n,
                            std::int32_t shift, std::int32_t den);
std::int32_t laplace_diff_avg_2x5(std::int32_t* a, std::int32_t* b, std::int32_t n,
                                  std::int32_t clip, std::int32_t scaleShift);
void determineValidLength_2x5(std::int32_t numWindows, const std::int32_t* offsets,
                              std::int32_t* pads, std::int32_t den, const std::int32_t* winLens,
                              std::int32_t margin, std::int32_t* validLens, std::int32_t*& start,
                              std::int32_t& total);
void check_alignment_2x5(const std::int32_t* offsets, std::int32_t n, std::int32_t maxStep,
                         std::int32_t& flag);
std::int32_t check_AE_stable_2x5(std::int32_t n, std::int32_t* curStats, std::int32_t* prevStats);

// ---- Adaptive despike (shares the standard despike's working memories) ----
extern std::int32_t flicker_despike_working_memory_l2r_32bit[2000];
extern std::int32_t flicker_despike_working_memory_h1r[2000];

void flickerDespikeAdaptive_2x5(std::int32_t* input, std::int32_t* output, std::int32_t n,
                                std::int32_t levels, std::int32_t threshold);

// ---- Frequency features ----
void flicker_compute_freq_2x5(std::int32_t* signal, std::int32_t length, std::int32_t* freq_out);
void flicker_compute_freq_3x_2x5(std::int32_t** versions, std::int32_t segment_count,
                                 std::int32_t** version_lengths, std::int32_t* freq_out,
                                 std::int32_t& best_score);
void flicker_compute_freq_3x_2x5(std::int32_t* version_a, std::int32_t* version_b,
                                 std::int32_t* version_c, std::int32_t segment_count,
                                 std::int32_t segment_length, std::int32_t* freq_out);
std::int32_t compute_noiseness_2x5(const std::int32_t* values, std::int32_t count);

#endif  // KESTREL_TWOBYFIVE_H
