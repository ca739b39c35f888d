// SPDX-License-Identifier: Apache-2.0
// SONY despike: two-level split, first-difference spike test, rebuild with the fine detail.
#include <cstdint>

#include "filterbank/filterbank.h"
#include "fixed_point.h"
#include "interface/interface.h"
#include "sony/sony.h"

namespace {
// Raw first difference that marks a spike (41 counts; 40 is still signal).
constexpr std::int32_t kSpikeStep = 41;
}  // namespace

std::int32_t flicker_despike_working_memory_h1_sony[2000];
std::int32_t flicker_despike_working_memory_l1_sony[2000];
std::int32_t flicker_despike_working_memory_h2_sony[2000];
std::int32_t flicker_despike_working_memory_l2_sony[2000];
std::int32_t flicker_despike_working_memory_h2r_sony[2000];
std::int32_t flicker_despike_working_memory_l2r_sony[2000];
std::int32_t flicker_despike_working_memory_l1r_sony[2000];

void flicker_despike_SONY(std::int32_t* input, std::int32_t* output, std::int32_t n) {
  if (n < 1) return;
  // The scratch holds kSonyMaxRows samples; the level-2 detail synthesis mirrors 7 of them.
  if (n > kSonyMaxRows || n < kSonyMinRows) {
    LogRefusalFlk("flicker_despike_SONY", "%d samples outside %d..%d", n, kSonyMinRows,
                  kSonyMaxRows);
    return;
  }
  std::int32_t* const h1 = flicker_despike_working_memory_h1_sony;
  std::int32_t* const l1 = flicker_despike_working_memory_l1_sony;
  std::int32_t* const h2 = flicker_despike_working_memory_h2_sony;
  std::int32_t* const l2 = flicker_despike_working_memory_l2_sony;
  std::int32_t* const h2r = flicker_despike_working_memory_h2r_sony;
  std::int32_t* const l2r = flicker_despike_working_memory_l2r_sony;
  std::int32_t* const l1r = flicker_despike_working_memory_l1r_sony;

  // Bands in 32 bits, wrapping: l1 16 x the input, l2 256 x; h1 1 x, h2 16 x.
  convolve_analysis(input, n, h1, flicker_filter_h, 0, 1, 1, 0, 1);
  convolve_analysis(input, n, l1, flicker_filter_s, 2, 2, 1, 0, 1);
  convolve_analysis(l1, n, h2, flicker_filter_h, 0, 1, 2, 0, 1);
  convolve_analysis(l1, n, l2, flicker_filter_s, 2, 2, 2, 0, 1);

  // A spike is a raw first difference of 41 or more; both details go there.
  for (std::int32_t i = 0; i < n; ++i) {
    if (fx::wrap_abs32(h1[i]) >= kSpikeStep) {
      h1[i] = 0;
      h2[i] = 0;
    }
  }

  // Level 2 back to the level-1 smooth: 16 x 256 before the round8, 16 x after.
  convolve_analysis(l2, n, l2r, flicker_filter_s, 2, 2, 2, 0, 1);
  convolve_synthesis(h2, n, h2r, flicker_filter_q, 4, 3, 2, 0);
  for (std::int32_t i = 0; i < n; ++i) l2r[i] = fx::round8_32(fx::wrap_add32(l2r[i], h2r[i]));

  // Level 1 with its fine detail kept: 256 x the input, then the last round8.
  convolve_analysis(l2r, n, l1r, flicker_filter_s, 2, 2, 1, 0, 1);
  convolve_synthesis(h1, n, h2r, flicker_filter_q, 4, 3, 1, 0);
  for (std::int32_t i = 0; i < n; ++i) {
    l1r[i] = fx::wrap_add32(l1r[i], h2r[i]);
    output[i] = fx::round8_32(l1r[i]);
  }
}
