// SPDX-License-Identifier: Apache-2.0
// The filter bank's kernels: border extension, dilated correlation, rounding shift.
#include "filterbank/filterbank.h"

std::int32_t convolve_analysis_working_memory_32[kFilterWorkSize];
std::int64_t convolve_analysis_working_memory_64[kFilterWorkSize];
std::int32_t convolve_synthesis_working_memory_32[kFilterWorkSize];
std::int64_t convolve_synthesis_working_memory_64[kFilterWorkSize];

// Placeholders until the kernels land.
void convolve_analysis(std::int32_t*, std::int32_t, std::int32_t*, std::int32_t*, std::int32_t,
                       std::int32_t, std::int32_t, std::int32_t, std::int32_t) {}
void convolve_analysis(std::int64_t*, std::int32_t, std::int64_t*, std::int32_t*, std::int32_t,
                       std::int32_t, std::int32_t, std::int32_t, std::int32_t) {}
void convolve_synthesis(std::int32_t*, std::int32_t, std::int32_t*, std::int32_t*, std::int32_t,
                        std::int32_t, std::int32_t, std::int32_t) {}
void convolve_synthesis(std::int64_t*, std::int32_t, std::int64_t*, std::int32_t*, std::int32_t,
                        std::int32_t, std::int32_t, std::int32_t) {}
void convolve_synthesis_32_to_64_2x5(std::int32_t*, std::int32_t, std::int64_t*, std::int32_t*,
                                     std::int32_t, std::int32_t, std::int32_t, std::int32_t) {}
