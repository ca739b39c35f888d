// SPDX-License-Identifier: Apache-2.0
// Wavelet filter bank: the integer FIR kernels (analysis with decimation, synthesis) and their tap
// tables, shared by the three despike stages and the standard alignment.
#ifndef KESTREL_FILTERBANK_H
#define KESTREL_FILTERBANK_H

#include <cstdint>

// Tap tables (read-only in use; not const because the kernels take int*).
extern std::int32_t flicker_filter_s[5];    // 1 4 6 4 1, sum 16: smoothing
extern std::int32_t flicker_filter_s1[13];  // sum 256: the coarse shift search's low-pass
extern std::int32_t flicker_filter_s2[9];   // nine ones: box smoothing of the spike measure
extern std::int32_t flicker_filter_h[2];    // -1 1: first difference
extern std::int32_t flicker_filter_h1[3];   // 1 0 -1: central difference
extern std::int32_t flicker_filter_q[8];    // antisymmetric, sum 0: every synthesis call

// Border-extended copies of the kernels' inputs. Input length plus both pads must stay within
// kFilterWorkSize; the despike callers keep signals at most 2000 samples with pads up to 14.
constexpr std::int32_t kFilterWorkSize = 2100;
extern std::int32_t convolve_analysis_working_memory_32[kFilterWorkSize];
extern std::int64_t convolve_analysis_working_memory_64[kFilterWorkSize];
extern std::int32_t convolve_synthesis_working_memory_32[kFilterWorkSize];
extern std::int64_t convolve_synthesis_working_memory_64[kFilterWorkSize];

// Arguments: input x (n samples, read only), output y, taps h with L taps before and R after the
// centre, dilation d, rounding right shift s (0 = none), and for analysis the decimation step.
// The 32-bit kernels wrap on overflow; the 64-bit ones widen the taps.
void convolve_analysis(std::int32_t* x, std::int32_t n, std::int32_t* y, std::int32_t* h,
                       std::int32_t L, std::int32_t R, std::int32_t d, std::int32_t s,
                       std::int32_t step);
void convolve_analysis(std::int64_t* x, std::int32_t n, std::int64_t* y, std::int32_t* h,
                       std::int32_t L, std::int32_t R, std::int32_t d, std::int32_t s,
                       std::int32_t step);
void convolve_synthesis(std::int32_t* x, std::int32_t n, std::int32_t* y, std::int32_t* h,
                        std::int32_t L, std::int32_t R, std::int32_t d, std::int32_t s);
void convolve_synthesis(std::int64_t* x, std::int32_t n, std::int64_t* y, std::int32_t* h,
                        std::int32_t L, std::int32_t R, std::int32_t d, std::int32_t s);
// The 32-bit kernels over a caller's extension buffer of kFilterWorkSize words, leaving the
// working memories above alone: for a caller that has proved its bands cannot wrap and keeps
// them in 32 bits. With work null, x itself keeps kFilterPadRoom writable words before and after
// its n samples, and the border extension is written there around the samples instead of into a
// copy (a filter whose pads exceed the room writes nothing).
constexpr std::int32_t kFilterPadRoom = 16;
void convolve_analysis_into(std::int32_t* x, std::int32_t n, std::int32_t* y, std::int32_t* h,
                            std::int32_t L, std::int32_t R, std::int32_t d, std::int32_t s,
                            std::int32_t step, std::int32_t* work);
void convolve_synthesis_into(std::int32_t* x, std::int32_t n, std::int32_t* y, std::int32_t* h,
                             std::int32_t L, std::int32_t R, std::int32_t d, std::int32_t s,
                             std::int32_t* work);
// Only the border-extended copy a 64-bit call leaves in its working memory, without filtering.
void convolve_analysis_extend(const std::int64_t* x, std::int32_t n, std::int32_t L, std::int32_t R,
                              std::int32_t d);
void convolve_synthesis_extend(const std::int64_t* x, std::int32_t n, std::int32_t L,
                               std::int32_t R, std::int32_t d);
void convolve_synthesis_32_to_64_2x5(std::int32_t* x, std::int32_t n, std::int64_t* y,
                                     std::int32_t* h, std::int32_t L, std::int32_t R,
                                     std::int32_t d, std::int32_t s);

#endif  // KESTREL_FILTERBANK_H
