// SPDX-License-Identifier: Apache-2.0
// 2x5 adaptive despike: none, clip, delete or multiscale-product test by level count.
#include "twobyfive/twobyfive.h"

#include "filterbank/filterbank.h"
#include "fixed_point.h"
#include "interface/interface.h"
#include "standard/standard.h"

std::int32_t flicker_despike_working_memory_l2r_32bit[2000];
std::int32_t flicker_despike_working_memory_h1r[2000];

namespace {

// Shortest signal each mode's border mirrors can reflect: the level-1 synthesis mirrors 4
// samples, the level-2 one 7, the level-3 one 14.
std::int32_t shortest_signal(std::int32_t levels) {
  if (levels >= 3) return 14;
  if (levels == 2) return 7;
  return 4;
}

void analysis32(std::int32_t* x, std::int32_t n, std::int32_t* y, std::int32_t* taps,
                std::int32_t left, std::int32_t right, std::int32_t dilation, std::int32_t shift) {
  convolve_analysis(x, n, y, taps, left, right, dilation, shift, 1);
}

}  // namespace

void flickerDespikeAdaptive_2x5(std::int32_t* input, std::int32_t* output, std::int32_t n,
                                std::int32_t levels, std::int32_t threshold) {
  if (n < 1) return;
  if (n > kDespikeSize) {
    LogRefusalFlk("flickerDespikeAdaptive_2x5", "%d samples exceed %d", n, kDespikeSize);
    return;
  }
  if (levels == 0) {
    for (std::int32_t i = 0; i < n; ++i) output[i] = input[i];
    return;
  }
  if (n < shortest_signal(levels)) {
    // Too short for the border mirrors: nothing to despike, pass the signal on unchanged.
    if (levels > 0) {
      for (std::int32_t i = 0; i < n; ++i) output[i] = input[i];
    }
    return;
  }

  // This despike keeps 32-bit bands in the standard despike's 64-bit working memories, element i
  // at 32-bit index i (the library is built with -fno-strict-aliasing for these views).
  auto view32 = [](std::int64_t* memory) { return reinterpret_cast<std::int32_t*>(memory); };
  std::int32_t* const h1 = view32(flicker_despike_working_memory_h1);
  std::int32_t* const l1 = view32(flicker_despike_working_memory_l1);
  std::int32_t* const h2 = view32(flicker_despike_working_memory_h2);
  std::int32_t* const l2 = view32(flicker_despike_working_memory_l2);
  std::int32_t* const h3 = view32(flicker_despike_working_memory_h3);
  std::int32_t* const l3 = view32(flicker_despike_working_memory_l3);
  std::int32_t* const h2r = view32(flicker_despike_working_memory_h2r);
  std::int32_t* const l1r = view32(flicker_despike_working_memory_l1r);
  std::int32_t* const h_tmp = flicker_despike_working_memory_h_tmp;
  std::int32_t* const h_mask = flicker_despike_working_memory_h_mask;
  std::int32_t* const l2r32 = flicker_despike_working_memory_l2r_32bit;
  std::int64_t* const l3r = flicker_despike_working_memory_l3r;
  std::int64_t* const h3r = flicker_despike_working_memory_h3r;
  std::int64_t* const l2r = flicker_despike_working_memory_l2r;

  // Scales carried by the bands: l1 16 x, l2 256 x, l3 4096 x the input; h1 1 x, h2 16 x,
  // h3 256 x. The rebuilt signal l1r is 256 x the input.
  analysis32(input, n, h1, flicker_filter_h, 0, 1, 1, 0);
  analysis32(input, n, l1, flicker_filter_s, 2, 2, 1, 0);
  if (levels < 0) return;
  if (levels >= 2) {
    analysis32(l1, n, h2, flicker_filter_h, 0, 1, 2, 0);
    analysis32(l1, n, l2, flicker_filter_s, 2, 2, 2, 0);
  }
  if (levels >= 3) {
    analysis32(l2, n, h3, flicker_filter_h, 0, 1, 4, 0);
    analysis32(l2, n, l3, flicker_filter_s, 2, 2, 4, 0);
  }

  if (levels == 1) {
    // Clip strong first differences instead of deleting them.
    // Every entry rewritten (the kept ones unchanged), so the loop vectorises.
    const std::int32_t negative = fx::wrap_neg32(threshold);
    for (std::int32_t i = 0; i < n; ++i) {
      const std::int32_t clipped = h1[i] > 0 ? threshold : negative;
      h1[i] = fx::wrap_abs32(h1[i]) >= threshold ? clipped : h1[i];
    }
    analysis32(l1, n, l1r, flicker_filter_s, 2, 2, 1, 0);
    convolve_synthesis(h1, n, h2r, flicker_filter_q, 4, 3, 1, 0);
    for (std::int32_t i = 0; i < n; ++i) {
      l1r[i] = fx::wrap_add32(l1r[i], h2r[i]);
      output[i] = fx::round8_32(l1r[i]);
    }
    return;
  }

  if (levels == 2) {
    // Every entry rewritten (the kept ones unchanged), so the loop vectorises.
    for (std::int32_t i = 0; i < n; ++i) {
      const std::int32_t keep = fx::wrap_abs32(h1[i]) >= threshold ? 0 : -1;
      h1[i] &= keep;
      h2[i] &= keep;
    }
    // 64-bit: the 16 x 16 x 16 smoothing gain on l2 leaves no 32-bit headroom.
    convolve_synthesis_32_to_64_2x5(l2, n, l2r, flicker_filter_s, 2, 2, 2, 0);
    convolve_synthesis(h2, n, h2r, flicker_filter_q, 4, 3, 2, 0);
    for (std::int32_t i = 0; i < n; ++i) l2r32[i] = fx::low32(fx::round8_64(l2r[i] + h2r[i]));
    analysis32(l2r32, n, l1r, flicker_filter_s, 2, 2, 1, 0);
    convolve_synthesis(h1, n, h2r, flicker_filter_q, 4, 3, 1, 0);
    for (std::int32_t i = 0; i < n; ++i) {
      l1r[i] = fx::wrap_add32(l1r[i], h2r[i]);
      output[i] = fx::round8_32(l1r[i]);
    }
    return;
  }

  // Three levels: a spike is where the level-1 and level-2 details are both large.
  for (std::int32_t i = 0; i < n; ++i) h_tmp[i] = fx::wrap_mul32(h1[i], h2[i]);
  analysis32(h_tmp, n, h_mask, flicker_filter_s2, 4, 4, 1, 9);
  for (std::int32_t i = 0; i < n; ++i) {
    const std::int32_t keep = fx::wrap_abs32(h_mask[i]) >= threshold ? 0 : -1;
    h2[i] &= keep;
    h3[i] &= keep;
  }
  convolve_synthesis_32_to_64_2x5(l3, n, l3r, flicker_filter_s, 2, 2, 4, 0);
  convolve_synthesis_32_to_64_2x5(h3, n, h3r, flicker_filter_q, 4, 3, 4, 0);
  for (std::int32_t i = 0; i < n; ++i) l3r[i] = fx::round8_64(l3r[i] + h3r[i]);
  convolve_synthesis(l3r, n, l2r, flicker_filter_s, 2, 2, 2, 0);
  convolve_synthesis(h2, n, h2r, flicker_filter_q, 4, 3, 2, 0);
  for (std::int32_t i = 0; i < n; ++i) l2r32[i] = fx::low32(fx::round8_64(l2r[i] + h2r[i]));
  analysis32(l2r32, n, l1r, flicker_filter_s, 2, 2, 1, 0);
  // The level-1 detail's synthesis is still computed into its exported array, then left out.
  convolve_synthesis(h1, n, flicker_despike_working_memory_h1r, flicker_filter_q, 4, 3, 1, 0);
  for (std::int32_t i = 0; i < n; ++i) output[i] = fx::round8_32(l1r[i]);
}
