// SPDX-License-Identifier: Apache-2.0
// SONY-sensor pipeline (type 1): tables, tone curve and column selection, quarter-sample
// alignment, despike and the three-candidate frequency features.
#ifndef KESTREL_SONY_H
#define KESTREL_SONY_H

#include <cstdint>

#include "kestrel/flicker.h"

// Geometry the type-1 buffers hold; a DETECT outside it is refused before anything is written.
constexpr std::int32_t kSonyMaxRows = 2000;         // despiked copies and full-resolution ratios
constexpr std::int32_t kSonyMinRows = 7;            // the level-2 detail synthesis mirrors 7
constexpr std::int32_t kSonyMaxWindows = 10;        // per-window offsets
constexpr std::int32_t kSonyMaxColumns = 10;        // per-column means and swing counts
constexpr std::int32_t kSonyMaxBandValues = 12000;  // the transposed band
constexpr std::int32_t kSonyMaxWindowRows = 1000;   // per-window log vectors
constexpr std::int32_t kSonyMinWindowRows = 4;      // the Laplacian's end rows

// ---- Tables ----
void flicker_init_SONY(std::int32_t line_length, std::int32_t column_length,
                       std::int32_t window_width, double pclk);
double calCompTable_SONY(std::int32_t window_width, std::int32_t* table, std::int32_t shift);
void calFftTable_SONY(std::int32_t line_length, std::int32_t width, std::int32_t count, double pclk,
                      std::int32_t* cosTable, std::int32_t* sinTable);

// ---- Detection driver and column selection ----
std::int32_t detectFlicker_SW_SONY(std::int32_t* prev, std::int32_t* cur, std::int32_t n_win_h,
                                   std::int32_t n_win_w, std::int32_t win_wd, std::int32_t win_ht,
                                   std::int32_t, FlkSensorInfo, FlkEISVector, FlkAEInfo,
                                   std::int32_t*);
void SGG_adaptive_SONY(std::int32_t* in, std::int32_t* out, std::int32_t n, std::int32_t inBits,
                       std::int32_t outBits);
std::int32_t find_vector_SONY(std::int32_t* cols, std::int32_t len, std::int32_t ncols,
                              std::int32_t thr, std::int32_t minMean);
// The column choice of the sub-pixel pipelines: per column the mean (subtracted in place) and
// the sign swings across +-thr between neighbouring rows; the quietest column that is not much
// darker wins, unless all counts are equal or all means below minMean (then the brightest). The
// search starts from the reference column's count and mean (-1: from no reference), and from
// result 1 either way.
std::int32_t flicker_choose_column(std::int32_t* cols, std::int32_t len, std::int32_t ncols,
                                   std::int32_t thr, std::int32_t minMean, std::int32_t reference);
void vector_selection_SONY(const std::int32_t* prev, const std::int32_t* cur, std::int32_t n_win_h,
                           std::int32_t n_win_w, std::int32_t win_wd, std::int32_t win_ht,
                           std::int32_t* ignored, std::int32_t* outPrev, std::int32_t* outCur);

// ---- Sub-pixel alignment ----
extern std::int32_t ovector_out_tmp_working_memory[2000];
extern std::int32_t cvector_out_tmp_working_memory[2000];

void align_flicker_SONY_subpixel(std::int32_t* curStats, std::int32_t* prevStats,
                                 std::int32_t numWindows, std::int32_t windowLength, std::int32_t,
                                 std::int32_t totalLength, std::int32_t* freq_out,
                                 std::int32_t& aeStable, std::int32_t& alignFlag);
// 5-tap second difference 1 1 -4 1 1 with the vector mirrored about its ends (n >= 4).
void convolve_Laplacian_filter_SONY(std::int32_t* in, std::int32_t* out, std::int32_t n);
// Shifts a vector by shift/den samples with linear interpolation and edge repetition.
void subpixel_shift_vec_SONY(std::int32_t* in, std::int32_t* out, std::int32_t n,
                             std::int32_t shift, std::int32_t den);
// Where a shift of s / den samples (den > 0) reads the input: row j is row j + offset of the
// input shifted by weight / den (weight 0: the input itself), away from the repeated edge samples.
// Backward shifts repeat q + 1 leading samples (q for whole shifts) and blend with the weights
// swapped. The alignments tabulate the den sequences once per window on this.
struct FlkShiftSource {
  std::int32_t weight;
  std::int32_t offset;
};
inline FlkShiftSource flicker_shift_source(std::int32_t s, std::int32_t den) {
  const std::int32_t a = s < 0 ? -s : s;
  const std::int32_t q = a / den;
  const std::int32_t r = a % den;
  if (s >= 0) return {r, q};
  if (r != 0) return {den - r, -(q + 1)};
  return {0, -q};
}
std::int32_t check_AE_stable_SONY(std::int32_t n, std::int32_t* curStats, std::int32_t* prevStats);
void check_alignment_SONY(std::int32_t* offsets, std::int32_t n, std::int32_t,
                          std::int32_t& alignFlag);

// ---- Despike ----
extern std::int32_t flicker_despike_working_memory_h1_sony[2000];
extern std::int32_t flicker_despike_working_memory_l1_sony[2000];
extern std::int32_t flicker_despike_working_memory_h2_sony[2000];
extern std::int32_t flicker_despike_working_memory_l2_sony[2000];
extern std::int32_t flicker_despike_working_memory_h2r_sony[2000];
extern std::int32_t flicker_despike_working_memory_l2r_sony[2000];
extern std::int32_t flicker_despike_working_memory_l1r_sony[2000];

void flicker_despike_SONY(std::int32_t* input, std::int32_t* output, std::int32_t n);

// ---- Frequency features ----
void flicker_compute_freq_SONY(std::int32_t* signal, std::int32_t length, std::int32_t* freq_out);
void flicker_compute_freq_3x_SONY(std::int32_t* version_a, std::int32_t* version_b,
                                  std::int32_t* version_c, std::int32_t segment_count,
                                  std::int32_t segment_length, std::int32_t* freq_out);

#endif  // KESTREL_SONY_H
