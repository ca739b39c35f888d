// SPDX-License-Identifier: Apache-2.0
// Standard-sensor pipeline (type 0): tables, detection driver, column selection, frame
// alignment, shift search, despike, frequency estimation and zHDR statistics. The tables and
// several working memories defined here are shared with the SONY and 2x5 pipelines.
#ifndef KESTREL_STANDARD_H
#define KESTREL_STANDARD_H

#include <cmath>
#include <cstdint>

#include "decision/decision.h"
#include "fixed_point.h"
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
  const auto swing = [&](std::int64_t a, std::int64_t b) {
    return (a < lo && b > hi) || (a > hi && b < lo);
  };
  if (len < 2) return 0;
  std::int32_t swings = swing(first == 0 ? 0 : buf[first - 1], buf[first]) ? 1 : 0;
  if (thr == INT32_MIN) {  // -thr leaves 32 bits
    for (std::int32_t i = 1; i + 1 < len; ++i) swings += swing(buf[first + i - 1], buf[first + i]);
    return swings;
  }
  // Both bounds are 32-bit words: the pair test in 32-bit lanes, which vectorises.
  const std::int32_t hi32 = thr;
  const std::int32_t lo32 = -thr;
  const std::int32_t* __restrict at = buf + first;
  for (std::int32_t i = 1; i + 1 < len; ++i) {
    const std::int32_t a = at[i - 1];
    const std::int32_t b = at[i];
    swings += static_cast<std::int32_t>(((a < lo32) & (b > hi32)) | ((a > hi32) & (b < lo32)));
  }
  return swings;
}

// rows entries of one column of both grids, from word first on, every stride words; a column
// past the grid's end (the default column 1 of a one-column grid) reads 0 beyond it.
inline void flicker_copy_column(const std::int64_t* prev, const std::int64_t* cur,
                                std::int64_t first, std::int32_t stride, std::int32_t rows,
                                std::int64_t grid_size, std::int32_t* outPrev,
                                std::int32_t* outCur) {
  std::int64_t inside = rows;
  if (rows >= 1 && first + static_cast<std::int64_t>(rows - 1) * stride >= grid_size) {
    inside = first >= grid_size ? 0 : (grid_size - first + stride - 1) / stride;
  }
  for (std::int32_t r = 0; r < inside; ++r) {
    const std::int64_t at = first + static_cast<std::int64_t>(r) * stride;
    outCur[r] = fx::low32(cur[at]);
    outPrev[r] = fx::low32(prev[at]);
  }
  for (std::int64_t r = inside; r < rows; ++r) outCur[r] = outPrev[r] = 0;
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
// Entries of avector_out_working_memory from here on hold 0: the library's own record of what
// it has written there (the standard and SONY alignments), so that clearing the whole array,
// 48 KB a frame, comes down to clearing what an earlier frame left.
extern std::int32_t avector_out_extent;
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
// exhaust_search_fine with the companded even samples already at hand, as the alignment's log
// ratio takes them: even_cur[i] = L(cur[2 i]) and even_prev[i] = L(prev[2 i]) for
// i < (len + 1) / 2, used when the candidates are taken at every second sample (outShift 1);
// null: none.
void flicker_fine_search(std::int32_t* cur, std::int32_t* prev, std::int64_t* curMask,
                         std::int64_t* prevMask, std::int32_t len, std::int32_t preShift,
                         std::int32_t outShift, std::int32_t halfSpan, std::int32_t fullLen,
                         std::int32_t coarse, std::int32_t& bestIndex, std::int32_t** outVec,
                         std::int32_t* outLen, const std::int32_t* even_cur,
                         const std::int32_t* even_prev);

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
// flicker_despike's output (and its refusal line) alone, the 64-bit working memories left as
// they are where the 32-bit path applies: for a caller whose next despike has the same length,
// which rewrites every word of them this call would have written.
void flicker_despike_output_only(std::int32_t* input, std::int32_t* output, std::int32_t n);

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
// The multi-candidate estimators read the same table columns once per candidate: the nine rows of
// both tables over [0, the largest extent) and each signal over [0, its extent) are packed to 16
// bits once, and flicker_packed_sums then gives flicker_partial_sums' sums for the segment of
// signal `signal` at [pos, pos + length) against columns from pos. False (nothing packed) unless
// every entry lies within +-2^9 (the tables hold +-255), every sample within +-2^13 (the
// estimators see about 2^10) and every extent within kFlkPackedColumns and the tables' width.
constexpr std::int32_t kFlkPackedColumns = 2048;
bool flicker_pack_sums(const std::int32_t* const* signals, const std::int64_t* extents,
                       std::int32_t count);
void flicker_packed_sums(std::int32_t signal, std::int32_t pos, std::int32_t length, std::int32_t k,
                         std::int64_t& re, std::int64_t& im);
// The same for signals 0 .. count - 1 (up to three) over one segment, into re[v] and im[v]: each
// table entry is read once for all of them.
void flicker_packed_sums_each(std::int32_t count, std::int32_t pos, std::int32_t length,
                              std::int32_t k, std::int64_t* re, std::int64_t* im);
// The sums of three versions over `segments` segments of segment_length samples, segment i at
// column i x segment_length, for the nine frequencies: store(k, i, re, im) takes segment i's
// sums of the three versions (zeros for a length below 1). The caller has checked the span
// against the tables' width.
template <typename Store>
void flicker_equal_segment_sums(const std::int32_t* const* versions, std::int32_t segments,
                                std::int32_t segment_length, Store store) {
  const std::int64_t extent = segment_length >= 1 ? std::int64_t{segments} * segment_length : 0;
  const std::int64_t extents[3] = {extent, extent, extent};
  const bool packed = flicker_pack_sums(versions, extents, 3);
  for (std::int32_t k = 0; k < 9; ++k) {
    for (std::int32_t i = 0; i < segments; ++i) {
      std::int64_t re[3] = {};
      std::int64_t im[3] = {};
      if (segment_length >= 1) {
        // A negative length reads nothing (and its position would leave 32 bits).
        const std::int32_t pos = i * segment_length;
        if (packed) {
          flicker_packed_sums_each(3, pos, segment_length, k, re, im);
        } else {
          for (std::int32_t v = 0; v < 3; ++v) {
            flicker_partial_sums(versions[v] + pos, segment_length, k, pos, re[v], im[v]);
          }
        }
      }
      store(k, i, re, im);
    }
  }
}
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

// The shift p of flicker_scale_candidates; non-decreasing in max_energy.
inline std::int32_t flicker_scale_shift(std::int64_t max_energy, std::int32_t headroom) {
  const std::int64_t h = max_energy >> headroom;
  return h <= 1 ? 0 : fx::bit_count(static_cast<std::uint64_t>(h)) - 1;
}

// Exact search of the multi-candidate estimators, split in the middle. A choice picks one
// candidate per segment; its sums are those of its low segments plus those of its high ones, each
// half's sums tabulated once per frequency k at [k * count + index] (with the half's total length
// at [index] when the search normalises by length).
struct FlkChoiceHalf {
  const std::int64_t* re;
  const std::int64_t* im;
  const std::int32_t* length;  // null: no normalisation
  std::uint32_t count;
};

// Sums over every choice of `count` segments from segment `first` (choice index: digit i in base
// `versions`, 2 or 3, picks candidate v of segment first + i, segment `first` least significant),
// from per-segment sums at [k * stride + versions * segment + v]; n = versions^count choices.
void flicker_tabulate_choices(const std::int64_t* part_re, const std::int64_t* part_im,
                              std::int32_t stride, std::int32_t versions, std::int32_t first,
                              std::int32_t count, std::uint32_t n, std::int64_t* re_out,
                              std::int64_t* im_out);

// The common shift of a search whose component is rshift_round64(sum, s) (min_length 0) or the
// Q7 average trunc(128 x sum / length) over choices at least min_length long, without visiting
// every choice: true with `p` set when bounds on the largest energy (from `largest`) give one
// shift. A choice's rounded (Re, Im) lies within 1/2 of its sums / 2^s (an average within
// 128 / min_length of them, truncation only shrinking it); their length is at most the largest
// projection on 32 directions / cos(pi / 32), and each projection's maximum is the sum of the two
// halves' maxima. The choice reaching each maximum is evaluated exactly for the lower bound.
template <typename Energy, typename LengthOf>
bool flicker_choice_energy_bounds(const FlkChoiceHalf& low, const FlkChoiceHalf& high,
                                  std::int32_t s, std::int64_t min_length, Energy energy,
                                  LengthOf length_of, std::int64_t largest, std::int32_t headroom,
                                  std::int32_t& p) {
  // cos(j pi / 16) in Q14, j = 0..8.
  static constexpr std::int64_t kCos[9] = {16384, 16069, 15137, 13623, 11585, 9102, 6270, 3196, 0};
  constexpr std::int64_t kSumLimit = std::int64_t{1} << 46;  // keeps the projections in 64 bits
  if (s > 16) return false;
  std::int64_t upper = largest;
  std::int64_t lower = largest;
  for (std::int32_t k = 0; k < 9; ++k) {
    const FlkChoiceHalf* halves[2] = {&low, &high};
    for (const FlkChoiceHalf* half : halves) {
      for (std::uint32_t i = 0; i < half->count; ++i) {
        const std::int64_t re = half->re[k * half->count + i];
        const std::int64_t im = half->im[k * half->count + i];
        if (re >= kSumLimit || re <= -kSumLimit || im >= kSumLimit || im <= -kSumLimit) {
          return false;
        }
      }
    }
    std::int64_t reach = 0;  // bound on the projections of the rounded vectors
    for (std::int32_t j = 0; j < 32; ++j) {
      const std::int32_t q = j & 15;  // cos and sin of j pi / 16 from the first quadrant
      const std::int64_t c = (j < 16 ? 1 : -1) * (q <= 8 ? kCos[q] : -kCos[16 - q]);
      const std::int64_t sn = (j < 16 ? 1 : -1) * (q <= 8 ? kCos[8 - q] : kCos[q - 8]);
      std::uint32_t best[2] = {0, 0};
      std::int64_t top[2] = {0, 0};
      for (std::int32_t part = 0; part < 2; ++part) {
        const FlkChoiceHalf& half = *halves[part];
        const std::int64_t* re = half.re + k * half.count;
        const std::int64_t* im = half.im + k * half.count;
        top[part] = re[0] * c + im[0] * sn;
        for (std::uint32_t i = 1; i < half.count; ++i) {
          const std::int64_t d = re[i] * c + im[i] * sn;
          if (d > top[part]) {
            top[part] = d;
            best[part] = i;
          }
        }
      }
      // Rounding moves each component by at most 1/2: the projection by at most 0.71.
      // Normalised: a bound on the raw sums' projection (Q14 floor plus one).
      const std::int64_t m =
          min_length > 0 ? ((top[0] + top[1]) >> 14) + 1 : ((top[0] + top[1]) >> (s + 14)) + 2;
      if (m > reach) reach = m;
      const std::int64_t e = energy(k, best[1], best[0], length_of(best[1], best[0]));
      if (e > lower) lower = e;
    }
    // 1030 / 1024 >= 1 / (cos(pi / 32) - 2^-14.5), the last term for the Q14 rounding of the
    // directions.
    std::int64_t radius = (reach * 1030 >> 10) + 1;
    // Normalised: truncation toward zero only shrinks 128 x sum / length, length >= min_length.
    if (min_length > 0) radius = (radius * 128 + min_length - 1) / min_length + 1;
    if (radius >= (std::int64_t{1} << 31)) return false;  // the squares could wrap
    if (radius * radius > upper) upper = radius * radius;
  }
  p = flicker_scale_shift(lower, headroom);
  return flicker_scale_shift(upper, headroom) == p;
}

// Features of `n` choices sharing the high half (sums high_re, high_im, length high_length) at
// one frequency, when every sum fits in 32 bits and every component stays within 2^25 (the caller
// checks). The component is the sum itself (kComponent 0), its rounding shift by s (1, in 32
// bits) or its Q7 average trunc(128 x sum / length) (2); the squares, their sum and the energy's
// rounding shift by p are computed in double precision, where each is an integer below 2^53 and
// so exact (the average's quotient too: an error below 2^-53 of a quotient whose numerator is
// below 2^53 cannot cross an integer; the shift is a multiplication by 2^-p of a non-negative
// value, truncated: `half` = 2^(p-1) and `scale` = 2^-p). Each feature is added, clamped, to the
// choice's `sum` of all nine. Several
// choices to a vector, and no 64-bit multiply or shift, which the baseline vector units lack.
template <int kComponent, bool kRoundEnergies>
void flicker_narrow_features(const std::int32_t* __restrict low_re,
                             const std::int32_t* __restrict low_im,
                             const double* __restrict low_length, std::int32_t high_re,
                             std::int32_t high_im, double high_length, std::int32_t s, double half,
                             double scale, std::uint32_t n, std::int32_t* __restrict out,
                             std::int32_t* __restrict sum) {
  for (std::uint32_t i = 0; i < n; ++i) {
    std::int32_t re = low_re[i] + high_re;
    std::int32_t im = low_im[i] + high_im;
    if constexpr (kComponent == 1) {
      re = fx::rshift_round32_positive(re, s);
      im = fx::rshift_round32_positive(im, s);
    } else if constexpr (kComponent == 2) {
      // The lengths come divided by 128 (exact, as is their sum): x / (length / 128) is the
      // correctly rounded 128 x / length.
      const double length = low_length[i] + high_length;
      re = static_cast<std::int32_t>(re / length);
      im = static_cast<std::int32_t>(im / length);
    }
    const double dre = re;
    const double dim = im;
    double e = dre * dre + dim * dim;
    if constexpr (kRoundEnergies) e = (e + half) * scale;
    out[i] = static_cast<std::int32_t>(e);
    sum[i] = fx::wrap_add32(
        sum[i], fx::clamp32(out[i], -FlkFrameScorer::kFeatureClamp, FlkFrameScorer::kFeatureClamp));
  }
}

// Bounds on the score of every choice of a narrow search whose component is the rounding shift
// of its sum by s (0: the sum itself), or with lengths (low_length non-null) the Q7 average over
// the choice's length (each half's lengths non-negative, the least choice at least 1 long, every
// choice below 2^24), and whose scored feature j is left out of the mean, with headroom <= 21
// (features at most 2^22: no clamp acts). The low half's 32-bit sums at [k * kFlkBoundBlock + lo],
// nl <= kFlkBoundBlock; the high half's at [k * nh + hi], each within 2^29. Writes an upper bound
// of the score of choice (hi, lo) at ub[hi * nl + lo], clamped to 16 bits (INT16_MAX when none is
// found), and returns a score some choice is known to reach at least (INT16_MIN when none): every
// choice whose bound lies below it loses. Sets p to the search's common shift (with `largest` as
// flicker_pick_choice takes it), or -1 when it stays open.
constexpr std::uint32_t kFlkBoundBlock = 243;
std::int32_t flicker_choice_score_bounds(const std::int32_t* low_re, const std::int32_t* low_im,
                                         const std::int32_t* low_length, std::uint32_t nl,
                                         const std::int64_t* high_re, const std::int64_t* high_im,
                                         const std::int32_t* high_length, std::uint32_t nh,
                                         std::int32_t s, std::int64_t largest,
                                         std::int32_t headroom, const FlkFrameScorer& scorer,
                                         std::int16_t* ub, std::int32_t& p);
// Room for the bounds of the largest split search, 3^5 x 3^5 choices.
std::int16_t* flicker_choice_bound_scratch();

// Choice q = hi x low.count + lo in increasing q. component(sum, length) gives the value whose
// square enters the energy; the nine energies of every choice are scaled by the common shift of
// the largest of all (from `largest`) and scored; the first choice scoring strictly above
// best_score replaces it and freq_out. When the component is rshift_round64(sum, bound_shift)
// (bound_shift >= 0; -1 otherwise), or the halves carry lengths and the component is the Q7
// average over the choice's length (0 counting as 1), bounds may settle the shift without the
// pass that finds the largest energy.
template <typename Component>
void flicker_pick_choice(const FlkChoiceHalf& low, const FlkChoiceHalf& high, Component component,
                         std::int32_t bound_shift, std::int64_t largest, std::int32_t headroom,
                         std::int32_t* freq_out, std::int32_t& best_score) {
  const std::uint32_t nl = low.count;
  const std::uint32_t nh = high.count;
  const auto length_of = [&](std::uint32_t hi, std::uint32_t lo) -> std::int32_t {
    return low.length == nullptr ? 0 : fx::wrap_add32(low.length[lo], high.length[hi]);
  };
  const auto energy = [&](std::int32_t k, std::uint32_t hi, std::uint32_t lo, std::int32_t length) {
    const std::int64_t re = component(low.re[k * nl + lo] + high.re[k * nh + hi], length);
    const std::int64_t im = component(low.im[k * nl + lo] + high.im[k * nh + hi], length);
    return fx::wrap_add64(fx::wrap_mul64(re, re), fx::wrap_mul64(im, im));
  };

  bool shift_known = false;
  std::int32_t p = 0;
  // Length-normalised searches: every choice at least min_length long (no 32-bit wrap, no zero).
  std::int64_t min_length = 0;
  bool short_lengths = false;  // every choice below 2^24: exact in single precision
  if (low.length != nullptr) {
    std::int64_t low_min = INT32_MAX, high_min = INT32_MAX;
    std::int64_t low_max = 0, high_max = 0;
    bool plain = true;
    for (std::uint32_t i = 0; i < nl; ++i) {
      plain = plain && low.length[i] >= 0 && low.length[i] < (1 << 30);
      low_min = std::min<std::int64_t>(low_min, low.length[i]);
      low_max = std::max<std::int64_t>(low_max, low.length[i]);
    }
    for (std::uint32_t i = 0; i < nh; ++i) {
      plain = plain && high.length[i] >= 0 && high.length[i] < (1 << 30);
      high_min = std::min<std::int64_t>(high_min, high.length[i]);
      high_max = std::max<std::int64_t>(high_max, high.length[i]);
    }
    if (plain && low_min + high_min >= 1) min_length = low_min + high_min;
    short_lengths = low_max + high_max < (1 << 24);
  }
  // Per block of low choices, frequency by frequency: the features of every choice, then their
  // clamped 32-bit sums (wrapping sums reorder freely: all nine less feature k), then the scores.
  constexpr std::uint32_t kBlock = kFlkBoundBlock;
  std::int32_t features[9][kBlock];
  std::int32_t sums[kBlock];
  std::int32_t scores[kBlock];
  static constexpr std::int32_t no_feature[kBlock] = {};  // subtracted when no feature is scored
  const FlkFrameScorer scorer;
  constexpr std::int32_t kClamp = FlkFrameScorer::kFeatureClamp;
  const bool exclude = scorer.k >= 0 && scorer.k < 9;
  const std::int32_t j = static_cast<std::uint32_t>(scorer.k) > 8u ? 8 : scorer.k;
  // The narrow path, on 32-bit copies of the low half's sums, when the half-sums stay within a
  // limit L (real frames: about 2^26): a choice's sum within 2L <= 2^30. A rounding shift
  // (s <= 30, its term within 2^29 more) takes L = 2^(24 + s) up to 2^29, its components within
  // 2^25; an average over at least min_length samples takes L = 2^17 x min_length up to 2^29,
  // its components within 128 x 2L / min_length = 2^25. Energies then stay below 2^51 (with
  // p <= 52 their rounding term below 2^51 too), and with the headroom at most 29 a feature,
  // below 2^(headroom + 1), fits the 32-bit conversion.
  std::int32_t low_re32[9][kBlock];
  std::int32_t low_im32[9][kBlock];
  constexpr std::int64_t kWide = std::int64_t{1} << 29;
  std::int32_t narrow_kind = -1;
  std::int64_t limit = 0;
  if (low.length == nullptr && bound_shift >= 0 && bound_shift <= 30) {
    narrow_kind = bound_shift > 0 ? 1 : 0;
    limit = bound_shift < 5 ? std::int64_t{1} << (24 + bound_shift) : kWide;
  } else if (low.length != nullptr && min_length > 0) {
    narrow_kind = 2;
    limit = min_length < 4096 ? min_length << 17 : kWide;
  }
  const auto within = [limit](const std::int64_t* v, std::uint32_t count) {
    bool inside = true;
    for (std::uint32_t i = 0; i < count; ++i) inside = inside && v[i] < limit && v[i] > -limit;
    return inside;
  };
  const bool narrow_sums = narrow_kind >= 0 && headroom <= 29 && nl <= kBlock &&
                           within(low.re, 9 * nl) && within(low.im, 9 * nl) &&
                           within(high.re, 9 * nh) && within(high.im, 9 * nh);
  double low_length[kBlock];
  if (narrow_sums) {
    for (std::int32_t k = 0; k < 9; ++k) {
      for (std::uint32_t i = 0; i < nl; ++i) {
        low_re32[k][i] = fx::low32(low.re[k * nl + i]);
        low_im32[k][i] = fx::low32(low.im[k * nl + i]);
      }
    }
    if (narrow_kind == 2) {
      for (std::uint32_t i = 0; i < nl; ++i) low_length[i] = low.length[i] / 128.0;
    }
  }
  // Many choices: bounds on every choice's score first (which also find the common shift), then
  // only the choices whose bound reaches a score some choice is known to have are scored exactly,
  // in increasing q as before. The others score below the best, so skipping them changes nothing.
  constexpr std::uint64_t kBoundedChoices = 2187;
  const bool normalised = narrow_kind == 2;
  bool bounded = narrow_sums && (!normalised || short_lengths) && exclude && headroom <= 21 &&
                 static_cast<std::uint64_t>(nl) * nh >= kBoundedChoices;
  std::int16_t* const bounds = bounded ? flicker_choice_bound_scratch() : nullptr;
  std::int32_t reach = 0;
  if (bounded) {
    std::int32_t found = -1;
    reach = fx::clamp32(flicker_choice_score_bounds(
                            &low_re32[0][0], &low_im32[0][0], normalised ? low.length : nullptr, nl,
                            high.re, high.im, normalised ? high.length : nullptr, nh,
                            normalised ? 0 : bound_shift, largest, headroom, scorer, bounds, found),
                        INT16_MIN, INT16_MAX);
    if (found >= 0) {
      p = found;
      shift_known = true;
    }
  }
  // The bounds cost about 32 passes over the halves: worth it only against many choices.
  const bool many =
      static_cast<std::uint64_t>(nl) * nh >= 16 * (static_cast<std::uint64_t>(nl) + nh);
  if (!shift_known && many && (bound_shift >= 0 || min_length > 0) &&
      flicker_choice_energy_bounds(low, high, bound_shift < 0 ? 0 : bound_shift, min_length, energy,
                                   length_of, largest, headroom, p)) {
    shift_known = true;
  }
  if (!shift_known) {
    for (std::uint32_t hi = 0; hi < nh; ++hi) {
      for (std::uint32_t lo = 0; lo < nl; ++lo) {
        const std::int32_t length = length_of(hi, lo);
        for (std::int32_t k = 0; k < 9; ++k) {
          const std::int64_t e = energy(k, hi, lo, length);
          if (e > largest) largest = e;
        }
      }
    }
    p = flicker_scale_shift(largest, headroom);
  }

  const bool narrow = narrow_sums && p <= 52;
  bounded = bounded && narrow;
  // The energy's rounding shift by p as a multiplication: its half and 2^-p.
  const double half = p > 0 ? std::ldexp(1.0, p - 1) : 0.0;
  const double scale = std::ldexp(1.0, -p);
  // The kernel for the component and for whether the energies are shifted, chosen once.
  using NarrowKernel =
      void (*)(const std::int32_t*, const std::int32_t*, const double*, std::int32_t, std::int32_t,
               double, std::int32_t, double, double, std::uint32_t, std::int32_t*, std::int32_t*);
  static constexpr NarrowKernel kKernels[3][2] = {
      {flicker_narrow_features<0, false>, flicker_narrow_features<0, true>},
      {flicker_narrow_features<1, false>, flicker_narrow_features<1, true>},
      {flicker_narrow_features<2, false>, flicker_narrow_features<2, true>}};
  const NarrowKernel kernel = narrow ? kKernels[narrow_kind][p > 0 ? 1 : 0] : nullptr;
  const auto narrow_features =
      [&](std::int32_t k, std::uint32_t hi, const std::int32_t(*re32)[kBlock],
          const std::int32_t(*im32)[kBlock], const double* lengths, std::uint32_t first,
          std::uint32_t n, std::int32_t* out, std::int32_t* sum) {
        const std::int32_t* lr = re32[k] + first;
        const std::int32_t* li = im32[k] + first;
        const double* ll = lengths + first;
        const std::int32_t hr = fx::low32(high.re[k * nh + hi]);
        const std::int32_t him = fx::low32(high.im[k * nh + hi]);
        const double hl = low.length == nullptr ? 0.0 : high.length[hi] / 128.0;
        kernel(lr, li, ll, hr, him, hl, bound_shift, half, scale, n, out, sum);
      };
  std::int32_t pick_re32[9][kBlock];
  std::int32_t pick_im32[9][kBlock];
  double pick_length[kBlock];
  for (std::uint32_t hi = 0; hi < nh; ++hi) {
    for (std::uint32_t first = 0; first < nl; first += kBlock) {
      std::uint32_t n = nl - first < kBlock ? nl - first : kBlock;
      const std::int32_t(*re32)[kBlock] = low_re32;
      const std::int32_t(*im32)[kBlock] = low_im32;
      const double* lengths = low_length;
      std::uint32_t from = first;
      if (bounded) {
        const std::int16_t* bound = bounds + hi * nl;
        std::uint32_t count = 0;
        // Sixteen bounds at a time: most groups hold no candidate (a vectorised count).
        constexpr std::uint32_t kGroup = 16;
        for (std::uint32_t start = 0; start < n; start += kGroup) {
          const std::uint32_t end = n - start < kGroup ? n : start + kGroup;
          std::int32_t hits = 0;
          for (std::uint32_t i = start; i < end; ++i) hits += bound[i] >= reach ? 1 : 0;
          if (hits == 0) continue;
          for (std::uint32_t i = start; i < end; ++i) {
            if (bound[i] < reach) continue;
            for (std::int32_t k = 0; k < 9; ++k) {
              pick_re32[k][count] = low_re32[k][i];
              pick_im32[k][count] = low_im32[k][i];
            }
            if (normalised) pick_length[count] = low_length[i];
            ++count;
          }
        }
        if (count == 0) continue;
        n = count;
        re32 = pick_re32;
        im32 = pick_im32;
        lengths = pick_length;
        from = 0;
      }
      for (std::uint32_t i = 0; i < n; ++i) sums[i] = 0;
      for (std::int32_t k = 0; k < 9; ++k) {
        std::int32_t* __restrict out = features[k];
        if (narrow) {
          narrow_features(k, hi, re32, im32, lengths, from, n, out, sums);
          continue;
        }
        for (std::uint32_t i = 0; i < n; ++i) {
          const std::int64_t e = energy(k, hi, first + i, length_of(hi, first + i));
          out[i] = fx::low32(p > 0 ? fx::rshift_round64(e, p) : e);
          sums[i] = fx::wrap_add32(sums[i], fx::clamp32(out[i], -kClamp, kClamp));
        }
      }
      // Every score first (a vectorised pass), then the first strictly above the best.
      const std::int32_t* __restrict excluded = exclude ? features[scorer.k] : no_feature;
      const std::int32_t* __restrict scored = features[j];
      for (std::uint32_t i = 0; i < n; ++i) {
        const std::int32_t others =
            fx::wrap_sub32(sums[i], fx::clamp32(excluded[i], -kClamp, kClamp));
        const std::int32_t mean =
            static_cast<std::int32_t>(static_cast<std::uint32_t>(others) / 8u);
        scores[i] = scorer.ScoreOf(scored[i], mean > 1 ? mean : 1);
      }
      for (std::uint32_t i = 0; i < n; ++i) {
        if (scores[i] > best_score) {
          best_score = scores[i];
          for (std::int32_t k = 0; k < 9; ++k) freq_out[k] = features[k][i];
        }
      }
    }
  }
}

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
